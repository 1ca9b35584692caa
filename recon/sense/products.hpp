// Small complex<double> matrix products written out with the very operations and summation order
// Eigen 3.4 uses for them on SSE2 (one complex per packet): the results are bit-identical to the
// Eigen expressions, NaN and signed zeros included, without their per-call dispatch cost. Eigen
// takes this coefficient-based route only below a size threshold (`lazy`); callers keep the
// Eigen expression otherwise, and everywhere when these kernels are not available.
#pragma once

#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <type_traits>

#if defined(EIGEN_VECTORIZE_SSE2) && !defined(EIGEN_VECTORIZE_AVX) &&    \
    !defined(EIGEN_DONT_VECTORIZE) && EIGEN_VERSION_AT_LEAST(3, 4, 0) && \
    !EIGEN_VERSION_AT_LEAST(3, 4, 90)
#define MRKIT_SMALL_PRODUCTS 1
#endif

#ifdef MRKIT_SMALL_PRODUCTS
namespace mrkit::small {

using cd = std::complex<double>;
using cf = std::complex<float>;
using Packet = Eigen::internal::Packet1cd;
static_assert(std::is_same<Eigen::internal::packet_traits<cd>::type, Packet>::value,
              "one complex<double> per packet expected");

// Whether Eigen evaluates a product into a rows x cols result with `inner` terms per
// coefficient coefficient-wise rather than through its blocked kernel.
inline bool lazy(Eigen::Index inner, Eigen::Index rows, Eigen::Index cols) {
    return inner + rows + cols < EIGEN_GEMM_TO_COEFFBASED_THRESHOLD && inner > 0;
}

inline Packet load(const cd* p) {
    return Eigen::internal::ploadu<Packet>(p);
}
inline void store(cd* p, const Packet& v) {
    Eigen::internal::pstoreu(p, v);
}

// dst (k x n) = a^H b, a m x k, b m x n, column-major with leading dimensions. Each coefficient
// is a sum reduction over m of conj(a) * b, in two interleaved partial sums (even and odd
// terms) joined at the end, with an odd last term added after. M > 0 fixes m at compile time.
template <int M = 0>
inline void adjoint_times(const cd* a, Eigen::Index lda, const cd* b, Eigen::Index ldb,
                          Eigen::Index runtimeM, Eigen::Index k, Eigen::Index n, cd* dst,
                          Eigen::Index ldd) {
    using namespace Eigen::internal;
    const Eigen::Index m = M > 0 ? M : runtimeM;
    const Eigen::Index even = (m / 2) * 2;
    for (Eigen::Index c = 0; c < n; ++c) {
        const cd* bc = b + c * ldb;
        for (Eigen::Index r = 0; r < k; ++r) {
            const cd* ar = a + r * lda;
            const auto term = [&](Eigen::Index i) {
                return pmul(pconj(load(ar + i)), load(bc + i));
            };
            Packet s0 = term(0);
            if (m > 1) {
                Packet s1 = term(1);
                for (Eigen::Index i = 2; i < even; i += 2) {
                    s0 = padd(s0, term(i));
                    s1 = padd(s1, term(i + 1));
                }
                s0 = padd(s0, s1);
                if (m > even) s0 = padd(s0, term(even));
            }
            store(dst + r + c * ldd, s0);
        }
    }
}

// dst (k x n) = a b, a k x m, b m x n (or b^H, b then n x m, when `adjointB`), and then, when
// `add` is given (k x n, leading dimension ldadd), dst += add. Each coefficient accumulates from
// zero, term by term, as product + running sum.
template <bool adjointB, int M = 0>
inline void times(const cd* a, Eigen::Index lda, const cd* b, Eigen::Index ldb,
                  Eigen::Index runtimeM, Eigen::Index k, Eigen::Index n, cd* dst, Eigen::Index ldd,
                  const cd* add = nullptr, Eigen::Index ldadd = 0) {
    using namespace Eigen::internal;
    const Eigen::Index m = M > 0 ? M : runtimeM;
    for (Eigen::Index c = 0; c < n; ++c) {
        for (Eigen::Index r = 0; r < k; ++r) {
            Packet s = pset1<Packet>(cd(0));
            for (Eigen::Index i = 0; i < m; ++i) {
                // conj flips the sign of the imaginary part, as pconj does in the register.
                const Packet bi = adjointB ? pconj(load(b + c + i * ldb)) : load(b + i + c * ldb);
                s = padd(pmul(load(a + r + i * lda), bi), s);
            }
            if (add) s = padd(s, load(add + r + c * ldadd));
            store(dst + r + c * ldd, s);
        }
    }
}

// Calls f with the inner size m as a compile-time constant when it is small, so that the
// loops over it unroll (0: use the runtime size).
template <class F>
void with_inner(Eigen::Index m, F&& f) {
    using std::integral_constant;
    switch (m) {
        case 1:
            return f(integral_constant<int, 1>());
        case 2:
            return f(integral_constant<int, 2>());
        case 3:
            return f(integral_constant<int, 3>());
        case 4:
            return f(integral_constant<int, 4>());
        case 6:
            return f(integral_constant<int, 6>());
        case 8:
            return f(integral_constant<int, 8>());
        default:
            return f(integral_constant<int, 0>());
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
// that is not zero is the sum; a zero part takes the sign of that sum of zeros. M > 0 fixes m at
// compile time.
template <int M = 0>
inline bool adjoint_times_identity(const cd* a, Eigen::Index lda, Eigen::Index runtimeM,
                                   Eigen::Index k, cd* dst, Eigen::Index ldd) {
    const Eigen::Index m = M > 0 ? M : runtimeM;
    // v - v is +0 exactly for finite v (NaN otherwise), so OR-ing them stays +0 while all are.
    const __m128d zero = _mm_setzero_pd(), conjugate = _mm_set_pd(-0.0, 0.0);
    for (Eigen::Index r = 0; r < k; ++r) {
        const double* ar = reinterpret_cast<const double*>(a + r * lda);
        __m128d spoilt = zero, zeros = zero;
        for (Eigen::Index c = 0; c < m; ++c) {
            const __m128d v = _mm_loadu_pd(ar + 2 * c);
            spoilt = _mm_or_pd(spoilt, _mm_sub_pd(v, v));
            zeros = _mm_or_pd(zeros, _mm_cmpeq_pd(v, zero));
            _mm_storeu_pd(reinterpret_cast<double*>(dst + r + c * ldd), _mm_xor_pd(v, conjugate));
        }
        if (_mm_movemask_pd(_mm_cmpeq_pd(spoilt, zero)) != 3) return false;
        if (_mm_movemask_pd(zeros) == 0) continue;
        // Sign bits (bit 0 real): set in every entry, set in some entry.
        __m128d all = _mm_castsi128_pd(_mm_set1_epi32(-1)), any = zero;
        for (Eigen::Index i = 0; i < m; ++i) {
            const __m128d v = _mm_loadu_pd(ar + 2 * i);
            all = _mm_and_pd(all, v);
            any = _mm_or_pd(any, v);
        }
        const int every = _mm_movemask_pd(all), some = _mm_movemask_pd(any);
        const bool reNegative = every == 3, imNegative = (every & 1) && !(some & 2);
        const __m128d signs = _mm_set_pd(imNegative ? -0.0 : 0.0, reNegative ? -0.0 : 0.0);
        for (Eigen::Index c = 0; c < m; ++c) {
            const __m128d v = _mm_xor_pd(_mm_loadu_pd(ar + 2 * c), conjugate);
            const __m128d nonzero = _mm_cmpneq_pd(v, zero);
            _mm_storeu_pd(reinterpret_cast<double*>(dst + r + c * ldd),
                          _mm_or_pd(_mm_and_pd(nonzero, v), _mm_andnot_pd(nonzero, signs)));
        }
    }
    return true;
}

// times<false> for b = I: the sums start from +0, so a zero result is always +0. A non-finite
// entry is found only after every coefficient is written.
inline bool times_identity(const cd* a, Eigen::Index lda, Eigen::Index k, Eigen::Index m, cd* dst,
                           Eigen::Index ldd) {
    const __m128d zero = _mm_setzero_pd();
    __m128d spoilt = zero;
    const auto copy = [&](const cd* from, cd* to) {
        const __m128d v = _mm_loadu_pd(reinterpret_cast<const double*>(from));
        spoilt = _mm_or_pd(spoilt, _mm_sub_pd(v, v));
        _mm_storeu_pd(reinterpret_cast<double*>(to), _mm_add_pd(v, zero));
    };
    if (lda == k && ldd == k)
        for (Eigen::Index i = 0; i < k * m; ++i) copy(a + i, dst + i);
    else
        for (Eigen::Index c = 0; c < m; ++c)
            for (Eigen::Index r = 0; r < k; ++r) copy(a + r + c * lda, dst + r + c * ldd);
    return _mm_movemask_pd(_mm_cmpeq_pd(spoilt, zero)) == 3;
}

// Largest matrix handled here; Eigen's triangular solves stay in their scalar panel loop up
// to 4 rows, and up to 3 even the signs of NaN results agree with it in this build.
constexpr Eigen::Index kSmallSolve = 3;

// inv = A^-1 for a k x k A (k <= kSmallSolve; lu is k x k scratch) as Eigen's PartialPivLU followed
// by the permuted identity and the unit-lower and upper triangular solves computes it: pivots by
// the largest modulus (first one on ties), the pivot column scaled by the pivot's packet quotient,
// rank-one updates column by column, then per row of the triangle the scalar solve steps. The
// size is fixed at compile time, so that the loops unroll.
template <int K>
inline void lu_inverse_fixed(const cd* a, Eigen::Index lda, cd* lu, cd* inv) {
    using namespace Eigen::internal;
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
            const Packet pivot = pset1<Packet>(lu[j + j * k]);
            for (Eigen::Index r = j + 1; r < k; ++r)
                store(lu + r + j * k, pdiv(load(lu + r + j * k), pivot));
        }
        for (Eigen::Index c = j + 1; c < k; ++c) {
            const Packet s = pset1<Packet>(lu[j + c * k]);
            for (Eigen::Index r = j + 1; r < k; ++r)
                store(lu + r + c * k, psub(load(lu + r + c * k), pmul(s, load(lu + r + j * k))));
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
    static_assert(kSmallSolve == 3, "one case per size");
    switch (k) {
        case 1:
            return lu_inverse_fixed<1>(a, lda, lu, inv);
        case 2:
            return lu_inverse_fixed<2>(a, lda, lu, inv);
        default:
            return lu_inverse_fixed<3>(a, lda, lu, inv);
    }
}

#if defined(__x86_64__) && defined(__GNUC__)
#define MRKIT_AVX2_PAIRS 1
}  // namespace mrkit::small
#include <immintrin.h>
namespace mrkit::small {
// Eigen's complex product of two complex<float> per 128-bit lane, as in pmul<Packet2cf>.
__attribute__((target("avx2"))) inline __m256 pmul_avx2(__m256 a, __m256 b) {
    const __m256 sign = _mm256_castsi256_ps(_mm256_setr_epi32(
        int(0x80000000), 0, int(0x80000000), 0, int(0x80000000), 0, int(0x80000000), 0));
    return _mm256_add_ps(
        _mm256_mul_ps(_mm256_moveldup_ps(a), b),
        _mm256_xor_ps(_mm256_mul_ps(_mm256_movehdup_ps(a), _mm256_permute_ps(b, 0xB1)), sign));
}

// times() for two rows of dst at a time, one per 128-bit lane: lane by lane the operations of
// Eigen's complex<double> product (pmul<Packet1cd>) and the same sums. An odd last row goes
// through times() itself.
template <bool adjointB, int M = 0>
__attribute__((target("avx2"))) inline void times_avx2(const cd* a, Eigen::Index lda, const cd* b,
                                                       Eigen::Index ldb, Eigen::Index runtimeM,
                                                       Eigen::Index k, Eigen::Index n, cd* dst,
                                                       Eigen::Index ldd, const cd* add = nullptr,
                                                       Eigen::Index ldadd = 0) {
    const Eigen::Index m = M > 0 ? M : runtimeM, pairs = k / 2 * 2;
    const long long sign = std::numeric_limits<long long>::min();
    const __m256d realSign = _mm256_castsi256_pd(_mm256_setr_epi64x(sign, 0, sign, 0));
    const __m256d imagSign = _mm256_castsi256_pd(_mm256_setr_epi64x(0, sign, 0, sign));
    // A pair of rows' real and imaginary parts, each twice, are the same for every column; with
    // m fixed they are read once.
    constexpr int kept = M > 0 && M <= 4 ? M : 1;
    __m256d re[kept], im[kept];
    for (Eigen::Index r = 0; r < pairs; r += 2) {
        for (Eigen::Index i = 0; i < (kept > 1 ? m : 0); ++i) {
            const __m256d x = _mm256_loadu_pd(reinterpret_cast<const double*>(a + r + i * lda));
            re[i] = _mm256_movedup_pd(x);
            im[i] = _mm256_permute_pd(x, 0xF);
        }
        for (Eigen::Index c = 0; c < n; ++c) {
            __m256d s = _mm256_setzero_pd();
            for (Eigen::Index i = 0; i < m; ++i) {
                if (kept == 1) {
                    const __m256d x =
                        _mm256_loadu_pd(reinterpret_cast<const double*>(a + r + i * lda));
                    re[0] = _mm256_movedup_pd(x);
                    im[0] = _mm256_permute_pd(x, 0xF);
                }
                __m256d y = _mm256_broadcast_pd(
                    reinterpret_cast<const __m128d*>(adjointB ? b + c + i * ldb : b + i + c * ldb));
                if (adjointB) y = _mm256_xor_pd(y, imagSign);
                const Eigen::Index at = kept > 1 ? i : 0;
                const __m256d p = _mm256_add_pd(
                    _mm256_mul_pd(re[at], y),
                    _mm256_xor_pd(_mm256_mul_pd(im[at], _mm256_permute_pd(y, 0x5)), realSign));
                s = _mm256_add_pd(p, s);
            }
            if (add)
                s = _mm256_add_pd(
                    s, _mm256_loadu_pd(reinterpret_cast<const double*>(add + r + c * ldadd)));
            _mm256_storeu_pd(reinterpret_cast<double*>(dst + r + c * ldd), s);
        }
    }
    if (pairs < k)
        times<adjointB, M>(a + pairs, lda, b, ldb, m, k - pairs, n, dst + pairs, ldd,
                           add ? add + pairs : nullptr, ldadd);
}

#endif

// Whether combination_weights computes U for k valid positions and m coils: every product of the
// chain small enough for Eigen to evaluate coefficient-wise, and the inverse small.
inline bool small_weights(Eigen::Index k, Eigen::Index m) {
    return k <= kSmallSolve && lazy(m, k, m) && lazy(m, k, k) && lazy(k, k, m);
}

// U (k x m, leading dimension ldu) = ((S^H Psi S + D)^-1 S^H) Psi for S m x k and Psi m x m (the
// inverted noise covariance; `psiIdentity` when exactly the identity), through the kernels above
// with a single dispatch on the sizes; bit-identical to the Eigen expressions where small_weights
// holds. Scratch holds 2 k m + 3 k k entries. M > 0 fixes m at compile time.
template <int M = 0>
inline void combination_weights(const cd* S, Eigen::Index lds, Eigen::Index runtimeM,
                                Eigen::Index k, const cd* psi, bool psiIdentity, const cd* D,
                                Eigen::Index ldd, cd* scratch, cd* U, Eigen::Index ldu, bool avx2) {
    const Eigen::Index m = M > 0 ? M : runtimeM;
    cd *T = scratch, *A = T + k * m, *lu = A + k * k, *inv = lu + k * k, *W = inv + k * k;
    if (!psiIdentity || !adjoint_times_identity<M>(S, lds, m, k, T, k))
        adjoint_times<M>(S, lds, psi, m, m, k, m, T, k);
#ifdef MRKIT_AVX2_PAIRS
    if (avx2)
        times_avx2<false, M>(T, k, S, lds, m, k, k, A, k, D, ldd);
    else
#endif
        times<false, M>(T, k, S, lds, m, k, k, A, k, D, ldd);
    lu_inverse(A, k, k, lu, inv);
    const auto adjoint = [&](auto K) {
#ifdef MRKIT_AVX2_PAIRS
        if (avx2) return times_avx2<true, K()>(inv, k, S, lds, k, k, m, W, k);
#endif
        times<true, K()>(inv, k, S, lds, k, k, m, W, k);
    };
    if (k == 1)
        adjoint(std::integral_constant<int, 1>());
    else if (k == 2)
        adjoint(std::integral_constant<int, 2>());
    else
        adjoint(std::integral_constant<int, 3>());
    if (!psiIdentity || !times_identity(W, k, k, m, U, ldu))
        times<false, M>(W, k, psi, m, m, k, m, U, ldu);
    (void)avx2;
}

}  // namespace mrkit::small
#endif

namespace mrkit::small {

using Cref = Eigen::Ref<const Eigen::MatrixXcd>;

// Whether b is exactly the identity: +0 off the diagonal, 1 + 0i on it.
inline bool is_identity(const Eigen::MatrixXcd& b) {
    for (Eigen::Index c = 0; c < b.cols(); ++c)
        for (Eigen::Index r = 0; r < b.rows(); ++r) {
            const std::complex<double> v = b(r, c), e(r == c ? 1.0 : 0.0, 0.0);
            if (std::memcmp(&v, &e, sizeof v) != 0) return false;
        }
    return b.rows() == b.cols();
}

// dst = a^H b; `bIdentity` says that b is exactly the identity
inline void adjoint_times(const Cref& a, const Cref& b, Eigen::MatrixXcd& dst,
                          bool bIdentity = false) {
#ifdef MRKIT_SMALL_PRODUCTS
    if (lazy(b.rows(), a.cols(), b.cols()))
        return with_inner(a.rows(), [&](auto M) {
            if (bIdentity && adjoint_times_identity<M()>(a.data(), a.outerStride(), a.rows(),
                                                         a.cols(), dst.data(), dst.rows()))
                return;
            adjoint_times<M()>(a.data(), a.outerStride(), b.data(), b.outerStride(), a.rows(),
                               a.cols(), b.cols(), dst.data(), dst.rows());
        });
#endif
    dst.noalias() = a.adjoint() * b;
}

// dst = a b + add; `avx2` says that the processor has AVX2
inline void times_plus(const Cref& a, const Cref& b, const Cref& add, Eigen::MatrixXcd& dst,
                       bool avx2 = false) {
#ifdef MRKIT_SMALL_PRODUCTS
    if (lazy(b.rows(), a.rows(), b.cols()))
        return with_inner(a.cols(), [&](auto M) {
#ifdef MRKIT_AVX2_PAIRS
            if (avx2)
                return times_avx2<false, M()>(a.data(), a.outerStride(), b.data(), b.outerStride(),
                                              a.cols(), a.rows(), b.cols(), dst.data(), dst.rows(),
                                              add.data(), add.outerStride());
#endif
            times<false, M()>(a.data(), a.outerStride(), b.data(), b.outerStride(), a.cols(),
                              a.rows(), b.cols(), dst.data(), dst.rows(), add.data(),
                              add.outerStride());
        });
#endif
    (void)avx2;
    dst.noalias() = a * b;
    dst += add;
}

// dst = a b; `bIdentity` says that b is exactly the identity
inline void times(const Cref& a, const Cref& b, Eigen::Ref<Eigen::MatrixXcd> dst,
                  bool bIdentity = false) {
#ifdef MRKIT_SMALL_PRODUCTS
    if (lazy(b.rows(), a.rows(), b.cols()) && bIdentity &&
        times_identity(a.data(), a.outerStride(), a.rows(), a.cols(), dst.data(),
                       dst.outerStride()))
        return;
    if (lazy(b.rows(), a.rows(), b.cols()))
        return with_inner(a.cols(), [&](auto M) {
            times<false, M()>(a.data(), a.outerStride(), b.data(), b.outerStride(), a.cols(),
                              a.rows(), b.cols(), dst.data(), dst.outerStride());
        });
#endif
    dst.noalias() = a * b;
}

// dst = a b^H; `avx2` says that the processor has AVX2
inline void times_adjoint(const Cref& a, const Cref& b, Eigen::MatrixXcd& dst, bool avx2 = false) {
#ifdef MRKIT_SMALL_PRODUCTS
    if (lazy(b.cols(), a.rows(), b.rows()))
        return with_inner(a.cols(), [&](auto M) {
#ifdef MRKIT_AVX2_PAIRS
            if (avx2)
                return times_avx2<true, M()>(a.data(), a.outerStride(), b.data(), b.outerStride(),
                                             a.cols(), a.rows(), b.rows(), dst.data(), dst.rows());
#endif
            times<true, M()>(a.data(), a.outerStride(), b.data(), b.outerStride(), a.cols(),
                             a.rows(), b.rows(), dst.data(), dst.rows());
        });
#endif
    (void)avx2;
    dst.noalias() = a * b.adjoint();
}

}  // namespace mrkit::small
