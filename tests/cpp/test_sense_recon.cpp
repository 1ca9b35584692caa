// Whole SENSE reconstructions on synthetic data: exact unfolding for integer and non-integer
// factors, coarse sensitivity maps, correlated noise, regularisation, the walk over higher
// dimensions, and whole sets unfolded in one pass. The regularisation weight's
// formula is checked against a direct solve in octave/test_mrkit_sense.m, through the gateway.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/sense_phantom.hpp"
#include "support/threads.hpp"

namespace {

using namespace sense_phantom;
using Dims = std::array<int, 3>;

double report(const char* name, double e) {
    std::printf("[ NRMSE    ] %s: %.3g\n", name, e);
    return e;
}

// Folds the object for `coils` coils onto (fy, fz), reconstructs with maps sampled on `maps`.
double unfold_error(const char* name, Dims full, int fy, int fz, int coils, Dims maps,
                    const Extras& extras = {}) {
    const Split img = make_object(full[0], full[1], full[2]);
    const Split data = fold(img, coils, fy, fz);
    const Split sens = make_maps(maps[0], maps[1], maps[2], coils);
    Split out = make_output(data, full);
    EXPECT_EQ(reconstruct(data, sens, full, out, extras), 1);
    return report(name, nrmse(out, img));
}

// Lower-triangular mixing with strong complex correlations between neighbouring coils.
std::vector<cf> mixing(int coils) {
    std::vector<cf> L(coils * coils, 0.0f);
    for (int r = 0; r < coils; ++r) {
        L[r + coils * r] = 1.0f;
        if (r > 0) L[r + coils * (r - 1)] = std::polar(0.9f, 0.7f * r);
    }
    return L;
}

// Covariance scale L L^H as the driver takes it (rows fastest), or its transpose.
Split covariance(const std::vector<cf>& L, int coils, bool transposed = false, float scale = 1.0f) {
    Split psi({coils, coils});
    for (int c = 0; c < coils; ++c)
        for (int r = 0; r < coils; ++r) {
            cf s = 0;
            for (int k = 0; k < coils; ++k) s += L[r + coils * k] * std::conj(L[c + coils * k]);
            psi.set(transposed ? c + coils * r : r + coils * c, scale * s);
        }
    return psi;
}

double energy(const Split& s) {
    double e = 0.0;
    for (size_t i = 0; i < s.size(); ++i) e += std::norm(std::complex<double>(s.at(i)));
    return e;
}

}  // namespace

TEST(SenseRecon, ExactForIntegerFactors) {
    EXPECT_LT(unfold_error("R = 1 (no folding)", {24, 32, 1}, 32, 1, 4, {24, 32, 1}), 1e-3);
    EXPECT_LT(unfold_error("R = 2 along y", {48, 64, 1}, 32, 1, 8, {48, 64, 1}), 1e-3);
    EXPECT_LT(unfold_error("R = 3 along y", {48, 66, 1}, 22, 1, 8, {48, 66, 1}), 1e-3);
    EXPECT_LT(unfold_error("R = 4 along y", {48, 64, 1}, 16, 1, 8, {48, 64, 1}), 1e-3);
    EXPECT_LT(unfold_error("R = 2 x 2 along y and z", {24, 32, 16}, 16, 8, 8, {24, 32, 16}), 1e-3);
}

TEST(SenseRecon, ExactForNonIntegerFactors) {
    EXPECT_LT(unfold_error("full 40 onto 16", {32, 40, 1}, 16, 1, 6, {32, 40, 1}), 1e-3);
    EXPECT_LT(unfold_error("full 100 onto 40", {32, 100, 1}, 40, 1, 6, {32, 100, 1}), 1e-3);
    EXPECT_LT(unfold_error("2.5 x 1.67 on 3-D", {12, 40, 10}, 16, 6, 8, {12, 40, 10}), 1e-3);
}

// Wide images are unfolded in strips of factor-grid columns, several per thread: exact, and the
// same bits for any thread count although the strips then start at other columns. Maps twice as
// fine as the image give strips of half as many voxels.
TEST(SenseRecon, ImagesWiderThanAStrip) {
    EXPECT_LT(unfold_error("600 x 32, R = 2", {600, 32, 1}, 16, 1, 4, {600, 32, 1}), 1e-3);
    EXPECT_LT(
        unfold_error("300 x 40 with maps 600 x 40, R = 2.5", {300, 40, 1}, 16, 1, 4, {600, 40, 1}),
        0.05);
    const Dims full{700, 20, 1};
    const Split img = make_object(full[0], full[1], full[2]);
    const Split data = fold(img, 4, 8, 1);
    const Split sens = make_maps(350, 20, 1, 4);
    auto run = [&] {
        Split out = make_output(data, full);
        EXPECT_EQ(reconstruct(data, sens, full, out), 1);
        return out;
    };
    const Split one = with_threads(1, run), two = with_threads(2, run);
    EXPECT_TRUE(same_bits(one.re, two.re));
    EXPECT_TRUE(same_bits(one.im, two.im));
}

TEST(SenseRecon, CoarseSensitivityMapsStillUnfoldSmoothData) {
    EXPECT_LT(
        unfold_error("maps 32 x 32, image 64 x 64, R = 2", {64, 64, 1}, 32, 1, 8, {32, 32, 1}),
        0.05);
    EXPECT_LT(
        unfold_error("maps 32 x 40, image 64 x 100, R = 2.5", {64, 100, 1}, 40, 1, 8, {32, 40, 1}),
        0.05);
}

// Decorrelating with the true covariance is still exact without noise and gives less noise in
// the unfolded image than ignoring the correlation or reading the matrix transposed.
TEST(SenseRecon, CorrelatedNoiseCovariance) {
    const int coils = 8;
    const Dims full{48, 64, 1};
    const auto L = mixing(coils);
    const Split psi = covariance(L, coils), psiT = covariance(L, coils, true);
    Extras e;
    e.noise = &psi;
    EXPECT_LT(unfold_error("R = 2, correlated covariance", full, 32, 1, coils, full, e), 1e-3);

    const Split img = make_object(full[0], full[1], full[2]);
    Split data = fold(img, coils, 32, 1);
    add_noise(data, L, coils, 0.02f, 11);
    const Split sens = make_maps(full[0], full[1], full[2], coils);
    auto noisy_error = [&](const Split* noise) {
        Split out = make_output(data, full);
        Extras x;
        x.noise = noise;
        EXPECT_EQ(reconstruct(data, sens, full, out, x), 1);
        return nrmse(out, img);
    };
    const double right = noisy_error(&psi), white = noisy_error(nullptr),
                 transposed = noisy_error(&psiT);
    std::printf("[ NRMSE    ] noisy, covariance / identity / transposed: %.4g / %.4g / %.4g\n",
                right, white, transposed);
    EXPECT_LT(right, 0.9 * white);
    EXPECT_LT(right, 0.95 * transposed);
}

// A stronger weight (larger regScale) shrinks the result toward the prior's zero mean. With
// noisy, poorly conditioned data, the true noise covariance and a good prior, a moderate weight
// lowers the error.
TEST(SenseRecon, RegularisationStrengthAndBenefit) {
    const int coils = 4;
    const float sigma = 0.01f;
    const Dims full{48, 64, 1};
    const Split img = make_object(full[0], full[1], full[2]);
    Split data = fold(img, coils, 16, 1);
    const auto L = mixing(coils);
    add_noise(data, L, coils, sigma, 5);
    const Split psi = covariance(L, coils, false, 2 * sigma * sigma);
    const Split sens = make_maps(full[0], full[1], full[2], coils);
    Split prior({full[0], full[1], full[2]});
    for (size_t i = 0; i < prior.size(); ++i) prior.set(i, std::abs(img.at(i)));

    Split plain = make_output(data, full);
    Extras e;
    e.noise = &psi;
    ASSERT_EQ(reconstruct(data, sens, full, plain, e), 1);
    const double plainError = report("R = 4, 4 coils, noisy, unregularised", nrmse(plain, img));

    e.ref = &img;
    e.reg = &prior;
    double previous = energy(plain), best = plainError;
    for (double scale : {0.1, 1.0, 10.0, 100.0, 1e4}) {
        e.regScale = scale;
        Split out = make_output(data, full);
        ASSERT_EQ(reconstruct(data, sens, full, out, e), 1);
        const double now = energy(out), err = nrmse(out, img);
        std::printf("[ NRMSE    ] regScale %g: %.4g (energy ratio %.3g)\n", scale, err,
                    now / energy(plain));
        EXPECT_LT(now, previous) << "regScale " << scale;
        previous = now;
        best = std::min(best, err);
    }
    EXPECT_LT(previous, 1e-3 * energy(plain));
    EXPECT_LT(best, 0.8 * plainError);
}

TEST(SenseRecon, NoSensitivitySetsReturnsWithoutWriting) {
    const Split sens = make_maps(8, 8, 1, 2);
    Split data({8, 4, 1, 2, 1, 1, 1, 0});
    std::vector<float> re(64, -3.0f), im(64, -3.0f);
    const int outDims[] = {8, 8, 1, 1, 1, 1, 1, 0}, full[] = {8, 8, 1}, eye[] = {2, 2};
    EXPECT_EQ(MR_sense_recon(data.re.data(), data.im.data(), 8, data.dims.data(), sens.re.data(),
                             sens.im.data(), 4, sens.dims.data(), nullptr, nullptr, 2, eye, full,
                             nullptr, nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr, 1.0,
                             re.data(), im.data(), outDims),
              1);
    for (size_t i = 0; i < re.size(); ++i) {
        EXPECT_EQ(re[i], -3.0f);
        EXPECT_EQ(im[i], -3.0f);
    }
}

// The volumes of a sensitivity set are unfolded in one pass; the result must be that of unfolding
// them one by one with unfold, in the walk's order (dimensions 5-7 outer, 9-13 inner): for
// separate output volumes, for output volumes that overlap (the later volume's values stay,
// though it reaches the shared samples from earlier folded lines), and when an output offset
// falls outside (the volumes walked before it written, the later ones not even where their own
// offsets would fit, and -1).
TEST(SenseRecon, VolumesOfASetAsUnfoldedOneByOne) {
    const int nx = 12, ny = 30, fy = 12, coils = 4, J = 2, K = 2;
    const Dims full{nx, ny, 1};
    Split data({nx, fy, 1, coils, J, 1, 1, 1, K});
    const size_t folded = static_cast<size_t>(nx) * fy * coils;
    for (int v = 0; v < J * K; ++v) {
        const Split f = fold(make_object(nx, ny, 1, v), coils, fy, 1);
        std::copy(f.re.begin(), f.re.end(), data.re.begin() + v * folded);
        std::copy(f.im.begin(), f.im.end(), data.im.begin() + v * folded);
    }
    Split sens = make_maps(nx, ny, 1, coils);
    // No signal in a band, so that some voxels have signal at one aliased position only.
    for (int y = 10; y < 14; ++y)
        for (int x = 0; x < nx; ++x) sens.re[x + nx * y] = 0.0f;

    // Factors as the reconstruction computes them, for unfold per volume.
    Eigen::VectorXi sensDims(4), foldedDims(4), fullDims(3), factorDims(4);
    sensDims << nx, ny, 1, coils;
    foldedDims << nx, fy, 1, coils;
    fullDims << nx, ny, 1;
    const Eigen::Vector3f R(1.0f, float(ny) / float(fy), 1.0f);
    factorDims << nx, int(ceilf(ny / R[1])), 1, int(ceilf(R[1])) * coils;
    Eigen::VectorXcd factors = Eigen::VectorXcd::Zero(factorDims.prod());
    float yc[2] = {-1.0f, -1.0f}, zc[2] = {-1.0f, -1.0f};
    get_combination_factors(sens.re.data(), sens.im.data(), sensDims,
                            Eigen::MatrixXcd::Identity(coils, coils), R, 0.0, Eigen::VectorXf(),
                            factors, foldedDims, fullDims, yc, zc);

    // Output rows per volume (25: overlapping by 5 rows), and the extent of dimension 9.
    for (const auto& [outY, outK] : {std::pair{ny, K}, {ny - 5, K}, {ny, 1}}) {
        const std::vector<int> outDims = {nx, outY, 1, 1, J, 1, 1, 1, outK};
        const size_t stride = static_cast<size_t>(nx) * outY;
        // Room for the last volume's writes also where the volumes overlap.
        const size_t room = stride * J * outK + static_cast<size_t>(nx) * ny;
        std::vector<float> re(room, 7.0f), im(room, -7.0f);
        std::vector<float> expectRe = re, expectIm = im;
        int expectStatus = 1;
        for (int j = 0; j < J && expectStatus == 1; ++j)
            for (int k = 0; k < K; ++k) {
                const int v = j + J * k;
                if (v >= J * outK) {
                    expectStatus = -1;
                    break;
                }
                unfold(data.re.data() + v * folded, data.im.data() + v * folded, foldedDims,
                       factors, factorDims, sensDims, fullDims, yc, zc,
                       expectRe.data() + v * stride, expectIm.data() + v * stride);
            }
        const int eye[] = {coils, coils};
        const int status = MR_sense_recon(
            data.re.data(), data.im.data(), 9, data.dims.data(), sens.re.data(), sens.im.data(), 4,
            sens.dims.data(), nullptr, nullptr, 2, eye, full.data(), nullptr, nullptr, 0, nullptr,
            nullptr, nullptr, 0, nullptr, 1.0, re.data(), im.data(), outDims.data());
        EXPECT_EQ(status, expectStatus) << outY << " " << outK;
        EXPECT_TRUE(same_bits(re, expectRe)) << outY << " " << outK;
        EXPECT_TRUE(same_bits(im, expectIm)) << outY << " " << outK;
    }
}
