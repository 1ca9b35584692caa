// What SENSE needs, estimated from the data: coil maps from a fully sampled k-space centre
// (against the maps that made the data, and through a whole unfolding with noise) and the noise
// covariance of correlated coil noise (against the covariance that made it).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <tuple>
#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/demo_phantom.hpp"
#include "support/dft.hpp"
#include "support/sense_phantom.hpp"
#include "support/threads.hpp"

namespace {

using namespace sense_phantom;
using cd = std::complex<double>;

// A head-like object: an ellipse with a darker inside and a bright spot, zero outside.
Split head(int nx, int ny, std::vector<char>& support) {
    Split img({nx, ny, 1});
    support.assign(img.size(), 0);
    for (int y = 0; y < ny; ++y)
        for (int x = 0; x < nx; ++x) {
            const double u = 2.0 * x / nx - 1.0, v = 2.0 * y / ny - 1.0;
            const double r = (u * u) / 0.55 + (v * v) / 0.75;
            if (r > 1.0) continue;
            double value = r > 0.8 ? 1.0 : 0.45;
            if ((u - 0.2) * (u - 0.2) + (v + 0.25) * (v + 0.25) < 0.03) value = 0.9;
            support[x + nx * y] = 1;
            img.set(x + nx * y, cf(static_cast<float>(value), 0.0f));
        }
    return img;
}

// Coil images of `img` through the phantom's maps.
Split coil_images(const Split& img, const Split& maps, int coils) {
    Split out(maps.dims);
    const size_t n = img.size();
    for (int c = 0; c < coils; ++c)
        for (size_t i = 0; i < n; ++i) out.set(i + n * c, img.at(i) * maps.at(i + n * c));
    return out;
}

struct Estimate {
    Split maps;
    int inside;
};

enum class Method { Kernel, Walsh };

// Maps of 2-D k-space; size is the kernel's (Kernel) or the window's (Walsh).
Estimate estimate(const Split& kspace, int calibX, int calibY, float threshold,
                  Method method = Method::Kernel, int size = 0) {
    Estimate e{Split(kspace.dims), 0};
    const int dims[4] = {kspace.dims[0], kspace.dims[1], 1, kspace.dims[3]};
    const int calib[3] = {calibX, calibY, 1};
    if (method == Method::Kernel) {
        const int kernel[3] = {size ? size : 6, size ? size : 6, 1};
        e.inside = MR_coil_maps_kernel(kspace.re.data(), kspace.im.data(), dims, calib, kernel,
                                       threshold, e.maps.re.data(), e.maps.im.data());
    } else {
        const int win[3] = {size ? size : 5, size ? size : 5, 1};
        e.inside = MR_coil_maps(kspace.re.data(), kspace.im.data(), dims, calib, win, threshold,
                                e.maps.re.data(), e.maps.im.data());
    }
    return e;
}

// Per voxel 1 - |u^H s|^2 / |s|^2 for unit u: zero when the estimate is the true map up to a
// factor common to the coils; the mean and the largest over the mask.
std::pair<double, double> misfit(const Split& est, const Split& truth, const std::vector<char>& m,
                                 int coils) {
    const size_t n = m.size();
    double sum = 0.0, worst = 0.0;
    int count = 0;
    for (size_t i = 0; i < n; ++i) {
        if (!m[i]) continue;
        cd dot = 0.0;
        double ss = 0.0, uu = 0.0;
        for (int c = 0; c < coils; ++c) {
            dot += std::conj(cd(est.at(i + n * c))) * cd(truth.at(i + n * c));
            ss += std::norm(cd(truth.at(i + n * c)));
            uu += std::norm(cd(est.at(i + n * c)));
        }
        EXPECT_NEAR(uu, 1.0, 1e-5);
        const double e = 1.0 - std::norm(dot) / ss;
        sum += e;
        worst = std::max(worst, e);
        ++count;
    }
    return {sum / count, worst};
}

}  // namespace

// Noise-free data of an odd-sized object with an arbitrary scale, by either method: inside the
// support the estimated maps are the true ones up to a factor common to the coils, unit norm
// over the coils, zero outside the threshold and everywhere non-zero with threshold 0; any
// thread count gives the same bits.
TEST(CoilMaps, MatchTheTrueMapsUpToACommonFactor) {
    const int nx = 63, ny = 70, coils = 12;
    std::vector<char> support;
    Split img = head(nx, ny, support);
    for (size_t i = 0; i < img.size(); ++i) img.set(i, img.at(i) * 3.7e4f);
    const Split truth = make_maps(nx, ny, 1, coils);
    const Split kspace = dft::centred_forward(coil_images(img, truth, coils));

    // The kernels see the maps themselves; Walsh's method sees them through the block's blur.
    for (const auto& [method, meanBound, worstBound] :
         {std::tuple{Method::Kernel, 1e-4, 5e-3}, std::tuple{Method::Walsh, 2e-3, 0.05}}) {
        SCOPED_TRACE(method == Method::Kernel ? "kernel" : "walsh");
        const Estimate masked = estimate(kspace, nx, 24, 0.1f, method);
        const auto [mean, worst] = misfit(masked.maps, truth, support, coils);
        std::printf("[ MISFIT   ] %s, 12 coils, 24 lines: mean %.3g, worst %.3g\n",
                    method == Method::Kernel ? "kernel" : "walsh", mean, worst);
        EXPECT_LT(mean, meanBound);
        EXPECT_LT(worst, worstBound);
        // Masked: zero outside some margin around the object, nothing zero in its core.
        int outside = 0, zeroInside = 0;
        for (size_t i = 0; i < support.size(); ++i) {
            const bool zero = masked.maps.re[i] == 0.0f && masked.maps.im[i] == 0.0f;
            outside += zero;
            zeroInside += zero && support[i];
        }
        EXPECT_EQ(zeroInside, 0);
        EXPECT_GT(outside, static_cast<int>(support.size() / 10));
        EXPECT_EQ(masked.inside, static_cast<int>(support.size()) - outside);

        // The phase convention: one virtual coil, the dominant eigenvector of the calibration
        // block's coil covariance, sees the same phase through every voxel's maps.
        Eigen::MatrixXcd G = Eigen::MatrixXcd::Zero(coils, coils);
        const size_t n = support.size();
        for (int y = ny / 2 - 12; y < ny / 2 + 12; ++y)
            for (int x = 0; x < nx; ++x) {
                Eigen::VectorXcd v(coils);
                for (int c = 0; c < coils; ++c) v[c] = cd(kspace.at(x + size_t(nx) * y + n * c));
                G += v * v.adjoint();
            }
        const Eigen::VectorXcd w =
            Eigen::SelfAdjointEigenSolver<Eigen::MatrixXcd>(G).eigenvectors().col(coils - 1);
        double first = 0.0, spread = 0.0;
        bool seen = false;
        for (size_t i = 0; i < n; ++i) {
            if (!support[i]) continue;
            cd dot = 0.0;
            for (int c = 0; c < coils; ++c) dot += std::conj(w[c]) * cd(masked.maps.at(i + n * c));
            if (!seen) first = std::arg(dot);
            seen = true;
            spread = std::max(spread, std::abs(std::arg(dot * std::polar(1.0, -first))));
        }
        EXPECT_LT(spread, 1e-3);

        EXPECT_EQ(estimate(kspace, nx, 24, 0.0f, method).inside, nx * ny);
        const auto chosen = method;  // a structured binding cannot be captured (C++17)
        const auto run = [&] { return estimate(kspace, nx, 24, 0.1f, chosen).maps; };
        const Split one = with_threads(1, run), two = with_threads(2, run);
        EXPECT_TRUE(same_bits(one.re, two.re));
        EXPECT_TRUE(same_bits(one.im, two.im));
        EXPECT_TRUE(same_bits(one.re, masked.maps.re));
    }
}

// Maps whose k-space fits inside the kernel lie in the kernels' signal subspace: on a
// sharp-edged object the kernel maps are the true ones at every voxel of the support, the edge
// included, up to what the cut of weak singular values leaves (~1e-4), while Walsh's method
// (low-resolution images) is off by a hundred times that at the edge.
TEST(CoilMaps, KernelMapsHoldAtTheEdgeForBandLimitedMaps) {
    const int nx = 56, ny = 61, coils = 8;
    std::vector<char> support;
    const Split img = head(nx, ny, support);
    Split truth({nx, ny, 1, coils});
    std::mt19937 rng(3);
    std::normal_distribution<double> gauss;
    for (int c = 0; c < coils; ++c) {
        cd a[3][3];
        for (auto& row : a)
            for (cd& v : row) v = cd(gauss(rng), gauss(rng));
        a[1][1] += 3.0;  // a dominant constant term keeps every map away from zero
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                cd s = 0.0;
                for (int j = 0; j < 3; ++j)
                    for (int i = 0; i < 3; ++i)
                        s += a[j][i] * std::polar(1.0, 2.0 * M_PI * ((i - 1.0) * x / nx + (j - 1.0) * y / ny));
                truth.set(x + size_t(nx) * (y + size_t(ny) * c), cf(s));
            }
    }
    const Split kspace = dft::centred_forward(coil_images(img, truth, coils));
    const auto [mean, worst] = misfit(estimate(kspace, 24, 24, 0.1f).maps, truth, support, coils);
    const auto [walshMean, walshWorst] =
        misfit(estimate(kspace, 24, 24, 0.1f, Method::Walsh).maps, truth, support, coils);
    std::printf("[ MISFIT   ] band-limited maps: kernel mean %.3g worst %.3g, walsh mean %.3g "
                "worst %.3g\n", mean, worst, walshMean, walshWorst);
    EXPECT_LT(worst, 1e-3);
    EXPECT_LT(mean, 1e-5);
    EXPECT_GT(walshWorst, 100 * worst);
    EXPECT_GT(walshMean, 10 * mean);
}

// A 3-D volume (odd sizes, a calibration block smaller than the volume along every axis, a
// kernel of other sizes per axis): the kernel maps against the true ones, same bits for any
// thread count.
TEST(CoilMaps, KernelMapsIn3D) {
    const int nx = 21, ny = 18, nz = 15, coils = 6;
    Split img({nx, ny, nz});
    std::vector<char> support(img.size(), 0);
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const double u = 2.0 * x / nx - 1, v = 2.0 * y / ny - 1, w = 2.0 * z / nz - 1;
                if (u * u / 0.6 + v * v / 0.7 + w * w / 0.65 > 1.0) continue;
                const size_t i = x + size_t(nx) * (y + size_t(ny) * z);
                support[i] = 1;
                img.set(i, cf(0.5f + 0.5f * static_cast<float>(u * u), 0.0f));
            }
    const Split truth = make_maps(nx, ny, nz, coils);
    Split images(truth.dims);
    for (int c = 0; c < coils; ++c)
        for (size_t i = 0; i < img.size(); ++i)
            images.set(i + img.size() * c, img.at(i) * truth.at(i + img.size() * c));
    const Split kspace = dft::centred_forward(images);
    const int dims[4] = {nx, ny, nz, coils}, calib[3] = {16, 12, 10}, kernel[3] = {5, 4, 4};
    const auto run = [&] {
        Split maps(truth.dims);
        EXPECT_GT(MR_coil_maps_kernel(kspace.re.data(), kspace.im.data(), dims, calib, kernel,
                                      0.1f, maps.re.data(), maps.im.data()),
                  0);
        return maps;
    };
    const Split one = with_threads(1, run), two = with_threads(2, run);
    const auto [mean, worst] = misfit(one, truth, support, coils);
    std::printf("[ MISFIT   ] 3-D kernel maps: mean %.3g, worst %.3g\n", mean, worst);
    EXPECT_LT(mean, 1e-3);
    EXPECT_LT(worst, 0.02);
    EXPECT_TRUE(same_bits(one.re, two.re));
    EXPECT_TRUE(same_bits(one.im, two.im));
}

// The whole road with noise on the demo's phantom and maps: SENSE with estimated (masked) maps
// against SENSE with the true maps, inside the support, at R = 2, 3 and 2.5, for 8 and 16 coils.
TEST(CoilMaps, SenseWithEstimatedMapsNearlyAsGoodAsTrueMaps) {
    const int nx = 160, ny = 150;  // R = 2, 3 and 2.5 exactly
    for (int coils : {8, 16}) {
        const Split img = demo_phantom::phantom(nx, ny);
        std::vector<char> support(img.size());
        for (size_t i = 0; i < img.size(); ++i) support[i] = img.re[i] > 0.0f;
        const Split truth = demo_phantom::coil_maps(nx, ny, coils);
        const Split images = coil_images(img, truth, coils);
        Split kspace = dft::centred_forward(images);
        // Complex noise of 1% of the largest coil signal in the images, before mixing; the
        // unnormalised transform takes it to sqrt(nx ny) times that in k-space.
        float peak = 0.0f;
        for (size_t i = 0; i < images.size(); ++i) peak = std::max(peak, std::abs(images.at(i)));
        const float level = 0.01f * peak;
        const float sigma = level / std::sqrt(2.0f) * static_cast<float>(std::sqrt(double(nx) * ny));
        std::vector<cf> L(coils * coils, 0.0f);
        for (int r = 0; r < coils; ++r) {
            L[r + coils * r] = 1.0f;
            if (r > 0) L[r + coils * (r - 1)] = std::polar(0.5f, 0.3f * r);
        }
        add_noise(kspace, L, coils, sigma, 17 + coils);
        for (Method method : {Method::Kernel, Method::Walsh}) {
            const Split est = estimate(kspace, nx, 24, 0.05f, method).maps;
            // Maps are defined up to a factor per voxel common to the coils, which the unfolded image
            // carries inverted: with u = a s, SENSE gives rho / a. The estimated result is taken back
            // by a = s^H u / s^H s before it is compared with the object.
            std::vector<cd> factor(support.size(), 1.0);
            for (size_t i = 0; i < factor.size(); ++i) {
                cd num = 0.0;
                double den = 0.0;
                for (int c = 0; c < coils; ++c) {
                    num += std::conj(cd(truth.at(i + factor.size() * c))) * cd(est.at(i + factor.size() * c));
                    den += std::norm(cd(truth.at(i + factor.size() * c)));
                }
                factor[i] = num / den;
            }
            // Image-domain noise of the same covariance on the folded images.
            Split psi({coils, coils});
            for (int c = 0; c < coils; ++c)
                for (int r = 0; r < coils; ++r) {
                    cf s = 0;
                    for (int k = 0; k < coils; ++k) s += L[r + coils * k] * std::conj(L[c + coils * k]);
                    psi.set(r + coils * c, level * level * s);
                }
            for (int fy : {75, 50, 60}) {
                Split data({nx, fy, 1, coils});
                {
                    // Fold the coil images as the acquisition aliases them.
                    const size_t n = support.size();
                    for (int c = 0; c < coils; ++c)
                        for (int y = 0; y < ny; ++y)
                            for (int x = 0; x < nx; ++x) {
                                const size_t o = x + nx * (fold_index(y, ny, fy) + size_t(fy) * c);
                                data.set(o, data.at(o) + images.at(x + nx * y + n * c));
                            }
                }
                add_noise(data, L, coils, level / std::sqrt(2.0f), 5 + fy);
                Extras e;
                e.noise = &psi;
                const auto error = [&](const Split& maps, bool estimated) {
                    Split out = make_output(data, {nx, ny, 1});
                    EXPECT_EQ(reconstruct(data, maps, {nx, ny, 1}, out, e, &MR_sense_recon_voxelwise), 1);
                    double err = 0.0, norm = 0.0;
                    for (size_t i = 0; i < support.size(); ++i) {
                        if (!support[i]) continue;
                        EXPECT_TRUE(std::isfinite(out.re[i]) && std::isfinite(out.im[i]));
                        const cd value = estimated ? cd(out.at(i)) * factor[i] : cd(out.at(i));
                        err += std::norm(value - cd(img.at(i)));
                        norm += std::norm(cd(img.at(i)));
                    }
                    return std::sqrt(err / norm);
                };
                const double withTrue = error(truth, false), withEst = error(est, true);
                const bool kernel = method == Method::Kernel;
                std::printf("[ NRMSE    ] %s, %d coils, R = %.2f: true maps %.4g, estimated %.4g (x%.2f)\n",
                            kernel ? "kernel" : "walsh", coils, double(ny) / fy, withTrue, withEst,
                            withEst / withTrue);
                // Sixteen coils unfold the true maps' data so well that Walsh's remaining error (the
                // calibration block's blur at the skull) shows more: 1.2-1.35 times there. The
                // kernels do not blur.
                EXPECT_LT(withEst, (kernel || coils == 8 ? 1.2 : 1.4) * withTrue)
                    << (kernel ? "kernel, " : "walsh, ") << coils << " coils, folded " << fy;
            }
        }
    }
}

// Correlated noise of known covariance, coils along a middle dimension of an odd-sized block:
// every entry within five standard errors, Hermitian with a real diagonal, the scale of the data
// squared, and the same bits for any thread count.
TEST(NoiseCovariance, EstimatesTheCovarianceOfCorrelatedNoise) {
    const int coils = 16;
    const std::vector<int> dims = {37, coils, 29, 3};
    const size_t inner = 37, outer = 29 * 3, N = inner * outer;
    std::vector<cf> L(coils * coils, 0.0f);
    for (int r = 0; r < coils; ++r)
        for (int k = 0; k <= r; ++k)
            L[r + coils * k] = k == r ? cf(1.0f + 0.1f * r, 0.0f)
                                      : std::polar(0.6f / (1 + r - k), 0.9f * (r + 2 * k));
    Split noise(dims);
    std::mt19937 gen(3);
    std::normal_distribution<float> g(0.0f, std::sqrt(0.5f));
    std::vector<cf> w(coils);
    for (size_t o = 0; o < outer; ++o)
        for (size_t i = 0; i < inner; ++i) {
            for (auto& v : w) v = cf(g(gen), g(gen));
            for (int r = 0; r < coils; ++r) {
                cf s = 0;
                for (int k = 0; k < coils; ++k) s += L[r + coils * k] * w[k];
                noise.set(i + inner * (r + coils * o), 250.0f * s);
            }
        }
    std::vector<float> re(coils * coils), im(coils * coils);
    MR_noise_covariance(noise.re.data(), noise.im.data(), 4, dims.data(), 2, re.data(), im.data());
    const double scale = 250.0 * 250.0;
    for (int c = 0; c < coils; ++c)
        for (int r = 0; r < coils; ++r) {
            cd truth = 0.0;
            for (int k = 0; k < coils; ++k)
                truth += cd(L[r + coils * k]) * std::conj(cd(L[c + coils * k]));
            truth *= scale;
            const double dr = std::real(truth), di = std::imag(truth);
            cd diag_r = 0.0, diag_c = 0.0;
            for (int k = 0; k < coils; ++k) {
                diag_r += std::norm(cd(L[r + coils * k]));
                diag_c += std::norm(cd(L[c + coils * k]));
            }
            const double stdErr = scale * std::sqrt(std::real(diag_r) * std::real(diag_c) / N);
            EXPECT_NEAR(re[r + coils * c], dr, 5 * stdErr) << r << ", " << c;
            EXPECT_NEAR(im[r + coils * c], di, 5 * stdErr) << r << ", " << c;
            EXPECT_EQ(re[r + coils * c], re[c + coils * r]);
            EXPECT_EQ(im[r + coils * c], -im[c + coils * r]);
        }
    for (int c = 0; c < coils; ++c) EXPECT_EQ(im[c + coils * c], 0.0f);
    const auto run = [&] {
        std::vector<float> a(coils * coils), b(coils * coils);
        MR_noise_covariance(noise.re.data(), noise.im.data(), 4, dims.data(), 2, a.data(), b.data());
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    EXPECT_TRUE(same_bits(with_threads(1, run), with_threads(2, run)));
    std::vector<float> both = re;
    both.insert(both.end(), im.begin(), im.end());
    EXPECT_TRUE(same_bits(both, run()));
}

// Coils along the last dimension and real samples: psi is real and the mean square per coil.
TEST(NoiseCovariance, RealSamplesCoilsLast) {
    const int dims[2] = {5, 3};
    const float re[15] = {1, -1, 2, 0, 0, 3, 3, 3, 3, 3, 0, 0, 0, 0, 5};
    float psiRe[9], psiIm[9];
    MR_noise_covariance(re, nullptr, 2, dims, 2, psiRe, psiIm);
    EXPECT_FLOAT_EQ(psiRe[0], 6.0f / 5);
    EXPECT_FLOAT_EQ(psiRe[4], 45.0f / 5);
    EXPECT_FLOAT_EQ(psiRe[8], 25.0f / 5);
    EXPECT_FLOAT_EQ(psiRe[3], (3 - 3 + 6) / 5.0f);  // coils 0 and 1
    EXPECT_FLOAT_EQ(psiRe[6], 0.0f);                // coils 0 and 2
    EXPECT_FLOAT_EQ(psiRe[7], 15.0f / 5);           // coils 1 and 2
    for (float v : psiIm) EXPECT_EQ(v, 0.0f);
}
