// Combination factors: the regularised SENSE solve per folded voxel, the packing by each voxel's
// own slot count, which positions count as valid, and the compartment bounds of the factor grid.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "recon/recon.hpp"
#include "support/sense_phantom.hpp"

namespace {

using cd = std::complex<double>;
using sense_phantom::Split;

// Maps on the full grid (nx x full x 1) folded along y onto `folded` lines: the factor grid then
// coincides with the folded image, and map line q is full line q.
struct YFold {
    int nx, full, folded, coils;
    Split maps;
    Eigen::MatrixXcd psi;
    Eigen::VectorXi sensDims{4}, foldedDims{3}, fullDims{3};
    Eigen::Vector3f R;
    Eigen::VectorXcd factors;
    float yc[2] = {-1.0f, -1.0f}, zc[2] = {-1.0f, -1.0f};

    YFold(int nx_, int full_, int folded_, int coils_)
        : nx(nx_),
          full(full_),
          folded(folded_),
          coils(coils_),
          maps(sense_phantom::make_maps(nx_, full_, 1, coils_)),
          psi(Eigen::MatrixXcd::Identity(coils_, coils_)) {
        sensDims << nx, full, 1, coils;
        foldedDims << nx, folded, 1;
        fullDims << nx, full, 1;
        R << 1.0f, static_cast<float>(full) / static_cast<float>(folded), 1.0f;
        const int P = static_cast<int>(std::ceil(R[1]));
        factors = Eigen::VectorXcd::Constant(nx * folded * P * coils, cd(7.0, 7.0));
    }

    int run(double lambda = 0.0, const Eigen::VectorXf& prior = Eigen::VectorXf(),
            bool withIm = true, Eigen::VectorXi dims = Eigen::VectorXi()) {
        if (dims.size() == 0) dims = sensDims;
        return get_combination_factors(maps.re.data(), withIm ? maps.im.data() : nullptr, dims, psi,
                                       R, lambda, prior, factors, foldedDims, fullDims, yc, zc);
    }

    cd factor(int x, int yf, int slot, int c, int n) const {
        return factors[x + nx * (yf + folded * (slot + c * n))];
    }

    // Sensitivity matrix (coils x positions) of the given full lines at column x.
    Eigen::MatrixXcd S(int x, const std::vector<int>& lines) const {
        Eigen::MatrixXcd s(coils, lines.size());
        for (int c = 0; c < coils; ++c)
            for (size_t k = 0; k < lines.size(); ++k)
                s(c, k) = cd(maps.at(x + nx * (lines[k] + full * c)));
        return s;
    }
};

std::vector<int> aliased(int full, int folded, int f) {
    Eigen::VectorXi v(8);
    const int n = MR_get_unfolded_positions(full, folded, f, v);
    return std::vector<int>(v.data(), v.data() + n);
}

// (S^H Psi^-1 S + D)^-1 S^H Psi^-1 with D = diag(1 / (r^2 lambda)), 0 where r = 0.
Eigen::MatrixXcd reference_factors(const Eigen::MatrixXcd& S, const Eigen::MatrixXcd& psi,
                                   const std::vector<double>& r, double lambda) {
    const Eigen::MatrixXcd pinv = psi.inverse();
    Eigen::MatrixXcd A = S.adjoint() * pinv * S;
    for (size_t k = 0; k < r.size(); ++k)
        if (lambda != 0.0 && r[k] != 0.0) A(k, k) += 1.0 / (r[k] * r[k] * lambda);
    return A.inverse() * S.adjoint() * pinv;
}

// Hermitian positive definite coil covariance with complex correlations.
Eigen::MatrixXcd correlated(int coils) {
    Eigen::MatrixXcd L = Eigen::MatrixXcd::Identity(coils, coils);
    for (int r = 1; r < coils; ++r) L(r, r - 1) = cd(0.5, 0.3 * r);
    return L * L.adjoint();
}

}  // namespace

TEST(FindEdges, CountsThenHalfFoldedSizeJump) {
    Eigen::VectorXf a(3), b(3);
    a << 0.f, 4.f, 8.f;
    b << 0.f, 4.f, 8.f;
    EXPECT_EQ(find_edges(a, b, 2, 3, 10), 1);  // counts differ
    EXPECT_EQ(find_edges(a, b, 0, 0, 10), 0);  // nothing to compare
    EXPECT_EQ(find_edges(a, b, 3, 3, 10), 0);
    b[1] = 9.f;  // |4 - 9| = 5 is not above 10 / 2
    EXPECT_EQ(find_edges(a, b, 3, 3, 10), 0);
    EXPECT_EQ(find_edges(a, b, 3, 3, 9), 1);  // 9 / 2 is 4 in integers
    EXPECT_EQ(find_edges(a, b, 1, 1, 9), 0);  // only the first `count` entries count
}

// Correlated noise, a prior with zeros and a prior shorter than the grid: every voxel of a
// 20-onto-8 fold (two or three aliased positions) matches the closed-form regularised solve.
TEST(CombinationFactors, MatchClosedFormPerVoxel) {
    YFold g(5, 20, 8, 4);
    g.psi = correlated(4);
    Eigen::VectorXf prior(g.nx * 17);  // lines 17 to 19 fall past its end: prior 0 there
    for (int i = 0; i < prior.size(); ++i) prior[i] = (i % 7 == 3) ? 0.0f : 0.5f + 0.01f * i;
    const double lambda = 0.8;
    ASSERT_EQ(g.run(lambda, prior), 1);

    for (const double l : {lambda, 0.0}) {
        if (l == 0.0) {
            ASSERT_EQ(g.run(0.0, Eigen::VectorXf()), 1);  // no prior read at all
        }
        for (int x = 0; x < g.nx; ++x) {
            for (int f = 0; f < g.folded; ++f) {
                const auto lines = aliased(g.full, g.folded, f);
                const int n = static_cast<int>(lines.size());
                std::vector<double> r;
                for (int q : lines) {
                    const int i = x + g.nx * q;
                    r.push_back(i < prior.size() ? prior[i] : 0.0);
                }
                const Eigen::MatrixXcd U = reference_factors(g.S(x, lines), g.psi, r, l);
                for (int c = 0; c < g.coils; ++c)
                    for (int m = 0; m < n; ++m)
                        EXPECT_LT(std::abs(g.factor(x, f, m, c, n) - U(m, c)),
                                  1e-9 * U.cwiseAbs().maxCoeff())
                            << "x " << x << " folded " << f << " slot " << m << " coil " << c;
            }
        }
    }
}

TEST(CombinationFactors, PackedByEachVoxelsOwnSlotCount) {
    YFold g(3, 20, 8, 2);  // P = 3: voxels with two positions leave their tail untouched
    ASSERT_EQ(g.run(), 1);
    const cd sentinel(7.0, 7.0);
    const int V = g.nx * g.folded;
    for (int f = 0; f < g.folded; ++f) {
        const int n = static_cast<int>(aliased(g.full, g.folded, f).size());
        for (int x = 0; x < g.nx; ++x) {
            for (int block = 0; block < 3 * g.coils; ++block) {
                const cd v = g.factors[x + g.nx * f + V * block];
                if (block < n * g.coils)
                    EXPECT_NE(v, sentinel);
                else
                    EXPECT_EQ(v, sentinel) << "folded " << f << " block " << block;
            }
        }
    }
}

// Only coil 0's real map decides validity, a flag once set holds for the rest of its column,
// no imaginary map means no valid position, and positions outside the maps are skipped.
TEST(CombinationFactors, WhichPositionsCount) {
    YFold g(4, 20, 8, 3);
    auto zero_coil0 = [&](int x, int line) { g.maps.re[x + g.nx * line] = 0.0f; };
    for (int q = 0; q < 20; ++q) zero_coil0(1, q);  // column 1: nothing valid
    zero_coil0(2, 14);  // folded 0 = (6, 14) is the first voxel of column 2: 14 is invalid
    zero_coil0(3, 15);  // folded 1 = (7, 15): slot 1 was already set valid by (6, 14)
    ASSERT_EQ(g.run(), 1);
    auto all_zero = [&](int x) {
        for (int f = 0; f < 8; ++f) {
            const int n = static_cast<int>(aliased(20, 8, f).size());
            for (int m = 0; m < n; ++m)
                for (int c = 0; c < g.coils; ++c)
                    if (g.factor(x, f, m, c, n) != cd(0.0)) return false;
        }
        return true;
    };
    EXPECT_TRUE(all_zero(1));
    const Eigen::MatrixXcd single = reference_factors(g.S(2, {6}), g.psi, {0.0}, 0.0);
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(g.factor(2, 0, 1, c, 2), cd(0.0));
        EXPECT_LT(std::abs(g.factor(2, 0, 0, c, 2) - single(0, c)), 1e-9);
        EXPECT_NE(g.factor(3, 1, 1, c, 2), cd(0.0));
    }

    ASSERT_EQ(g.run(0.0, Eigen::VectorXf(), false), 1);
    for (int x = 0; x < 4; ++x) EXPECT_TRUE(all_zero(x)) << "column " << x;

    Eigen::VectorXi dims(5);
    dims << 4, 20, 1, 3, 0;  // every entry bounds the map index: nothing is inside
    EXPECT_EQ(g.run(0.0, Eigen::VectorXf(), true, dims), -1);
}

// When the factor grid coincides with the folded image, the bounds found from the jumps of the
// aliased positions are the image's own compartments, along y and along z.
TEST(CombinationFactors, EdgesOfTheFactorGridMatchImageCompartments) {
    // (12 onto 4 is left out: its image bound sits on the last folded index, where the
    // aliasing does not change, so the factor grid finds no jump there.)
    const int pairs[][2] = {{40, 16}, {100, 40}, {64, 32}, {10, 4},
                            {9, 4},   {24, 16},  {14, 8},  {20, 8}};
    for (const auto& p : pairs) {
        const int full = p[0], folded = p[1];
        SCOPED_TRACE(testing::Message() << full << " onto " << folded);
        float expect[2] = {-1.0f, -1.0f};
        get_compartments(full, folded, expect);
        const float R = static_cast<float>(full) / static_cast<float>(folded);
        for (int axis = 1; axis <= 2; ++axis) {
            Eigen::VectorXi sensDims(4), foldedDims(3), fullDims(3);
            sensDims << 2, axis == 1 ? full : 3, axis == 2 ? full : 1, 2;
            foldedDims << 2, axis == 1 ? folded : 3, axis == 2 ? folded : 1;
            fullDims << 2, sensDims[1], sensDims[2];
            const Split maps = sense_phantom::make_maps(2, sensDims[1], sensDims[2], 2);
            Eigen::Vector3f r(1.0f, axis == 1 ? R : 1.0f, axis == 2 ? R : 1.0f);
            Eigen::VectorXcd factors = Eigen::VectorXcd::Zero(2 * 3 * folded * 2 * 4);
            float yc[2] = {-1.0f, -1.0f}, zc[2] = {-1.0f, -1.0f};
            get_combination_factors(maps.re.data(), maps.im.data(), sensDims,
                                    Eigen::MatrixXcd::Identity(2, 2), r, 0.0, Eigen::VectorXf(),
                                    factors, foldedDims, fullDims, yc, zc);
            const float* got = axis == 1 ? yc : zc;
            const float* other = axis == 1 ? zc : yc;
            EXPECT_EQ(got[0], expect[0]);
            EXPECT_EQ(got[1], expect[1]);
            EXPECT_EQ(other[0], -1.0f);
            EXPECT_EQ(other[1], -1.0f);
        }
    }

    // One jump (after line 15) fills entry 0; entry 1 keeps the caller's value before sorting.
    YFold g(2, 64, 32, 2);
    g.yc[1] = 40.0f;
    ASSERT_EQ(g.run(), 1);
    EXPECT_EQ(g.yc[0], 15.0f);
    EXPECT_EQ(g.yc[1], 40.0f);
}
