// Unfolding one volume: factors interpolated from their grid and applied to the coil values;
// voxels without signal stay untouched. The scatter to aliased positions is checked by the
// exact whole reconstructions in test_sense_recon.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "recon/recon.hpp"
#include "recon/toolkit/corners.hpp"
#include "support/sense_phantom.hpp"
#include "support/threads.hpp"

namespace {

using cd = std::complex<double>;
using sense_phantom::Split;

Eigen::VectorXi vec(std::initializer_list<int> v) {
    Eigen::VectorXi r(static_cast<Eigen::Index>(v.size()));
    int i = 0;
    for (int x : v) r[i++] = x;
    return r;
}

// Folded coil data with values that differ per sample and coil.
Split coil_data(int nx, int ny, int nz, int coils) {
    Split d({nx, ny, nz, coils});
    for (size_t i = 0; i < d.size(); ++i)
        d.set(i, {0.1f * static_cast<float>(i % 17) - 0.7f, 0.05f * static_cast<float>(i % 11)});
    return d;
}

struct Unfold {
    Eigen::VectorXi folded, factorDims, full;
    Eigen::VectorXcd factors;
    float yc[2] = {-1.0f, -1.0f}, zc[2] = {-1.0f, -1.0f};

    int run(const Split& data, Split& out, bool withIm = true) const {
        return unfold(data.re.data(), withIm ? data.im.data() : nullptr, folded, factors,
                      factorDims, factorDims, full, yc, zc, out.re.data(), out.im.data());
    }
    cd at(int x, int y, int z, int block) const {
        const int V = factorDims[0] * factorDims[1] * factorDims[2];
        return factors[x + factorDims[0] * (y + factorDims[1] * z) + V * block];
    }
};

Split output(int nx, int ny, int nz, float fill) {
    Split o({nx, ny, nz});
    std::fill(o.re.begin(), o.re.end(), fill);
    std::fill(o.im.begin(), o.im.end(), fill);
    return o;
}

}  // namespace

TEST(Unfold, WithoutFoldingIsTheFactorWeightedCoilSum) {
    Unfold u{vec({4, 5, 3, 3}), vec({4, 5, 3, 3}), vec({4, 5, 3}), {}};
    u.factors.resize(4 * 5 * 3 * 3);
    for (int i = 0; i < u.factors.size(); ++i) u.factors[i] = cd(1.0 + 0.01 * i, 0.3 - 0.02 * i);
    // Coil 0's factor alone decides whether a voxel carries signal.
    u.factors[1 + 4 * 2] = 0.0;
    const Split data = coil_data(4, 5, 3, 3);
    Split out = output(4, 5, 3, -9.0f);
    ASSERT_EQ(u.run(data, out), 1);

    for (int z = 0; z < 3; ++z)
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 4; ++x) {
                const size_t o = x + 4 * (y + 5 * z);
                if (x == 1 && y == 2 && z == 0) {
                    EXPECT_EQ(out.at(o), std::complex<float>(-9.0f, -9.0f));
                    continue;
                }
                cd expect = 0.0;
                for (int c = 0; c < 3; ++c) expect += u.at(x, y, z, c) * cd(data.at(o + 60 * c));
                EXPECT_LT(std::abs(cd(out.at(o)) - expect), 1e-5 * std::abs(expect));
            }

    // A null imaginary block reads as zeros.
    Split real = data;
    std::fill(real.im.begin(), real.im.end(), 0.0f);
    Split a = output(4, 5, 3, 0.0f), b = output(4, 5, 3, 0.0f);
    ASSERT_EQ(u.run(real, a), 1);
    ASSERT_EQ(u.run(data, b, false), 1);
    EXPECT_EQ(0, std::memcmp(a.re.data(), b.re.data(), a.re.size() * sizeof(float)));
    EXPECT_EQ(0, std::memcmp(a.im.data(), b.im.data(), a.im.size() * sizeof(float)));
}

// Folded rows longer than the output's (sizes the caller got wrong) reach into the next output
// row: folded (4, 0) lands on output (0, 1), which folded (0, 1) writes too. With one thread
// the voxel later in x order is written last, whichever row it came from; out-of-range voxels
// are skipped and reported.
TEST(Unfold, FoldedRowsLongerThanTheOutputKeepTheLaterX) {
    Unfold u{vec({6, 3, 1, 1}), vec({6, 3, 1, 1}), vec({4, 3, 1}), {}};
    u.factors = Eigen::VectorXcd::Constant(18, cd(1.0, 0.0));
    Split data({6, 3, 1, 1});
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 6; ++x) data.set(x + 6 * y, {float(x), float(y)});
    Split out = output(4, 3, 1, -1.0f);
    EXPECT_EQ(with_threads(1, [&] { return u.run(data, out); }), -1);  // (4, 2) and (5, 2)
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) {
            // Folded (x + 4, y - 1) comes after (x, y) when it exists: x = 0, 1 and y >= 1.
            const bool later = x < 2 && y >= 1;
            const std::complex<float> expect =
                later ? std::complex<float>(x + 4.0f, y - 1.0f) : std::complex<float>(x, y);
            EXPECT_EQ(out.at(x + 4 * y), expect) << x << ", " << y;
        }
}

// Factors linear in the grid coordinates are reproduced exactly between grid samples: checks the
// coordinate maps (first to first, last to last) and which fraction weights which neighbour.
TEST(Unfold, InterpolatesFactorsFromACoarserGrid) {
    Unfold u{vec({5, 7, 1, 2}), vec({3, 4, 1, 2}), vec({5, 7, 1}), {}};
    const cd a[2] = {{1.0, 0.5}, {-0.4, 0.2}}, bx[2] = {{0.3, 0.0}, {0.1, -0.2}},
             by[2] = {{-0.1, 0.25}, {0.05, 0.1}};
    u.factors.resize(3 * 4 * 2);
    for (int c = 0; c < 2; ++c)
        for (int gy = 0; gy < 4; ++gy)
            for (int gx = 0; gx < 3; ++gx)
                u.factors[gx + 3 * gy + 12 * c] = a[c] + bx[c] * double(gx) + by[c] * double(gy);
    const Split data = coil_data(5, 7, 1, 2);
    Split out = output(5, 7, 1, 0.0f);
    ASSERT_EQ(u.run(data, out), 1);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 5; ++x) {
            const double gx = x * 2.0 / 4.0, gy = y * 3.0 / 6.0;
            cd expect = 0.0;
            for (int c = 0; c < 2; ++c)
                expect += (a[c] + bx[c] * gx + by[c] * gy) * cd(data.at(x + 5 * y + 35 * c));
            EXPECT_LT(std::abs(cd(out.at(x + 5 * y)) - expect), 1e-5) << x << ", " << y;
        }
}

// The factor and sensitivity reads set up the corners once per position and reuse them for
// every block; the values must be those of the toolkit interpolation, to the bit, including
// the dropped corners at the end of a block. With one row per plane the corner one row and one
// column on can lie past the end while the one a plane on does not.
TEST(Unfold, SharedCornersMatchTheToolkitInterpolation) {
    for (const int ny : {4, 1}) {
        const int nx = 5, nz = 3, N = nx * ny * nz;
        Eigen::VectorXi dims(3);
        dims << nx, ny, nz;
        std::vector<float> grid(N);
        Eigen::VectorXcd cgrid(2 * N);
        for (int i = 0; i < N; ++i) grid[i] = std::sin(1.7f * i) * (i % 3 ? 1.f : -3.f);
        for (int i = 0; i < 2 * N; ++i)
            cgrid[i] = cd(std::cos(0.9 * i), -std::sin(2.3 * i) * (i % 4));
        // A corner read past the end of the first block would bring this in.
        cgrid[N] = cd(std::numeric_limits<double>::quiet_NaN(), 0.0);
        for (float c3 : {0.f, 0.5f, 1.25f, 2.f, 2.75f})
            for (float c2 : {0.f, 0.3f, 2.5f, 3.f, 3.9f})
                for (float c1 : {0.f, 0.6f, 3.5f, 4.f, 4.99f}) {
                    if (c2 > ny - 1) continue;
                    const int ix = int(c1), iy = int(c2), iz = int(c3);
                    const int b = nx * iy + ix + nx * ny * iz;
                    const float t1 = c1 - float(ix), t2 = c2 - float(iy), t3 = c3 - float(iz);
                    const mrkit::Corners<float> f(b, nx, nx * ny, N, t1, t2, t3);
                    const float expect = MR_linear_interpolation(grid.data(), c2, c1, c3, dims);
                    const float got = f.apply<float>([&](int q) { return grid[q]; });
                    EXPECT_EQ(0, std::memcmp(&expect, &got, sizeof(float)))
                        << ny << ": " << c1 << " " << c2 << " " << c3;

                    // First block of a complex grid, bounded by its end.
                    const mrkit::Corners<double> d(b, nx, nx * ny, N, t1, t2, t3);
                    const cd e = MR_linear_interpolation(cgrid, dims, b, t2, t1, t3, nx * ny, N);
                    const cd g = d.apply(cgrid.data());
                    EXPECT_EQ(0, std::memcmp(&e, &g, sizeof(cd)))
                        << ny << ": " << c1 << " " << c2 << " " << c3;
                }
    }
}

// When the folded voxels sample the factor grid at its own points (grid as large as the folded
// image), a voxel's factors are its grid samples; yet the neighbours the interpolation weighs
// with 0 still count when they are not finite (0 times infinity is not a number). One factor
// made NaN must spoil exactly the voxels that have it as a corner (itself, the one before it in
// x, and the two in the row before), and only the aliased position it belongs to; everything
// else, though the rows around it take another route, must stay bit for bit the same.
TEST(Unfold, OnTheGridANeighbourNotFiniteSpoilsOnlyItsVoxels) {
    using namespace sense_phantom;
    const int nx = 40, ny = 48, fy = 24, coils = 4, n = 2;
    const Split maps = make_maps(nx, ny, 1, coils);
    const Split data = fold(make_object(nx, ny, 1), coils, fy, 1);
    Unfold u{vec({nx, fy, 1, coils}), vec({nx, fy, 1, n * coils}), vec({nx, ny, 1}), {}};
    Eigen::Vector3f R(1.0f, float(ny) / float(fy), 1.0f);
    u.factors = Eigen::VectorXcd::Zero(u.factorDims.prod());
    Eigen::VectorXi sensDims = vec({nx, ny, 1, coils});
    ASSERT_EQ(get_combination_factors(maps.re.data(), maps.im.data(), sensDims,
                                      Eigen::MatrixXcd::Identity(coils, coils), R, 0.0,
                                      Eigen::VectorXf(), u.factors, u.folded, u.full, u.yc, u.zc),
              1);
    ASSERT_TRUE(u.factors.allFinite());

    // Coil 2 of aliased position 1 at grid (x0, y0); not coil 0, which decides the signal. In
    // the grid's last row too, where the rows around are read up to the factors' end.
    const int V = nx * fy;
    for (const auto& [x0, y0] : {std::pair{17, 9}, std::pair{30, fy - 1}}) {
        Unfold spoilt = u;
        spoilt.factors[x0 + nx * y0 + V * (2 * n + 1)] = std::numeric_limits<double>::quiet_NaN();
        for (int threads : {1, 2}) {
            Split clean = output(nx, ny, 1, 0.0f), dirty = output(nx, ny, 1, 0.0f);
            ASSERT_EQ(with_threads(threads, [&] { return u.run(data, clean); }), 1);
            ASSERT_EQ(with_threads(threads, [&] { return spoilt.run(data, dirty); }), 1);
            std::vector<bool> spoiled(clean.size(), false);
            Eigen::VectorXi list(n);
            for (int y : {y0 - 1, y0})
                for (int x : {x0 - 1, x0}) {
                    ASSERT_EQ(MR_get_unfolded_positions(ny, fy, y, list), n);
                    spoiled[x + nx * list[1]] = true;
                }
            for (size_t i = 0; i < clean.size(); ++i) {
                ASSERT_FALSE(std::isnan(clean.re[i]) || std::isnan(clean.im[i])) << i;
                if (spoiled[i]) {
                    EXPECT_TRUE(std::isnan(dirty.re[i]) && std::isnan(dirty.im[i]))
                        << threads << ": " << i % nx << ", " << i / nx << " of " << y0;
                    continue;
                }
                EXPECT_TRUE(std::memcmp(&clean.re[i], &dirty.re[i], sizeof(float)) == 0 &&
                            std::memcmp(&clean.im[i], &dirty.im[i], sizeof(float)) == 0)
                    << threads << ": " << i % nx << ", " << i / nx << " of " << y0;
            }
        }
    }
}

// Every voxel's results are Eigen's u = M v over its n x coils factor matrix, rows past those
// with signal included. From 128 coils on, Eigen sums the coils in blocks, so a voxel with one
// position carrying signal is not an inner product. With fewer, neighbours go in pairs, whole
// chunks of them when every voxel has signal everywhere (even rows here), and an odd n has a
// scalar last row; rows wider than a chunk end in a partial one.
TEST(Unfold, EveryVoxelGivesEigensProductToTheBit) {
    struct Shape {
        int nx, ny, fy, coils;
    };
    for (const Shape shape : {Shape{8, 8, 4, 130}, Shape{75, 8, 4, 8}, Shape{75, 12, 4, 8}}) {
        const int nx = shape.nx, ny = shape.ny, fy = shape.fy, coils = shape.coils;
        const int n = ny / fy, V = nx * fy;
        Unfold u{vec({nx, fy, 1, coils}), vec({nx, fy, 1, n * coils}), vec({nx, ny, 1}), {}};
        u.factors.resize(V * n * coils);
        for (int i = 0; i < u.factors.size(); ++i)
            u.factors[i] = cd(std::sin(0.37 * i) + 1.5, std::cos(1.3 * i));
        // Position 1 carries no signal at every third voxel of the odd rows (of all rows with
        // many coils).
        const auto both = [&](int x, int y) {
            return (coils < 128 && y % 2 == 0) || (x + nx * y) % 3 != 0;
        };
        for (int y = 0; y < fy; ++y)
            for (int x = 0; x < nx; ++x)
                if (!both(x, y)) u.factors[x + nx * y + V] = 0.0;
        const Split data = coil_data(nx, fy, 1, coils);
        Eigen::VectorXi list(n);
        for (int threads : {1, 2}) {
            Split out = output(nx, ny, 1, -9.0f);
            ASSERT_EQ(with_threads(threads, [&] { return u.run(data, out); }), 1);
            for (int y = 0; y < fy; ++y) {
                ASSERT_EQ(MR_get_unfolded_positions(ny, fy, y, list), n);
                for (int x = 0; x < nx; ++x) {
                    const int g = x + nx * y;
                    Eigen::MatrixXcf M = Eigen::MatrixXcf::Zero(n, coils);
                    Eigen::VectorXcf v(coils);
                    for (int c = 0; c < coils; ++c) {
                        for (int m = 0, k = 0; m < n; ++m)
                            if (m != 1 || both(x, y))
                                M(k++, c) = std::complex<float>(u.at(x, y, 0, c * n + m));
                        v[c] = data.at(g + V * c);
                    }
                    const Eigen::VectorXcf expect = M * v;
                    for (int m = 0, k = 0; m < n; ++m) {
                        const bool signal = m != 1 || both(x, y);
                        const std::complex<float> want =
                            signal ? expect[k++] : std::complex<float>(-9.0f, -9.0f);
                        const std::complex<float> got = out.at(x + nx * list[m]);
                        EXPECT_EQ(0, std::memcmp(&want, &got, sizeof got))
                            << coils << " coils, n " << n << ", " << threads << " threads: " << x
                            << ", " << y << ", " << m;
                    }
                }
            }
        }
    }
}
