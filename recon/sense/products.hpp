// Small complex<double> matrix products written out with the very operations and summation order
// Eigen 3.4 uses for them on SSE2 (one complex per packet): the results are bit-identical to the
// Eigen expressions (a NaN may stand for another NaN), signed zeros included, without their
// per-call dispatch cost. Below Eigen's size threshold (`lazy`) the coefficient-wise route is
// here; above it the general routes of general_products.hpp. Chain puts the combination weights
// together from both; callers keep the Eigen expressions where kEigenOrders is false or a shape
// is not covered.
#pragma once

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <type_traits>

#include "recon/lanes.hpp"
#include "recon/sense/eigen_orders.hpp"
#include "recon/sense/general_products.hpp"

namespace mrkit::small {

using mrkit::kEigenOrders;

using cd = std::complex<double>;
using cf = std::complex<float>;

// Whether Eigen evaluates a product into a rows x cols result with `inner` terms per
// coefficient coefficient-wise rather than through its blocked kernel.
inline bool lazy(Eigen::Index inner, Eigen::Index rows, Eigen::Index cols) {
    return inner + rows + cols < EIGEN_GEMM_TO_COEFFBASED_THRESHOLD && inner > 0;
}

// dst (k x n) = a^H b, a m x k, b m x n, column-major with leading dimensions. Each coefficient
// is a sum reduction over m of conj(a) * b, in two interleaved partial sums (even and odd
// terms) joined at the end, with an odd last term added after. M > 0 fixes m at compile time.
template <int M = 0>
MRKIT_INLINE void adjoint_times(const cd* a, Eigen::Index lda, const cd* b, Eigen::Index ldb,
                                Eigen::Index runtimeM, Eigen::Index k, Eigen::Index n, cd* dst,
                                Eigen::Index ldd) {
    namespace g = mrkit::general;
    using lanes::Double2;
    const Eigen::Index m = M > 0 ? M : runtimeM;
    const Eigen::Index even = (m / 2) * 2;
    for (Eigen::Index c = 0; c < n; ++c) {
        const cd* bc = b + c * ldb;
        for (Eigen::Index r = 0; r < k; ++r) {
            const cd* ar = a + r * lda;
            const auto term = [&](Eigen::Index i) {
                return g::pmul(g::conj(g::pair(ar[i])), g::pair(bc[i]));
            };
            Double2 s0 = term(0);
            if (m > 1) {
                Double2 s1 = term(1);
                for (Eigen::Index i = 2; i < even; i += 2) {
                    s0 = s0 + term(i);
                    s1 = s1 + term(i + 1);
                }
                s0 = s0 + s1;
                if (m > even) s0 = s0 + term(even);
            }
            lanes::store(dst + r + c * ldd, s0);
        }
    }
}

// dst (k x n) = a b, a k x m, b m x n (or b^H, b then n x m, when `adjointB`), and then, when
// `add` is given (k x n, leading dimension ldadd), dst += add. Each coefficient accumulates from
// zero, term by term, as product + running sum; two rows of dst go side by side. M > 0 fixes m
// at compile time.
template <bool adjointB, int M = 0>
MRKIT_INLINE void times(const cd* a, Eigen::Index lda, const cd* b, Eigen::Index ldb,
                        Eigen::Index runtimeM, Eigen::Index k, Eigen::Index n, cd* dst,
                        Eigen::Index ldd, const cd* add = nullptr, Eigen::Index ldadd = 0) {
    namespace g = mrkit::general;
    using lanes::Double2;
    using lanes::Double4;
    const Eigen::Index m = M > 0 ? M : runtimeM, pairs = k / 2 * 2;
    const auto right = [&](Eigen::Index i, Eigen::Index c) {
        // conj flips the sign of the imaginary part, as pconj does in the register.
        return adjointB ? g::conj(g::pair(b[c + i * ldb])) : g::pair(b[i + c * ldb]);
    };
    for (Eigen::Index c = 0; c < n; ++c) {
        for (Eigen::Index r = 0; r < pairs; r += 2) {
            Double4 s = {};
            for (Eigen::Index i = 0; i < m; ++i) {
                const Double2 y = right(i, c);
                s = g::pmul2(lanes::load<Double4>(a + r + i * lda),
                             __builtin_shufflevector(y, y, 0, 1, 0, 1)) +
                    s;
            }
            if (add) s = s + lanes::load<Double4>(add + r + c * ldadd);
            lanes::store(dst + r + c * ldd, s);
        }
        if (pairs < k) {
            Double2 s = {};
            for (Eigen::Index i = 0; i < m; ++i) s = g::pmul(g::pair(a[k - 1 + i * lda]), right(i, c)) + s;
            if (add) s = s + g::pair(add[k - 1 + c * ldadd]);
            lanes::store(dst + k - 1 + c * ldd, s);
        }
    }
}

// Products with an exact identity b, as the noise covariance is when none is given. With finite a,
// every term of a coefficient but the diagonal one is a signed zero, and adding a signed zero to a
// non-zero value changes nothing; so the sum is the diagonal term unless that is zero, and then its
// sign is that of a sum of zeros: negative only when every term is. These give the same bits as the
// sums above; false means a non-finite entry was met and nothing usable was written.

// adjoint_times for b = I (m x m): term i of coefficient (r, c) is conj(a) * (1 or 0), whose real
// part is a zero signed negative exactly when both parts of a are, and whose imaginary part is a
// zero signed negative exactly when the real part of a is and the imaginary part is not. A part
// that is not zero is the sum; a zero part takes the sign of that sum of zeros.
MRKIT_INLINE bool adjoint_times_identity(const cd* a, Eigen::Index lda, Eigen::Index m,
                                         Eigen::Index k, cd* dst, Eigen::Index ldd) {
    namespace g = mrkit::general;
    using lanes::Bits2;
    using lanes::Double2;
    for (Eigen::Index r = 0; r < k; ++r) {
        const cd* ar = a + r * lda;
        // v - v is +0 exactly for finite v (NaN otherwise), so the sum stays +0 while all are.
        Double2 spoilt = {};
        Bits2 zeros = {};
        for (Eigen::Index c = 0; c < m; ++c) {
            const Double2 v = g::pair(ar[c]);
            spoilt = spoilt + (v - v);
            zeros = zeros | (v == Double2{});
            lanes::store(dst + r + c * ldd, g::conj(v));
        }
        if (spoilt[0] != 0.0 || spoilt[1] != 0.0) return false;
        if (!zeros[0] && !zeros[1]) continue;
        // Sign bits: set in every entry, set in some entry.
        Bits2 all = {-1, -1}, any = {};
        for (Eigen::Index i = 0; i < m; ++i) {
            const Bits2 v = reinterpret_cast<Bits2>(g::pair(ar[i]));
            all = all & v;
            any = any | v;
        }
        const bool reNegative = all[0] < 0 && all[1] < 0, imNegative = all[0] < 0 && any[1] >= 0;
        const Double2 signs = {reNegative ? -0.0 : 0.0, imNegative ? -0.0 : 0.0};
        for (Eigen::Index c = 0; c < m; ++c) {
            const Double2 v = g::conj(g::pair(ar[c]));
            const Bits2 nonzero = v != Double2{};
            lanes::store(dst + r + c * ldd,
                         reinterpret_cast<Double2>((reinterpret_cast<Bits2>(v) & nonzero) |
                                                   (reinterpret_cast<Bits2>(signs) & ~nonzero)));
        }
    }
    return true;
}

// times<false> for b = I: the sums start from +0, so a zero result is always +0. A non-finite
// entry is found only after every coefficient is written.
MRKIT_INLINE bool times_identity(const cd* a, Eigen::Index lda, Eigen::Index k, Eigen::Index m,
                                 cd* dst, Eigen::Index ldd) {
    namespace g = mrkit::general;
    using lanes::Double2;
    Double2 spoilt = {};
    for (Eigen::Index c = 0; c < m; ++c)
        for (Eigen::Index r = 0; r < k; ++r) {
            const Double2 v = g::pair(a[r + c * lda]);
            spoilt = spoilt + (v - v);
            lanes::store(dst + r + c * ldd, v + Double2{});
        }
    return spoilt[0] == 0.0 && spoilt[1] == 0.0;
}

// Largest matrix handled here: Eigen's triangular solves stay in their scalar panel loop up to 4
// rows (from 5 on they update the rows below a panel with the blocked kernel). At 4 a NaN may
// come out with the other sign, as elsewhere where the compiler orders a sum's operands.
constexpr Eigen::Index kSmallSolve = 4;

// inv = A^-1 for a k x k A (k <= kSmallSolve; lu is k x k scratch) as Eigen's PartialPivLU followed
// by the permuted identity and the unit-lower and upper triangular solves computes it: pivots by
// the largest modulus (first one on ties), the pivot column scaled by the pivot's packet quotient,
// rank-one updates column by column, then per row of the triangle the scalar solve steps. The
// size is fixed at compile time, so that the loops unroll.
template <int K>
inline void lu_inverse_fixed(const cd* a, Eigen::Index lda, cd* lu, cd* inv) {
    namespace g = mrkit::general;
    using lanes::Double2;
    constexpr Eigen::Index k = K;
    for (Eigen::Index c = 0; c < k; ++c)
        for (Eigen::Index r = 0; r < k; ++r) lu[r + c * k] = a[r + c * lda];
    Eigen::Index perm[kSmallSolve];
    for (Eigen::Index i = 0; i < k; ++i) perm[i] = i;
    for (Eigen::Index j = 0; j < k; ++j) {
        Eigen::Index best = j;
        bool nonzero;
        if (j + 1 < k) {
            double score = std::abs(lu[j + j * k]);
            for (Eigen::Index r = j + 1; r < k; ++r) {
                const double s = std::abs(lu[r + j * k]);
                if (s > score) {
                    score = s;
                    best = r;
                }
            }
            nonzero = score != 0.0;
        } else {
            // A lone candidate's modulus only meets zero: it is zero exactly when both parts are.
            nonzero = lu[j + j * k].real() != 0.0 || lu[j + j * k].imag() != 0.0;
        }
        if (nonzero) {
            if (best != j) {
                for (Eigen::Index c = 0; c < k; ++c) std::swap(lu[j + c * k], lu[best + c * k]);
                std::swap(perm[j], perm[best]);
            }
            // pdiv<Packet1cd>: a conj(b) over |b|^2 summed from the squared parts.
            const Double2 pivot = g::pair(lu[j + j * k]), squares = pivot * pivot;
            const Double2 norm = squares + g::swap(squares);
            for (Eigen::Index r = j + 1; r < k; ++r)
                lanes::store(lu + r + j * k, g::pmul(g::pair(lu[r + j * k]), g::conj(pivot)) / norm);
        }
        for (Eigen::Index c = j + 1; c < k; ++c) {
            const Double2 s = g::pair(lu[j + c * k]);
            for (Eigen::Index r = j + 1; r < k; ++r)
                lanes::store(lu + r + c * k,
                             g::pair(lu[r + c * k]) - g::pmul(s, g::pair(lu[r + j * k])));
        }
    }
    // Row perm[i] of A went to row i: the permuted identity has its 1 at (i, perm[i]).
    for (Eigen::Index c = 0; c < k; ++c)
        for (Eigen::Index r = 0; r < k; ++r) inv[r + c * k] = perm[r] == c ? cd(1) : cd(0);
    const cd one(1);
    for (Eigen::Index i = 0; i < k; ++i)  // unit lower
        for (Eigen::Index c = 0; c < k; ++c) {
            cd& o = inv[i + c * k];
            o *= one;
            const cd b = o;
            for (Eigen::Index r = i + 1; r < k; ++r) inv[r + c * k] -= b * lu[r + i * k];
        }
    for (Eigen::Index i = k - 1; i >= 0; --i) {  // upper
        const cd d = one / lu[i + i * k];
        for (Eigen::Index c = 0; c < k; ++c) {
            cd& o = inv[i + c * k];
            o *= d;
            const cd b = o;
            for (Eigen::Index r = 0; r < i; ++r) inv[r + c * k] -= b * lu[r + i * k];
        }
    }
}

inline void lu_inverse(const cd* a, Eigen::Index lda, Eigen::Index k, cd* lu, cd* inv) {
    static_assert(kSmallSolve == 4, "one case per size");
    switch (k) {
        case 1:
            return lu_inverse_fixed<1>(a, lda, lu, inv);
        case 2:
            return lu_inverse_fixed<2>(a, lda, lu, inv);
        case 3:
            return lu_inverse_fixed<3>(a, lda, lu, inv);
        default:
            return lu_inverse_fixed<4>(a, lda, lu, inv);
    }
}

}  // namespace mrkit::small

namespace mrkit::small {

// One voxel's combination weights U = ((S^H Psi S + D)^-1 S^H) Psi for k valid positions and m
// coils, product by product along Eigen's own route for each shape: coefficient-wise below its
// threshold (kernels above), above it the routes of general_products.hpp. S is m x k (leading
// dimension lds), Psi m x m (the inverted noise covariance, also packed for the blocked kernel;
// `psiIdentity` when exactly the identity), D k x k. Scratch: T and W k x m, A and inv k x k,
// S packed m x k.
struct Chain {
    const cd* S;
    Eigen::Index lds, m, k;
    const cd* psi;
    const double* psiPacked;
    bool psiIdentity;
    const cd* D;
    Eigen::Index ldd;
    cd *T, *A, *inv, *W;
    double* packedS;
    cd* U;
    Eigen::Index ldu;
};

// Whether the kernels here take every product of the chain as Eigen does (the inverse aside):
// a product that Eigen blocks along its depth or splits among threads is left to Eigen, as is a
// column result with more than one term.
inline bool chain_covered(Eigen::Index k, Eigen::Index m) {
    const auto covered = [](Eigen::Index rows, Eigen::Index cols, Eigen::Index depth) {
        if (lazy(depth, rows, cols) || rows == 1) return true;
        if (cols == 1) return false;
        return general::one_pass(rows, cols, depth);
    };
    return covered(k, m, m) && covered(k, k, m) && covered(k, m, k);
}

// Eigen's inner product of two vectors whose entries are not packet-accessible (a row of a
// matrix): one running std::complex sum from the first term, then dst = 0 + 1 * sum.
__attribute__((noinline)) inline cd inner_product(const cd* a, Eigen::Index astep, const cd* b,
                                                 Eigen::Index n) {
    cd sum = std::conj(std::conj(a[0])) * b[0];
    for (Eigen::Index i = 1; i < n; ++i) sum = sum + std::conj(std::conj(a[i * astep])) * b[i];
    cd r(0.0, 0.0);
    r += cd(1.0, 0.0) * sum;
    return r;
}

// T = S^H Psi, then A = T S + D.
MRKIT_INLINE void chain_front(const Chain& c) {
    namespace g = mrkit::general;
    const Eigen::Index m = c.m, k = c.k;
    if (lazy(m, k, m)) {
        if (!c.psiIdentity || !adjoint_times_identity(c.S, c.lds, m, k, c.T, k))
            adjoint_times(c.S, c.lds, c.psi, m, m, k, m, c.T, k);
    } else if (k == 1) {
        if (!c.psiIdentity || !g::identity_row<true>(c.S, 1, m, c.T, 1))
            g::gemv_row<false, true>(c.S, 1, c.psi, m, m, m, g::product_alpha(false, true), c.T,
                                     1);
    } else {
        const cd alpha = g::product_alpha(true, false);
        if (!c.psiIdentity)
            g::gebp<true, false>(c.S, c.lds, 1, c.psiPacked, 1, m, k, m, m, alpha, nullptr, 0,
                                 c.T, k);
        else
            for (Eigen::Index i = 0; i < k; ++i)
                if (!g::identity_row<true>(c.S + i * c.lds, 1, m, c.T + i, k))
                    g::gebp<true, false>(c.S + i * c.lds, 0, 1, c.psiPacked, 1, m, 1, m, m,
                                         alpha, nullptr, 0, c.T + i, k);
    }
    if (lazy(m, k, k)) {
        times<false>(c.T, k, c.S, c.lds, m, k, k, c.A, k, c.D, c.ldd);
    } else if (k == 1) {
        c.A[0] = inner_product(c.T, 1, c.S, m) + c.D[0];
    } else {
        g::pack(c.S, c.lds, m, k, c.packedS, 1, m);
        g::gebp<false, false>(c.T, 1, k, c.packedS, 1, m, k, k, m, g::product_alpha(false, false),
                              c.D, c.ldd, c.A, k);
    }
}

// W = inv S^H, then U = W Psi.
MRKIT_INLINE void chain_back(const Chain& c) {
    namespace g = mrkit::general;
    const Eigen::Index m = c.m, k = c.k;
    if (lazy(k, k, m)) {
        times<true>(c.inv, k, c.S, c.lds, k, k, m, c.W, k);
    } else if (k == 1) {
        // The column-major matrix-vector kernel on one term: conj(S) inv, then alpha as a packet.
        const lanes::Double2 alpha = g::pair(g::product_alpha(true, false)), v = g::pair(c.inv[0]);
        for (Eigen::Index i = 0; i < m; ++i)
            lanes::store(c.W + i, g::pmul(g::pmul(g::conj(g::pair(c.S[i])), v) + lanes::Double2{},
                                          alpha) +
                                      lanes::Double2{});
    } else {
        if (lazy(m, k, k)) g::pack(c.S, c.lds, m, k, c.packedS, 1, m);
        g::gebp<false, true>(c.inv, 1, k, c.packedS, m, 1, k, m, k, g::product_alpha(false, true),
                             nullptr, 0, c.W, k);
    }
    if (lazy(m, k, m)) {
        if (!c.psiIdentity || !times_identity(c.W, k, k, m, c.U, c.ldu))
            times<false>(c.W, k, c.psi, m, m, k, m, c.U, c.ldu);
    } else if (k == 1) {
        if (!c.psiIdentity || !g::identity_row<false>(c.W, 1, m, c.U, c.ldu))
            g::gemv_row<false, false>(c.W, 1, c.psi, m, m, m, g::product_alpha(false, false), c.U,
                                      c.ldu);
    } else {
        const cd alpha = g::product_alpha(false, false);
        if (!c.psiIdentity)
            g::gebp<false, false>(c.W, 1, k, c.psiPacked, 1, m, k, m, m, alpha, nullptr, 0, c.U,
                                  c.ldu);
        else
            for (Eigen::Index i = 0; i < k; ++i)
                if (!g::identity_row<false>(c.W + i, k, m, c.U + i, c.ldu))
                    g::gebp<false, false>(c.W + i, 0, k, c.psiPacked, 1, m, 1, m, m, alpha,
                                          nullptr, 0, c.U + i, c.ldu);
    }
}

MRKIT_PER_TARGET(chain_front, chain_front)
MRKIT_PER_TARGET(chain_back, chain_back)

// The two halves of the chain for this processor, chosen once per call.
struct ChainKernels {
    void (*front)(const Chain&);
    void (*back)(const Chain&);
    static ChainKernels pick() {
        return {lanes::pick(&chain_front_baseline<const Chain&>, &chain_front_avx2<const Chain&>),
                lanes::pick(&chain_back_baseline<const Chain&>, &chain_back_avx2<const Chain&>)};
    }
};

// Whether b is exactly the identity: +0 off the diagonal, 1 + 0i on it.
inline bool is_identity(const Eigen::MatrixXcd& b) {
    for (Eigen::Index c = 0; c < b.cols(); ++c)
        for (Eigen::Index r = 0; r < b.rows(); ++r) {
            const std::complex<double> v = b(r, c), e(r == c ? 1.0 : 0.0, 0.0);
            if (std::memcmp(&v, &e, sizeof v) != 0) return false;
        }
    return b.rows() == b.cols();
}

}  // namespace mrkit::small
