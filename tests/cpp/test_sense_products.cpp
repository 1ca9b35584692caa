// The written-out small products and inverse of the combination factors against the Eigen
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

#ifdef MRKIT_SMALL_PRODUCTS

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

TEST(SmallProducts, BitIdenticalToEigenExpressions) {
    namespace sp = mrkit::small;
    Values v;
    for (int round = 0; round < 6000; ++round) {
        v.special = round % 2 == 1;
        const int coils = 1 + static_cast<int>(v.gen() % 12);
        const int slots = 1 + static_cast<int>(v.gen() % 8);
        const int K = 1 + static_cast<int>(v.gen() % slots);
        // Views with outer strides, as the factor code passes them.
        // Every third round the noise inverse is the exact identity, which has its own path.
        const bool identity = round % 3 == 0;
        const MatrixXcd S = v.matrix(coils, slots);
        const MatrixXcd psi =
            identity ? MatrixXcd(MatrixXcd::Identity(coils, coils)) : v.matrix(coils, coils);
        const MatrixXcd D = v.matrix(slots, slots), inv = v.matrix(K, K);
        const auto Sk = S.leftCols(K);
        const auto Dk = D.topLeftCorner(K, K);

        MatrixXcd expected(K, coils), got(K, coils);
        expected.noalias() = Sk.adjoint() * psi;
        ASSERT_EQ(sp::is_identity(psi), identity);
        sp::adjoint_times(Sk, psi, got, identity);
        ASSERT_TRUE(same_bits(expected, got)) << "S^H psi, coils " << coils << ", K " << K;

        // Also two rows at a time where the processor has AVX2.
        const MatrixXcd T = got;
        MatrixXcd A(K, K), A2(K, K);
        A.noalias() = T * Sk;
        A += Dk;
        expected.noalias() = inv * Sk.adjoint();
        for (const bool avx2 : {false, mrkit::has_avx2()}) {
            sp::times_plus(T, Sk, Dk, A2, avx2);
            ASSERT_TRUE(same_bits(A, A2)) << "T S + D, coils " << coils << ", K " << K;
            sp::times_adjoint(inv, Sk, got, avx2);
            ASSERT_TRUE(same_bits(expected, got)) << "inv S^H, coils " << coils << ", K " << K;
        }

        // Also free-standing values, which the chain never hands on (negative zeros), in a view
        // with an outer stride.
        const MatrixXcd free = v.matrix(K + 1, coils);
        const MatrixXcd W = round % 4 == 1 ? MatrixXcd(free.topRows(K)) : got;
        expected.noalias() = W * psi;
        if (round % 4 == 1)
            sp::times(free.topRows(K), psi, got, identity);
        else
            sp::times(W, psi, got, identity);
        ASSERT_TRUE(same_bits(expected, got)) << "W psi, coils " << coils << ", K " << K;
    }
}

// The small inverse against PartialPivLU with the permuted identity and the two triangular
// solves, including singular matrices (repeated columns) whose inverses hold infinities or NaNs.
TEST(SmallProducts, InverseBitIdenticalToPivotedLuSolves) {
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

// The whole chain U = ((S^H psi S + D)^-1 S^H) psi in one call against the Eigen expressions, for
// every size it takes, with the sizes fixed at compile time or not.
TEST(SmallProducts, CombinationWeightsBitIdenticalToEigenChain) {
    namespace sp = mrkit::small;
    Values v;
    for (int round = 0; round < 3000; ++round) {
        v.special = round % 4 == 1;
        const int coils = 1 + static_cast<int>(v.gen() % 8), k = 1 + round % 3;
        if (!sp::small_weights(k, coils)) continue;
        const bool identity = round % 2 == 0;
        // Slots past k in S and D, as the factor code leaves them.
        const MatrixXcd S = v.matrix(coils, k + 1), D = v.matrix(k + 1, k + 1);
        const MatrixXcd psi =
            identity ? MatrixXcd(MatrixXcd::Identity(coils, coils)) : v.matrix(coils, coils);
        const auto Sk = S.leftCols(k);
        MatrixXcd T(k, coils), A(k, k), W(k, coils), expected(k, coils);
        T.noalias() = Sk.adjoint() * psi;
        A.noalias() = T * Sk;
        A += D.topLeftCorner(k, k);
        W.noalias() = pivoted_lu_inverse(A) * Sk.adjoint();
        expected.noalias() = W * psi;
        std::vector<cd> scratch(2 * k * coils + 3 * k * k);
        for (const bool avx2 : {false, mrkit::has_avx2()})
            for (const bool fixed : {false, true}) {
                MatrixXcd got(k, coils);
                const auto run = [&](auto M) {
                    sp::combination_weights<M()>(S.data(), coils, coils, k, psi.data(), identity,
                                                 D.data(), k + 1, scratch.data(), got.data(), k,
                                                 avx2);
                };
                if (fixed)
                    sp::with_inner(coils, run);
                else
                    run(std::integral_constant<int, 0>());
                ASSERT_TRUE(same_bits(expected, got)) << "coils " << coils << ", k " << k;
            }
    }
}

#endif
