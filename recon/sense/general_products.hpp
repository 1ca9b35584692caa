// complex<double> products above Eigen 3.4's coefficient-wise threshold, written out with the
// summation orders its general product takes there on SSE2 (one complex per packet), so that the
// bits agree without its dispatch, packing and temporaries. Eigen's route for dst = a * b (dst
// set to zero first, alpha = 1 times the scalar factors of a and b, conj(1) for a conjugated
// operand):
//  - dst with one row and one column: a dot product;
//  - dst with one row: the row-major matrix-vector kernel on dst^T = b^T a^T, each coefficient
//    one running packet sum of complex products, then dst += alpha * sum in std::complex;
//  - dst with one column (here only with one term): the column-major kernel, the packet sum
//    scaled by alpha as a packet;
//  - otherwise the blocked kernel (gebp): per coefficient four real sums (re a re b, im a re b,
//    re a im b, im a im b), in columns panels of four over the depth peeled by eight, even
//    terms in one set of sums and odd ones in another, joined, then the rest of the depth;
//    columns past the last panel of four in one set of sums. The four are then combined by the
//    conjugation case, multiplied by alpha as a packet and added to dst. One pass over the depth
//    holds while Eigen does not block it (checked per shape with Eigen's own heuristic).
// The four sums of one coefficient go side by side in one four-lane value, the lanes of the
// left-hand entry (re, im, re, im) times the packed right-hand entry (re, re, im, im).
#pragma once

#include <Eigen/Dense>
#include <complex>

#include "recon/lanes.hpp"

namespace mrkit::general {

using cd = std::complex<double>;
using Index = Eigen::Index;
using lanes::Bits2;
using lanes::Bits4;
using lanes::Double2;
using lanes::Double4;

constexpr long long kSign = static_cast<long long>(0x8000000000000000ull);

// Eigen's scalar factor of a product: 1 times that of each operand (conj(1) when conjugated).
inline cd product_alpha(bool conjLhs, bool conjRhs) {
    const cd one(1.0, 0.0);
    return one * (conjLhs ? std::conj(one) : one) * (conjRhs ? std::conj(one) : one);
}

// Whether Eigen computes a rows x cols product with `depth` terms in one pass of its blocked
// kernel: no blocking of the depth, column blocks (if any) whole panels of four, and too little
// work for it to split among threads.
inline bool one_pass(Index rows, Index cols, Index depth) {
    Index kc = depth, mc = rows, nc = cols;
    Eigen::internal::computeProductBlockingSizes<cd, cd, 1, Index>(kc, mc, nc, 1);
    return kc >= depth && (nc >= cols || nc % 4 == 0) &&
           static_cast<double>(rows) * cols * depth < 50000.0;
}

// (re, re, im, im) of each entry: entry (k, j) of b at B + 4 (k kStep + j jStep).
inline void pack(const cd* b, Index ldb, Index depth, Index cols, double* B, Index kStep,
                 Index jStep) {
    for (Index j = 0; j < cols; ++j)
        for (Index k = 0; k < depth; ++k) {
            const cd v = b[k + j * ldb];
            double* to = B + 4 * (k * kStep + j * jStep);
            to[0] = to[1] = v.real();
            to[2] = to[3] = v.imag();
        }
}

MRKIT_INLINE Double2 pair(const cd& v) {
    return lanes::load<Double2>(&v);
}
MRKIT_INLINE Double2 swap(Double2 v) {
    return __builtin_shufflevector(v, v, 1, 0);
}

// pmul<Packet1cd> on SSE2: (a.re b.re - a.im b.im, a.re b.im + a.im b.re), the difference as a
// sum with the sign bit flipped.
MRKIT_INLINE Double2 pmul(Double2 a, Double2 b) {
    return Double2{a[0], a[0]} * b + lanes::flip(Double2{a[1], a[1]} * swap(b), Bits2{kSign, 0});
}

// The same for two complex side by side.
MRKIT_INLINE Double4 pmul2(Double4 a, Double4 b) {
    return __builtin_shufflevector(a, a, 0, 0, 2, 2) * b +
           lanes::flip(__builtin_shufflevector(a, a, 1, 1, 3, 3) *
                           __builtin_shufflevector(b, b, 1, 0, 3, 2),
                       Bits4{kSign, 0, kSign, 0});
}

MRKIT_INLINE Double2 conj(Double2 v) {
    return lanes::flip(v, Bits2{0, kSign});
}

// gebp's closing step for one coefficient: the four sums joined by the conjugation case, times
// alpha, plus the zero the result starts from; then plus `add` where given.
template <bool ConjLhs, bool ConjRhs>
MRKIT_INLINE void finish(Double4 c, Double2 alpha, const cd* add, cd* to) {
    const Double2 first = {c[0], c[1]}, second = {c[2], c[3]};
    Double2 tmp;
    if (!ConjLhs && !ConjRhs)
        tmp = first + swap(conj(second));
    else if (!ConjLhs && ConjRhs)
        tmp = first + conj(swap(second));
    else if (ConjLhs && !ConjRhs)
        tmp = conj(first) + swap(second);
    else
        tmp = conj(first) - swap(second);
    Double2 r = pmul(tmp, alpha) + Double2{0.0, 0.0};
    if (add) r = r + pair(*add);
    lanes::store(to, r);
}

// dst (rows x cols, leading dimension ldd) = op(a) op(b) (+ add) as the blocked kernel forms it.
// Entry (i, k) of a at a[i * ai + k * ak]; entry (k, j) of b packed at B + 4 (k bk + j bj);
// ConjLhs / ConjRhs say that a / b enter conjugated.
template <bool ConjLhs, bool ConjRhs>
MRKIT_INLINE void gebp(const cd* a, Index ai, Index ak, const double* B, Index bk, Index bj,
                       Index rows, Index cols, Index depth, cd alpha, const cd* add, Index ldadd,
                       cd* dst, Index ldd) {
    const Index peeled = depth & ~Index(7), panels = cols / 4 * 4;
    const Double2 al = pair(alpha);
    const auto lhs = [&](Index i, Index k) {
        const Double2 v = pair(a[i * ai + k * ak]);
        return __builtin_shufflevector(v, v, 0, 1, 0, 1);
    };
    // Panel by panel, each panel's right-hand entries kept in the first-level cache for all rows
    // (Eigen goes row by row; each coefficient's sums are the same either way).
    for (Index j = 0; j < panels; j += 4) {
        const double* b = B + 4 * j * bj;
        const auto rhs = [&](Index k, int c) {
            return lanes::load<Double4>(b + 4 * (k * bk + c * bj));
        };
        for (Index i = 0; i < rows; ++i) {
            Double4 C[4] = {}, D[4] = {};
            Index k = 0;
            for (; k < peeled; k += 2) {
                const Double4 a0 = lhs(i, k), a1 = lhs(i, k + 1);
                for (int c = 0; c < 4; ++c) {
                    C[c] = a0 * rhs(k, c) + C[c];
                    D[c] = a1 * rhs(k + 1, c) + D[c];
                }
            }
            for (int c = 0; c < 4; ++c) C[c] = C[c] + D[c];
            for (; k < depth; ++k) {
                const Double4 a0 = lhs(i, k);
                for (int c = 0; c < 4; ++c) C[c] = a0 * rhs(k, c) + C[c];
            }
            for (int c = 0; c < 4; ++c)
                finish<ConjLhs, ConjRhs>(C[c], al, add ? add + i + (j + c) * ldadd : nullptr,
                                         dst + i + (j + c) * ldd);
        }
    }
    for (Index j = panels; j < cols; ++j) {
        const double* b = B + 4 * j * bj;
        for (Index i = 0; i < rows; ++i) {
            Double4 C = {};
            for (Index k = 0; k < depth; ++k)
                C = lhs(i, k) * lanes::load<Double4>(b + 4 * k * bk) + C;
            finish<ConjLhs, ConjRhs>(C, al, add ? add + i + j * ldadd : nullptr, dst + i + j * ldd);
        }
    }
}

// dst += alpha * c in std::complex, as the matrix-vector kernel closes a row (dst being zero).
// Out of line so that it is compiled once, as Eigen's is, with the library's own flags.
__attribute__((noinline)) inline cd close_row(cd alpha, cd c) {
    cd r(0.0, 0.0);
    r += alpha * c;
    return r;
}

// dst (1 x n) = v^T M for v with `depth` entries and M depth x n (leading dimension ldm), as the
// row-major matrix-vector kernel forms it on M^T v: per coefficient j a running packet sum of
// pmul(M(k, j), v_k), conjugated first where ConjM / ConjV say so; then alpha in std::complex.
// Two coefficients go side by side.
template <bool ConjM, bool ConjV>
MRKIT_INLINE void gemv_row(const cd* v, Index vstep, const cd* M, Index ldm, Index depth,
                           Index n, cd alpha, cd* dst, Index dstep) {
    const Bits4 imSigns = {0, kSign, 0, kSign};
    Index j = 0;
    for (; j + 2 <= n; j += 2) {
        Double4 c = {};
        const cd *m0 = M + j * ldm, *m1 = m0 + ldm;
        for (Index k = 0; k < depth; ++k) {
            Double4 a = {m0[k].real(), m0[k].imag(), m1[k].real(), m1[k].imag()};
            const Double2 x = pair(v[k * vstep]);
            Double4 b = __builtin_shufflevector(x, x, 0, 1, 0, 1);
            if (ConjM) a = lanes::flip(a, imSigns);
            if (ConjV) b = lanes::flip(b, imSigns);
            c = pmul2(a, b) + c;
        }
        dst[j * dstep] = close_row(alpha, cd(c[0], c[1]));
        dst[(j + 1) * dstep] = close_row(alpha, cd(c[2], c[3]));
    }
    for (; j < n; ++j) {
        Double2 c = {};
        const cd* m0 = M + j * ldm;
        for (Index k = 0; k < depth; ++k) {
            Double2 a = pair(m0[k]), b = pair(v[k * vstep]);
            if (ConjM) a = conj(a);
            if (ConjV) b = conj(b);
            c = pmul(a, b) + c;
        }
        dst[j * dstep] = close_row(alpha, cd(c[0], c[1]));
    }
}

// Products with an exact identity on the right. Above the threshold every sum starts at +0 and
// every term but the diagonal one is a signed zero when the left-hand entries are finite, so a
// coefficient is its diagonal term, with +0 for a zero; so are the closing steps (alpha is 1 or
// conj(1), whose zero part meets only finite values). The coefficient-wise route below the
// threshold sums differently (products.hpp). False when a non-finite entry was met in row i of
// a: the coefficients of that row are then not written.
template <bool ConjLhs>
MRKIT_INLINE bool identity_row(const cd* a, Index ak, Index cols, cd* dst, Index ldd) {
    Double2 spoilt = {};
    for (Index k = 0; k < cols; ++k) {
        const Double2 v = pair(a[k * ak]);
        spoilt = spoilt + (v - v);
    }
    if (spoilt[0] != 0.0 || spoilt[1] != 0.0) return false;
    for (Index k = 0; k < cols; ++k) {
        const Double2 v = pair(a[k * ak]);
        lanes::store(dst + k * ldd, (ConjLhs ? conj(v) : v) + Double2{0.0, 0.0});
    }
    return true;
}

}  // namespace mrkit::general
