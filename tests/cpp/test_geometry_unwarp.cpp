// Unwarping whole volumes: against the double-precision series on analytic phantoms (errors
// shrink with the voxel size), the identity set, the intensity integral, voxel orderings and
// oblique grids, the warp direction as the inverse, further dimensions, thread counts, and the
// coefficient file reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/sh_reference.hpp"
#include "support/threads.hpp"

namespace {

using shref::CoefficientSet;
using Vec = std::array<double, 3>;

constexpr double kR0 = 250.0;  // mm

// Third- and fifth-degree terms of several per cent: up to about 15 mm at 200 mm from the
// centre, volume changes of 20 %.
CoefficientSet strong_set() {
    CoefficientSet s = shref::linear_set(1.0f, 1.0f, 1.0f);
    s.cos[3][1] = -0.06f;
    s.cos[3][3] = 0.01f;
    s.cos[5][1] = 0.015f;
    s.sin[3][1] = -0.05f;
    s.sin[3][3] = -0.008f;
    s.sin[5][1] = 0.012f;
    s.z[3][0] = -0.07f;
    s.z[5][0] = 0.02f;
    return s;
}

// A grid of nx x ny x nz voxels and its row-major voxel-to-scanner affine.
struct Grid {
    std::array<int, 3> n;
    std::array<double, 16> a;
    int64_t count() const { return static_cast<int64_t>(n[0]) * n[1] * n[2]; }
    Vec at(int i, int j, int k) const {
        Vec p;
        for (int r = 0; r < 3; ++r)
            p[r] = a[4 * r] * i + a[4 * r + 1] * j + a[4 * r + 2] * k + a[4 * r + 3];
        return p;
    }
    Vec at(int64_t v) const {
        return at(static_cast<int>(v % n[0]), static_cast<int>(v / n[0] % n[1]),
                  static_cast<int>(v / n[0] / n[1]));
    }
};

// Cube of side fov mm centred on the isocentre, n voxels per axis, voxel centres inside.
Grid cube(int n, double fov = 400.0) {
    const double h = fov / n, o = -fov / 2 + h / 2;
    return {{n, n, n}, {h, 0, 0, o, 0, h, 0, o, 0, 0, h, o, 0, 0, 0, 1}};
}

// Smooth object: Gaussian blobs (sigma 25 mm) spread through the 200 mm sphere.
double phantom(const Vec& p) {
    const double c[4][4] = {
        {60, -40, 30, 1.0}, {-90, 70, -60, 0.7}, {20, 120, 90, 0.9}, {-40, -110, 100, 0.5}};
    double v = 0;
    for (const auto& b : c) {
        const double d2 =
            std::pow(p[0] - b[0], 2) + std::pow(p[1] - b[1], 2) + std::pow(p[2] - b[2], 2);
        v += b[3] * std::exp(-d2 / (2 * 25.0 * 25.0));
    }
    return v;
}

std::vector<float> sample(const Grid& g, const std::function<double(const Vec&)>& f) {
    std::vector<float> out(g.count());
    for (int64_t v = 0; v < g.count(); ++v) out[v] = static_cast<float>(f(g.at(v)));
    return out;
}

struct Options {
    int interp = MR_UNWARP_LINEAR;
    bool jacobian = true;
    bool warp = false;
};

struct Result {
    std::vector<float> re, im, disp;
    int lost = 0;
};

Result unwarp(const Grid& g, const std::vector<float>& re, const std::vector<float>* im,
              const CoefficientSet& set, Options o, std::vector<int> extra = {}) {
    std::vector<int> dims(g.n.begin(), g.n.end());
    dims.insert(dims.end(), extra.begin(), extra.end());
    Result r;
    r.re.assign(re.size(), -1.0f);
    if (im) r.im.assign(re.size(), -1.0f);
    r.disp.assign(3 * g.count(), -1.0f);
    r.lost =
        MR_unwarp(re.data(), im ? im->data() : nullptr, static_cast<int>(dims.size()), dims.data(),
                  g.a.data(), set.sin, set.cos, set.z, static_cast<float>(kR0), o.interp,
                  o.jacobian, o.warp, r.re.data(), im ? r.im.data() : nullptr, r.disp.data());
    return r;
}

Vec encoded(const CoefficientSet& set, const Vec& p) {
    return shref::series(set, p[0], p[1], p[2], kR0);
}

// |det| of the Jacobian of the series at p, central differences of 0.01 mm in double.
double jacobian(const CoefficientSet& set, const Vec& p) {
    double m[3][3];
    for (int b = 0; b < 3; ++b) {
        Vec lo = p, hi = p;
        lo[b] -= 0.01;
        hi[b] += 0.01;
        const Vec el = encoded(set, lo), eh = encoded(set, hi);
        for (int a = 0; a < 3; ++a) m[a][b] = (eh[a] - el[a]) / 0.02;
    }
    return std::abs(m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                    m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                    m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]));
}

// Root-mean-square error against the scanner model on every third voxel within 180 mm: the
// distorted image shows the object at encoded position A v, so the unwarped voxel at p must
// show the object at e(p), scaled by the volume change when the Jacobian is on.
double error_against_model(const Grid& g, const CoefficientSet& set, Options o) {
    const std::vector<float> distorted = sample(g, phantom);
    const Result r = unwarp(g, distorted, nullptr, set, o);
    double sq = 0;
    int count = 0;
    for (int k = 0; k < g.n[2]; k += 3)
        for (int j = 0; j < g.n[1]; j += 3)
            for (int i = 0; i < g.n[0]; i += 3) {
                const Vec p = g.at(i, j, k);
                if (std::hypot(p[0], p[1], p[2]) > 180) continue;
                double want = phantom(encoded(set, p));
                if (o.jacobian) want *= jacobian(set, p);
                const int64_t v =
                    i + static_cast<int64_t>(g.n[0]) * (j + static_cast<int64_t>(g.n[1]) * k);
                sq += std::pow(r.re[v] - want, 2);
                ++count;
            }
    return std::sqrt(sq / count);
}

double max_abs_difference(const std::vector<float>& a, const std::vector<float>& b) {
    double d = 0;
    for (size_t i = 0; i < a.size(); ++i) d = std::max(d, std::abs(double(a[i]) - b[i]));
    return d;
}

}  // namespace

// The unwarped image against the model, sampled from the analytic object: the error is the
// interpolation's and falls with the voxel size. Where the displacement is below a voxel the
// trilinear error goes as displacement times voxel size, so halving the voxels about halves
// it; Catmull-Rom is far better.
TEST(GeometryUnwarp, MatchesTheModelWithinInterpolationErrorThatShrinksWithVoxelSize) {
    const CoefficientSet set = strong_set();
    const double coarse = error_against_model(cube(24), set, {});
    const double fine = error_against_model(cube(48), set, {});
    EXPECT_LT(fine, 0.002);
    EXPECT_LT(fine, coarse / 1.5) << coarse << " -> " << fine;
    const double cubic = error_against_model(cube(48), set, {MR_UNWARP_CUBIC, true, false});
    EXPECT_LT(cubic, fine / 4);
    // Without the intensity correction the model holds without the volume factor.
    EXPECT_LT(error_against_model(cube(48), set, {MR_UNWARP_LINEAR, false, false}), 0.002);
}

// Warping the true image and unwarping the result gives it back: the warp direction inverts
// the mapping, and both Jacobian factors cancel. Only far outside r0, in the corners of the
// cube, may the inverse fail.
TEST(GeometryUnwarp, WarpThenUnwarpRoundTrips) {
    const CoefficientSet set = strong_set();
    double err[2];
    for (int f = 0; f < 2; ++f) {
        const Grid g = cube(f ? 64 : 32);
        const std::vector<float> truth = sample(g, phantom);
        const Result w = unwarp(g, truth, nullptr, set, {MR_UNWARP_LINEAR, true, true});
        int lost = 0;
        for (int64_t v = 0; v < g.count(); ++v) {
            if (!std::isnan(w.disp[v])) continue;
            ++lost;
            const Vec e = g.at(v);
            EXPECT_GT(std::hypot(e[0], e[1], e[2]), 1.2 * kR0);
            EXPECT_EQ(w.re[v], 0.0f);
        }
        EXPECT_EQ(lost, w.lost);
        EXPECT_GT(max_abs_difference(w.re, truth), 0.1);  // the warp moves the blobs
        const Result u = unwarp(g, w.re, nullptr, set, {});
        err[f] = 0;
        for (int64_t v = 0; v < g.count(); ++v) {
            const Vec p = g.at(v);
            if (std::hypot(p[0], p[1], p[2]) < 180)
                err[f] = std::max(err[f], std::abs(double(u.re[v]) - truth[v]));
        }
        // The warp's displacement leads from each encoded position to its true position.
        for (int64_t v = 0; v < g.count(); v += 97) {
            const Vec e = g.at(v);
            if (std::hypot(e[0], e[1], e[2]) > 180) continue;
            const Vec p = {e[0] + w.disp[v], e[1] + w.disp[g.count() + v],
                           e[2] + w.disp[2 * g.count() + v]};
            const Vec back = encoded(set, p);
            for (int a = 0; a < 3; ++a) EXPECT_NEAR(back[a], e[a], 0.02) << v;
        }
    }
    EXPECT_LT(err[1], 0.04);
    EXPECT_LT(err[1], err[0] / 1.5) << err[0] << " -> " << err[1];
}

// Linear terms only (any values, each field divides by its own): nothing moves, on an oblique
// grid with anisotropic voxels reaching past r0, for both kernels. A point taken to the
// Legendre table's sample rather than its own angle would move by up to 4e-4 r.
TEST(GeometryUnwarp, IdentitySetGivesTheInputBack) {
    const CoefficientSet set = shref::linear_set(0.8f, 1.25f, 1.1f);
    const double c = std::cos(0.5), s = std::sin(0.5);
    const Grid g{{41, 36, 30},
                 {9 * c, -11 * s, 0, -180, 9 * s, 11 * c, 2, -170, 0.5, 0, 13, -190, 0, 0, 0, 1}};
    std::vector<float> noise(g.count());
    uint32_t state = 7;
    for (float& v : noise)
        v = static_cast<float>((state = state * 1664525u + 1013904223u) >> 8) * 0x1p-24f;
    for (int interp : {MR_UNWARP_LINEAR, MR_UNWARP_CUBIC}) {
        const Result r = unwarp(g, noise, nullptr, set, {interp, true, false});
        EXPECT_LT(max_abs_difference(r.re, noise), 3e-4) << interp;
        double moved = 0;
        for (float d : r.disp) moved = std::max(moved, double(std::abs(d)));
        EXPECT_LT(moved, 1e-3);  // mm
    }
}

// The same physical volume stored with its axes permuted and one flipped gives the same
// result voxel for voxel; an oblique grid agrees with the model as an aligned one does.
TEST(GeometryUnwarp, PermutedFlippedAndObliqueGridsGiveTheSamePhysicalResult) {
    const CoefficientSet set = strong_set();
    const double hx = 9, hy = 10, hz = 12;
    const Grid a{{40, 38, 32}, {hx, 0, 0, -175, 0, hy, 0, -185, 0, 0, hz, -186, 0, 0, 0, 1}};
    // b's voxel (i, j, k) is a's voxel (k, 37 - i, j): b's axes are a's z, flipped y and x.
    Grid b{{38, 32, 40}, {}};
    b.a = {0, 0, hx, -175, -hy, 0, 0, -185 + 37 * hy, 0, hz, 0, -186, 0, 0, 0, 1};
    const std::vector<float> da = sample(a, phantom), db = sample(b, phantom);
    for (Options o : {Options{}, Options{MR_UNWARP_CUBIC, true, false},
                      Options{MR_UNWARP_LINEAR, true, true}}) {
        const Result ra = unwarp(a, da, nullptr, set, o), rb = unwarp(b, db, nullptr, set, o);
        double worst = 0, dispWorst = 0;
        for (int k = 0; k < 32; ++k)
            for (int j = 0; j < 38; ++j)
                for (int i = 0; i < 40; ++i) {
                    const int64_t va = i + 40 * (j + 38 * k), vb = (37 - j) + 38 * (k + 32 * i);
                    worst = std::max(worst, std::abs(double(ra.re[va]) - rb.re[vb]));
                    for (int c = 0; c < 3; ++c)
                        dispWorst =
                            std::max(dispWorst, std::abs(double(ra.disp[c * a.count() + va]) -
                                                         rb.disp[c * b.count() + vb]));
                }
        EXPECT_LT(worst, 2e-4) << o.interp << o.warp;
        EXPECT_LT(dispWorst, 2e-3) << o.interp << o.warp;  // mm
    }
    // Oblique: rotated 20 degrees about a tilted axis, 6.25 mm voxels as in cube(64).
    const double t = 20 * M_PI / 180, u[3] = {0.48, 0.6, 0.64};
    double R[3][3];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            R[r][c] = (r == c ? std::cos(t) : 0) + (1 - std::cos(t)) * u[r] * u[c] +
                      std::sin(t) * (r == (c + 1) % 3   ? u[(c + 2) % 3]
                                     : r == (c + 2) % 3 ? -u[(c + 1) % 3]
                                                        : 0);
    Grid o = cube(64);
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) o.a[4 * r + c] = R[r][c] * 6.25;
        o.a[4 * r + 3] = -(R[r][0] + R[r][1] + R[r][2]) * 6.25 * 31.5;
    }
    EXPECT_LT(error_against_model(o, set, {}), 0.02);
}

// Further dimensions share the positions; real and imaginary parts resample alike, so each
// volume of a complex stack on one thread equals the single real volume unwarped alone on two,
// bit for bit.
TEST(GeometryUnwarp, ComplexStacksMatchSingleVolumes) {
    const CoefficientSet set = strong_set();
    const Grid g{{24, 20, 17}, {16, 0, 0, -190, 0, 18, 0, -175, 0, 0, 21, -170, 0, 0, 0, 1}};
    const int64_t n = g.count();
    std::vector<float> re(6 * n), im(6 * n);
    for (int64_t v = 0; v < 6 * n; ++v) {
        re[v] = static_cast<float>(phantom(g.at(v % n)) * (1 + v / n));
        im[v] = static_cast<float>(std::sin(0.001 * v));
    }
    for (Options o : {Options{}, Options{MR_UNWARP_CUBIC, false, false},
                      Options{MR_UNWARP_LINEAR, true, true}}) {
        const Result all = with_threads(1, [&] { return unwarp(g, re, &im, set, o, {2, 3}); });
        for (int64_t vol = 0; vol < 6; ++vol) {
            const std::vector<float> r1(re.begin() + vol * n, re.begin() + (vol + 1) * n);
            const std::vector<float> i1(im.begin() + vol * n, im.begin() + (vol + 1) * n);
            const auto two = [&](const std::vector<float>& v) {
                return with_threads(2, [&] { return unwarp(g, v, nullptr, set, o); });
            };
            const Result a = two(r1), b = two(i1);
            EXPECT_TRUE(same_bits(
                std::vector<float>(all.re.begin() + vol * n, all.re.begin() + (vol + 1) * n),
                a.re));
            EXPECT_TRUE(same_bits(
                std::vector<float>(all.im.begin() + vol * n, all.im.begin() + (vol + 1) * n),
                b.re));
            EXPECT_TRUE(same_bits(all.disp, a.disp));
        }
    }
}

// The unwarp displacement is the series' own displacement e(p) - p.
TEST(GeometryUnwarp, DisplacementIsTheSeries) {
    const CoefficientSet set = strong_set();
    const Grid g = cube(40);
    const std::vector<float> d = sample(g, phantom);
    const Result r = unwarp(g, d, nullptr, set, {});
    double worst = 0, largest = 0;
    for (int64_t v = 0; v < g.count(); v += 7) {
        const Vec p = g.at(v), e = encoded(set, p);
        for (int a = 0; a < 3; ++a) {
            worst = std::max(worst, std::abs(r.disp[a * g.count() + v] - (e[a] - p[a])));
            largest = std::max(largest, std::abs(e[a] - p[a]));
        }
    }
    EXPECT_LT(worst, 0.03);  // mm: the higher terms' table sampling and float rounding
    EXPECT_GT(largest, 10);
}

// ---------------------------------------------------------------------------------------------
// Coefficient files

namespace {

struct FileResult {
    bool ok;
    float sin[14][12], cos[14][12], z[17][1], r0 = 0;
    std::vector<MR_gradient_term> dropped;
    std::string error;
};

FileResult read_text(const std::string& text) {
    const std::string path = ::testing::TempDir() + "mrkit_gradient_test.coef";
    std::ofstream(path) << text;
    FileResult r;
    r.ok = MR_read_gradient_file(path.c_str(), r.sin, r.cos, r.z, &r.r0, &r.dropped, &r.error);
    std::remove(path.c_str());
    return r;
}

const char* kFile = R"(#*] Gradient coil coefficients
#*] made up for this test
 win_low = 0, win_high = 0
 0.25 m = R0
  1 A( 1, 1)      0.98        x
  2 A( 3, 1)     -0.0612      x   # a comment after a term
  3 A( 3, 3)      0.0104      x
  4 B( 3, 1)      0.0021      x
  5 B( 1, 1)      1.02        y
  6 B( 5, 3)     -0.0073      y
  7 A( 3, 1)      0.0005      y
  8 A( 1, 0)      1.01        z
  9 A(16, 0)      1.5e-3      z
 10 A( 2, 1)      0.004       z
 11 B( 2, 2)      0           z
 12 A( 3, 0)      0           x
 13 A(13,11)      2E-6        x
)";

}  // namespace

// Both letters, all three axes, comments and a header setting: the series' terms land in their
// matrices (rows by degree, columns by order), the other non-zero ones are reported.
TEST(GradientFile, ReadsTheSeriesTermsAndReportsTheRest) {
    const FileResult r = read_text(kFile);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_FLOAT_EQ(r.r0, 0.25f);
    EXPECT_FLOAT_EQ(r.cos[1][1], 0.98f);
    EXPECT_FLOAT_EQ(r.cos[3][1], -0.0612f);
    EXPECT_FLOAT_EQ(r.cos[3][3], 0.0104f);
    EXPECT_FLOAT_EQ(r.cos[13][11], 2e-6f);
    EXPECT_FLOAT_EQ(r.sin[1][1], 1.02f);
    EXPECT_FLOAT_EQ(r.sin[5][3], -0.0073f);
    EXPECT_FLOAT_EQ(r.z[1][0], 1.01f);
    EXPECT_FLOAT_EQ(r.z[16][0], 1.5e-3f);
    EXPECT_EQ(r.sin[3][1], 0.0f);  // the x coil's B term does not go into the y series
    EXPECT_EQ(r.cos[3][0], 0.0f);
    int nonzero = 0;
    for (int n = 0; n < 14; ++n)
        for (int m = 0; m < 12; ++m) nonzero += (r.cos[n][m] != 0) + (r.sin[n][m] != 0);
    for (int n = 0; n < 17; ++n) nonzero += r.z[n][0] != 0;
    EXPECT_EQ(nonzero, 8);
    const MR_gradient_term want[] = {{8, 'B', 3, 1, 'x', 0.0021}, {11, 'A', 3, 1, 'y', 0.0005},
                                     {14, 'A', 2, 1, 'z', 0.004}};
    ASSERT_EQ(r.dropped.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        const MR_gradient_term& t = r.dropped[i];
        EXPECT_EQ(std::tie(t.line, t.kind, t.degree, t.order, t.axis),
                  std::tie(want[i].line, want[i].kind, want[i].degree, want[i].order, want[i].axis));
        EXPECT_DOUBLE_EQ(t.value, want[i].value);
    }
}

// A file without linear terms is already relative to them; mistakes name their line.
TEST(GradientFile, DefaultsAndErrorsNameTheLine) {
    const FileResult bare = read_text("0.3 m = R0\n1 A(3,1) 0.05 x\n");
    ASSERT_TRUE(bare.ok) << bare.error;
    EXPECT_EQ(bare.cos[1][1], 1.0f);
    EXPECT_EQ(bare.sin[1][1], 1.0f);
    EXPECT_EQ(bare.z[1][0], 1.0f);

    auto error = [](const std::string& text) {
        const FileResult r = read_text(text);
        EXPECT_FALSE(r.ok) << text;
        return r.error;
    };
    const std::string head = "# header\n0.25 m = R0\n";
    const std::pair<std::string, const char*> cases[] = {
        {head + "1 A( 3, 1) 0.05\n", "line 3:"},
        {head + "1 A(3,1) 0.05 x\n2 A( 3, 1  0.02 x\n", "line 4:"},
        {head + "1 A(3,1) 0.0.5 x\n", "line 3: the value"},
        {head + "A(3,1) 0.05 x\n", "line 3:"},
        {head + "1 A(14,1) 0.05 x\n", "line 3: A(14,1) x is beyond"},
        {head + "1 B(5,12) 0.05 y\n", "beyond"},
        {head + "1 A(17,0) 0.05 z\n", "beyond"},
        {head + "1 A(3,4) 0.05 z\n", "beyond"},
        {head + "1 A(3,1) 0.05 x\n\n2 A(3,1) 0.06 x\n", "line 5: A(3,1) x repeats line 3"},
        {head + "0.3 m = R0\n", "line 3: a second R0"},
        {"-1 m = R0\n", "line 1: R0 must be"},
        {"1 A(3,1) 0.05 x\n", "no R0 line"},
    };
    for (const auto& [text, message] : cases)
        EXPECT_NE(error(text).find(message), std::string::npos) << text;
    FileResult missing;
    EXPECT_FALSE(MR_read_gradient_file("/nonexistent/mrkit.coef", missing.sin, missing.cos,
                                       missing.z, &missing.r0, &missing.dropped, &missing.error));
    EXPECT_NE(missing.error.find("cannot open"), std::string::npos);
}
