// The written-out products and inverse of the combination factors against the Eigen
// code they replace: every bit must agree (any NaN matches any NaN, as the sign of a NaN from a sum
// of two NaNs depends on the compiler's operand order), on both sides of Eigen's size threshold and
// with signed zeros, infinities and NaNs among the inputs.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "recon/cpu.hpp"
#include "recon/sense/products.hpp"

namespace {

using cd = std::complex<double>;
using Eigen::MatrixXcd;

struct Values {
    std::mt19937 gen{2024};
    bool special = false;
    unsigned odds = 2;  // a special value once in `odds` draws
    double next() {
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        if (!special) return u(gen);
        constexpr double inf = std::numeric_limits<double>::infinity();
        constexpr double nan = std::numeric_limits<double>::quiet_NaN();
        const double pick[] = {0.0, -0.0, inf, -inf, nan, 1e300, -1e-310};
        const unsigned r = gen() % (7 * odds);
        return r < 7 ? pick[r] : u(gen);
    }
    MatrixXcd matrix(int rows, int cols) {
        MatrixXcd m(rows, cols);
        for (Eigen::Index i = 0; i < m.size(); ++i) m.data()[i] = cd(next(), next());
        return m;
    }
};

::testing::AssertionResult same_bits(const MatrixXcd& a, const MatrixXcd& b) {
    const double* x = reinterpret_cast<const double*>(a.data());
    const double* y = reinterpret_cast<const double*>(b.data());
    for (Eigen::Index i = 0; i < 2 * a.size(); ++i)
        if (!(std::isnan(x[i]) && std::isnan(y[i])) && std::memcmp(x + i, y + i, sizeof(double)))
            return ::testing::AssertionFailure() << "part " << i << ": " << x[i] << " vs " << y[i];
    return ::testing::AssertionSuccess();
}

// A^-1 as the factor code computes it with Eigen: the permuted identity, then the triangular
// solves.
MatrixXcd pivoted_lu_inverse(const MatrixXcd& A) {
    Eigen::PartialPivLU<MatrixXcd> lu(A);
    MatrixXcd inv = lu.permutationP() * MatrixXcd::Identity(A.rows(), A.cols());
    lu.matrixLU().triangularView<Eigen::UnitLower>().solveInPlace(inv);
    lu.matrixLU().triangularView<Eigen::Upper>().solveInPlace(inv);
    return inv;
}

}  // namespace

// The whole chain T = S^H psi, A = T S + D, W = A^-1 S^H, U = W psi against the Eigen
// expressions, product by product, for 1 to 9 valid positions and 1 to 70 coils: below Eigen's
// coefficient-wise threshold, above it (matrix-vector routes for one position, the blocked
// kernel's panels of four columns and its depth peeled by eight for more), with an identity,
// a correlated or an arbitrary psi, and special values among the entries; on both kernel sets.
TEST(SmallProducts, ChainBitIdenticalToEigenProducts) {
    if (!mrkit::small::kEigenOrders)
        GTEST_SKIP() << "this build's Eigen products do not take the orders these kernels repeat";
    namespace sp = mrkit::small;
    Values v;
    int covered = 0, rounds = 0;
    for (int round = 0; round < 2400; ++round) {
        v.special = round % 3 != 0;
        v.odds = round % 3 == 1 ? 3 : 300;
        const int k = 1 + round % 9;
        const int coils = round % 4 == 0 ? 1 + static_cast<int>(v.gen() % 12)
                                         : 1 + static_cast<int>(v.gen() % 70);
        ++rounds;
        if (!sp::chain_covered(k, coils)) continue;
        ++covered;
        const int kind = round / 3 % 3;  // identity, Hermitian positive definite, arbitrary
        const MatrixXcd S = v.matrix(coils, k);
        MatrixXcd psi;
        if (kind == 0) {
            psi = MatrixXcd::Identity(coils, coils);
        } else if (kind == 1) {
            const MatrixXcd g = v.matrix(coils, coils);
            psi = g.adjoint() * g + MatrixXcd::Identity(coils, coils);
        } else {
            psi = v.matrix(coils, coils);
        }
        MatrixXcd D = MatrixXcd::Zero(k + 1, k + 1);
        if (round % 2) D.diagonal() = v.matrix(k + 1, 1);

        MatrixXcd T(k, coils), A(k, k), W(k, coils), U(k, coils);
        T.noalias() = S.adjoint() * psi;
        A.noalias() = T * S;
        A += D.topLeftCorner(k, k);
        const MatrixXcd inv = pivoted_lu_inverse(A);
        W.noalias() = inv * S.adjoint();
        U.noalias() = W * psi;

        std::vector<double> psiPacked(4 * coils * coils), packedS(4 * k * coils);
        mrkit::general::pack(psi.data(), coils, coils, coils, psiPacked.data(), 1, coils);
        using Half = void (*)(const sp::Chain&);
        const std::pair<Half, Half> sets[] = {
            {&sp::chain_front_baseline<const sp::Chain&>, &sp::chain_back_baseline<const sp::Chain&>},
            {&sp::chain_front_avx2<const sp::Chain&>, &sp::chain_back_avx2<const sp::Chain&>}};
        for (int set = 0; set < (mrkit::has_avx2() ? 2 : 1); ++set) {
            MatrixXcd gT(k, coils), gA(k, k), gW(k, coils), gU(k, coils);
            // The back half from the expected inverse, so that each product is checked alone.
            MatrixXcd gInv = inv;
            const sp::Chain c{S.data(),   coils,        coils,     k,          psi.data(),
                              psiPacked.data(), sp::is_identity(psi), D.data(), k + 1,
                              gT.data(),  gA.data(),    gInv.data(), gW.data(), packedS.data(),
                              gU.data(),  k};
            sets[set].first(c);
            sets[set].second(c);
            const std::string at = "coils " + std::to_string(coils) + ", k " +
                                   std::to_string(k) + ", psi kind " + std::to_string(kind) +
                                   ", set " + std::to_string(set);
            ASSERT_TRUE(same_bits(T, gT)) << "S^H psi, " << at;
            ASSERT_TRUE(same_bits(A, gA)) << "T S + D, " << at;
            ASSERT_TRUE(same_bits(W, gW)) << "inv S^H, " << at;
            ASSERT_TRUE(same_bits(U, gU)) << "W psi, " << at;
        }
    }
    // The shapes of 16 to 64 coils are all covered here (the blocked kernel is not split).
    EXPECT_GT(covered, rounds * 9 / 10);
}

// The small inverse against PartialPivLU with the permuted identity and the two triangular
// solves, including singular matrices (repeated columns) whose inverses hold infinities or NaNs.
TEST(SmallProducts, InverseBitIdenticalToPivotedLuSolves) {
    if (!mrkit::small::kEigenOrders)
        GTEST_SKIP() << "this build's Eigen products do not take the orders these kernels repeat";
    Values v;
    for (int round = 0; round < 6000; ++round) {
        v.special = round % 2 == 1;
        const int k = 1 + round % static_cast<int>(mrkit::small::kSmallSolve);
        MatrixXcd A = v.matrix(k, k);
        if (round % 5 == 0) A.col(k - 1) = A.col(0);
        MatrixXcd scratch(k, k), got(k, k);
        mrkit::small::lu_inverse(A.data(), k, k, scratch.data(), got.data());
        ASSERT_TRUE(same_bits(pivoted_lu_inverse(A), got)) << "k " << k << ", round " << round;
    }
}
