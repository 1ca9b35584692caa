// The per-voxel validity rule: masked maps (zero outside the object, as map estimators give them)
// unfold exactly inside the support with no sample left not finite, and where every aliased
// position carries signal the new entry gives the reference entry's bits.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/sense_phantom.hpp"
#include "support/threads.hpp"

namespace {

using namespace sense_phantom;
using Dims = std::array<int, 3>;
using Mask = std::vector<char>;

// Inside an ellipsoid of the given radii (unit coordinates, z ignored in 2-D) around the centre.
Mask ellipsoid(Dims n, double rx, double ry, double rz) {
    Mask m(static_cast<size_t>(n[0]) * n[1] * n[2]);
    for (int z = 0; z < n[2]; ++z)
        for (int y = 0; y < n[1]; ++y)
            for (int x = 0; x < n[0]; ++x) {
                const double dx = (unit(x, n[0]) - 0.5) / rx, dy = (unit(y, n[1]) - 0.48) / ry;
                const double dz = n[2] > 1 ? (unit(z, n[2]) - 0.5) / rz : 0.0;
                m[x + static_cast<size_t>(n[0]) * (y + static_cast<size_t>(n[1]) * z)] =
                    dx * dx + dy * dy + dz * dz <= 1.0;
            }
    return m;
}

// The mask grown by r voxels in x and y (a square neighbourhood), as a dilated support.
Mask dilate(const Mask& m, Dims n, int r) {
    Mask out(m.size(), 0);
    for (int z = 0; z < n[2]; ++z)
        for (int y = 0; y < n[1]; ++y)
            for (int x = 0; x < n[0]; ++x) {
                bool any = false;
                for (int dy = -r; dy <= r && !any; ++dy)
                    for (int dx = -r; dx <= r && !any; ++dx) {
                        const int xx = x + dx, yy = y + dy;
                        any = xx >= 0 && yy >= 0 && xx < n[0] && yy < n[1] &&
                              m[xx + static_cast<size_t>(n[0]) * (yy + static_cast<size_t>(n[1]) * z)];
                    }
                out[x + static_cast<size_t>(n[0]) * (y + static_cast<size_t>(n[1]) * z)] = any;
            }
    return out;
}

// Zero outside the mask, for every block of mask.size() samples (coils, volumes).
Split masked(Split s, const Mask& m) {
    for (size_t i = 0; i < s.size(); ++i)
        if (!m[i % m.size()]) s.set(i, 0.0f);
    return s;
}

size_t not_finite(const Split& s) {
    size_t n = 0;
    for (size_t i = 0; i < s.size(); ++i) n += !std::isfinite(s.re[i]) || !std::isfinite(s.im[i]);
    return n;
}

// NRMSE over the samples inside the mask.
double nrmse_inside(const Split& out, const Split& ref, const Mask& m) {
    double err = 0.0, norm = 0.0;
    for (size_t i = 0; i < ref.size(); ++i)
        if (m[i]) {
            err += std::norm(std::complex<double>(out.at(i)) - std::complex<double>(ref.at(i)));
            norm += std::norm(std::complex<double>(ref.at(i)));
        }
    return std::sqrt(err / norm);
}

struct Case {
    const char* name;
    Dims full;
    int fy, fz, coils;
};

// An object confined to `support` folded with every coil, unfolded with maps zero outside
// `mapMask`; the error inside the support and the count of samples not finite.
struct MaskedRun {
    int status;
    double error;
    size_t bad;
};
MaskedRun masked_run(const Case& c, const Mask& support, const Mask& mapMask, SenseEntry entry) {
    const Split img = masked(make_object(c.full[0], c.full[1], c.full[2]), support);
    const Split data = fold(img, c.coils, c.fy, c.fz);
    const Split sens = masked(make_maps(c.full[0], c.full[1], c.full[2], c.coils), mapMask);
    Split out = make_output(data, c.full);
    const int status = reconstruct(data, sens, c.full, out, {}, entry);
    return {status, nrmse_inside(out, img, support), not_finite(out)};
}

const Case kCases[] = {
    {"R = 2", {40, 64, 1}, 32, 1, 8},       {"R = 3", {40, 66, 1}, 22, 1, 8},
    {"R = 4", {36, 64, 1}, 16, 1, 12},      {"R = 2.5", {37, 75, 1}, 30, 1, 8},
    {"2 x 2 in 3-D", {20, 32, 16}, 16, 8, 8},
};

}  // namespace

// The support itself, a support grown by three voxels, and a rounded mask wider than the object
// (the shape a map estimator's threshold leaves): exact inside, nothing left not finite.
TEST(SenseVoxelwise, MaskedMapsUnfoldExactlyInsideTheSupport) {
    for (const Case& c : kCases) {
        const Mask support = ellipsoid(c.full, 0.36, 0.4, 0.42);
        const std::pair<const char*, Mask> masks[] = {
            {"support", support},
            {"dilated", dilate(support, c.full, 3)},
            {"rounded", ellipsoid(c.full, 0.43, 0.46, 0.48)},
        };
        for (const auto& [kind, mask] : masks) {
            const MaskedRun r = masked_run(c, support, mask, &MR_sense_recon_voxelwise);
            std::printf("[ NRMSE    ] %s, %s mask: %.3g\n", c.name, kind, r.error);
            EXPECT_EQ(r.status, 1) << c.name << ", " << kind;
            EXPECT_EQ(r.bad, 0u) << c.name << ", " << kind;
            EXPECT_LT(r.error, 1e-5) << c.name << ", " << kind;
        }
    }
}

// The reference rule keeps a slot once valid for the rest of its x column: with the same masked
// maps its systems turn singular and samples come out not finite. (The reason the per-voxel
// entry exists; should the reference ever change, this says so.)
TEST(SenseVoxelwise, ReferenceRuleFailsOnMaskedMaps) {
    const Case c{"R = 2", {40, 64, 1}, 32, 1, 8};
    const Mask support = ellipsoid(c.full, 0.36, 0.4, 0.42);
    const MaskedRun r = masked_run(c, support, support, &MR_sense_recon);
    EXPECT_EQ(r.status, 1);
    EXPECT_GT(r.bad, 0u);
}

// The factors themselves: the same bits with maps non-zero everywhere; with masked maps no
// factor is not finite and a position without signal has zero factors for every coil.
TEST(SenseVoxelwise, FactorsPerVoxel) {
    const int nx = 24, ny = 50, coils = 8, fy = 20;
    Eigen::VectorXi sensDims(4), foldedDims(4), fullDims(3);
    sensDims << nx, ny, 1, coils;
    foldedDims << nx, fy, 1, coils;
    fullDims << nx, ny, 1;
    Eigen::Vector3f R(1.0f, static_cast<float>(ny) / fy, 1.0f);
    const int nYf = static_cast<int>(ceilf(ny / R[1])), P = static_cast<int>(ceilf(R[1]));
    const Split maps = make_maps(nx, ny, 1, coils);
    const Eigen::MatrixXcd psi = Eigen::MatrixXcd::Identity(coils, coils);
    auto factors = [&](const Split& m, decltype(&get_combination_factors) f) {
        Eigen::VectorXcd out = Eigen::VectorXcd::Constant(nx * nYf * P * coils, {5.0, 5.0});
        float yc[2] = {-1.0f, -1.0f}, zc[2] = {-1.0f, -1.0f};
        EXPECT_EQ(f(m.re.data(), m.im.data(), sensDims, psi, R, 0.0, Eigen::VectorXf(), out,
                    foldedDims, fullDims, yc, zc),
                  1);
        return out;
    };
    const Eigen::VectorXcd a = factors(maps, &get_combination_factors),
                           b = factors(maps, &get_combination_factors_voxelwise);
    EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])), 0);

    const Mask support = ellipsoid({nx, ny, 1}, 0.35, 0.38, 1.0);
    const Eigen::VectorXcd f = factors(masked(maps, support), &get_combination_factors_voxelwise);
    EXPECT_TRUE(f.allFinite());
    // Voxel (x, yf): with R = 2.5 and equal grids the factor grid is the folded image's.
    const size_t V = static_cast<size_t>(nx) * nYf;
    Eigen::VectorXi list(P);
    int checked = 0;
    for (int yf = 0; yf < nYf; ++yf) {
        const int n = MR_get_unfolded_positions(ny, fy, yf, list);
        for (int x = 0; x < nx; ++x)
            for (int m = 0; m < n; ++m) {
                const bool inside = support[x + nx * list[m]];
                bool zero = true;
                for (int c = 0; c < coils; ++c) zero = zero && f[x + nx * yf + (m + c * n) * V] == 0.0;
                EXPECT_EQ(zero, !inside) << "x " << x << " yf " << yf << " slot " << m;
                checked += !inside;
            }
    }
    EXPECT_GT(checked, 100);
}

// A map may be zero in its real part and not in its imaginary one (a coil whose phase is a
// quarter turn there): the position has signal. Maps i |s| unfold as well as any.
TEST(SenseVoxelwise, ImaginaryMapsHaveSignal) {
    const Dims full{20, 36, 1};
    const int coils = 6, fy = 18;
    const Split img = make_object(full[0], full[1], full[2]);
    Split maps = make_maps(full[0], full[1], full[2], coils);
    for (size_t i = 0; i < maps.size(); ++i) maps.set(i, cf(0.0f, std::abs(maps.at(i))));
    Split data({full[0], fy, 1, coils});
    const size_t n = img.size();
    for (int c = 0; c < coils; ++c)
        for (int y = 0; y < full[1]; ++y)
            for (int x = 0; x < full[0]; ++x) {
                const size_t o = x + full[0] * (fold_index(y, full[1], fy) + size_t(fy) * c);
                const size_t i = x + size_t(full[0]) * y;
                data.set(o, data.at(o) + img.at(i) * maps.at(i + n * c));
            }
    Split out = make_output(data, full);
    ASSERT_EQ(reconstruct(data, maps, full, out, {}, &MR_sense_recon_voxelwise), 1);
    EXPECT_LT(nrmse(out, img), 1e-5);
}
