// Unfolding one volume, in what the random cases against the literal reference do not reach: data
// without an imaginary part, the skip status of folded rows longer than the output, coil counts
// from which Eigen sums the coils in blocks, and the coil products themselves with infinities and
// signed zeros among their inputs.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "recon/recon.hpp"
#include "recon/sense/unfold_chunk.hpp"
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

// Without an imaginary block the data read as zeros there.
TEST(Unfold, NullImaginaryDataReadsAsZeros) {
    Unfold u{vec({4, 5, 3, 3}), vec({4, 5, 3, 3}), vec({4, 5, 3}), {}};
    u.factors.resize(4 * 5 * 3 * 3);
    for (int i = 0; i < u.factors.size(); ++i) u.factors[i] = cd(1.0 + 0.01 * i, 0.3 - 0.02 * i);
    const Split data = coil_data(4, 5, 3, 3);
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

// The coil product against the expression it replaces, u = M.topRows(rows) * v with M allocated
// for more rows: one row (Eigen's inner product), odd row counts (a scalar last row), more than
// 128 columns (blocks of columns), the vector's entries a stride apart; and two products of one
// shape at once, their matrices apart or interleaved, on this run's instruction set. Every bit
// must agree but the sign of a NaN (from a sum of two NaNs it depends on the operand order).
TEST(Unfold, CoilProductsGiveEigensBits) {
    namespace uf = mrkit::sense::unfolding;
    using cf = std::complex<float>;
    if (!uf::kEigenOrders) GTEST_SKIP() << "this build's Eigen does not take the orders repeated";
    const auto same = [](const Eigen::VectorXcf& a, const Eigen::VectorXcf& b, int rows) {
        const float* x = reinterpret_cast<const float*>(a.data());
        const float* y = reinterpret_cast<const float*>(b.data());
        for (int i = 0; i < 2 * rows; ++i)
            if (!(std::isnan(x[i]) && std::isnan(y[i])) && std::memcmp(x + i, y + i, 4))
                return ::testing::AssertionFailure()
                       << "part " << i << ": " << x[i] << " vs " << y[i];
        return ::testing::AssertionSuccess();
    };
    std::mt19937 gen(2024);
    const auto matrix = [&](int rows, int cols, unsigned odds) {
        // Special values once in `odds` draws (never with odds 0).
        constexpr float inf = std::numeric_limits<float>::infinity();
        const float special[] = {0.0f, -0.0f, inf, -inf, std::nanf(""), 1e38f, -1e-40f};
        std::uniform_real_distribution<float> u(-1.0f, 1.0f);
        const auto next = [&] {
            const unsigned r = odds ? gen() % (7 * odds) : 7;
            return r < 7 ? special[r] : u(gen);
        };
        Eigen::MatrixXcf m(rows, cols);
        for (Eigen::Index i = 0; i < m.size(); ++i) m.data()[i] = cf(next(), next());
        return m;
    };
    const uf::Kernels& kernels = uf::Kernels::chosen();
    for (int round = 0; round < 6000; ++round) {
        const unsigned odds = round % 3 == 0 ? 0 : round % 3 == 1 ? 2 : 20;
        const int rows = 1 + static_cast<int>(gen() % 9);
        const int ld = rows + static_cast<int>(gen() % 3);
        const int cols =
            round % 50 == 0 ? 120 + static_cast<int>(gen() % 90) : 1 + static_cast<int>(gen() % 16);
        const int stride = 1 + static_cast<int>(gen() % 3);
        Eigen::MatrixXcf M[2], xs[2];
        Eigen::VectorXcf expected[2], got[2];
        for (int k = 0; k < 2; ++k) {
            M[k] = matrix(ld, cols, odds);
            xs[k] = matrix(stride, cols, odds);
            expected[k].resize(ld);
            got[k].resize(ld);
            expected[k].head(rows).noalias() = M[k].topRows(rows) * xs[k].row(0).transpose();
        }
        uf::matrix_vector(M[0].data(), ld, rows, cols, xs[0].data(), stride, got[0].data());
        ASSERT_TRUE(same(expected[0], got[0], rows)) << "rows " << rows << ", cols " << cols;
        if (rows < 2 || cols >= uf::kBlockedColumns) continue;

        kernels.two_voxels({M[0].data(), M[1].data(), xs[0].data(), xs[1].data(), ld, ld, stride,
                            got[0].data(), got[1].data()},
                           rows, cols);
        for (int k = 0; k < 2; ++k)
            ASSERT_TRUE(same(expected[k], got[k], rows))
                << "apart " << k << ", rows " << rows << ", cols " << cols;

        // Matrices (entries `step` apart), vectors and results interleaved entry by entry.
        const int step = 2 + round % 2 * 3;
        std::vector<cf> P(static_cast<size_t>(step) * rows * cols);
        std::vector<cf> w(2 * cols * stride), U(2 * rows);
        for (int j = 0; j < cols; ++j)
            for (int k = 0; k < 2; ++k) {
                for (int i = 0; i < rows; ++i) P[step * (i + j * rows) + k] = M[k](i, j);
                w[2 * j * stride + k] = xs[k](0, j);
            }
        uf::products::two_voxels<0, 0>(
            uf::products::Interleaved{P.data(), w.data(), step, rows, 2 * stride, U.data()}, rows,
            cols);
        for (int k = 0; k < 2; ++k) {
            for (int i = 0; i < rows; ++i) got[k][i] = U[2 * i + k];
            ASSERT_TRUE(same(expected[k], got[k], rows))
                << "interleaved " << k << ", rows " << rows << ", cols " << cols;
        }
    }
}
