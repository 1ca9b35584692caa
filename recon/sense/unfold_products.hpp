// The unfolding's coil products u = M v in complex single precision, with the operations and order
// of Eigen 3.4's dense product on SSE2 (two complex per packet), so that the results are those of
// the Eigen expression bit for bit: a single row is Eigen's inner product (terms summed in order,
// then scaled by alpha = 1); otherwise rows go in pairs, each column block accumulated as
// product + running sum and added to the result as c * alpha + result, an odd last row in scalar
// arithmetic. One body serves one voxel (a pair of rows in four float lanes) and two voxels side by
// side (eight lanes), their matrices apart or interleaved entry by entry.
#pragma once

#include <Eigen/Dense>
#include <algorithm>
#include <climits>
#include <complex>
#include <type_traits>

#include "recon/lanes.hpp"
#include "recon/sense/eigen_orders.hpp"

namespace mrkit::sense::unfolding {

using cf = std::complex<float>;
using Index = Eigen::Index;

// From this many columns on, Eigen's matrix-vector product sums them in blocks; the two-voxel
// products take fewer.
constexpr int kBlockedColumns = 128;

using mrkit::kEigenOrders;

namespace products {

using lanes::Float4;
using lanes::Float8;

// Complex products lane pair by lane pair as Eigen's pmul<Packet2cf> forms them on SSE2:
// a.re * b + (a.im * swapped b with the real part's sign flipped).
template <class V>
MRKIT_INLINE V complex_times(const V& a, const V& b) {
    if constexpr (sizeof(V) == 16) {
        const lanes::Bits4f sign = {INT_MIN, 0, INT_MIN, 0};
        return __builtin_shufflevector(a, a, 0, 0, 2, 2) * b +
               lanes::flip(__builtin_shufflevector(a, a, 1, 1, 3, 3) *
                               __builtin_shufflevector(b, b, 1, 0, 3, 2),
                           sign);
    } else {
        const lanes::Bits8f sign = {INT_MIN, 0, INT_MIN, 0, INT_MIN, 0, INT_MIN, 0};
        return __builtin_shufflevector(a, a, 0, 0, 2, 2, 4, 4, 6, 6) * b +
               lanes::flip(__builtin_shufflevector(a, a, 1, 1, 3, 3, 5, 5, 7, 7) *
                               __builtin_shufflevector(b, b, 1, 0, 3, 2, 5, 4, 7, 6),
                           sign);
    }
}

// The complex at p in both halves of four lanes.
MRKIT_INLINE Float4 twice(const cf* p) {
    return reinterpret_cast<Float4>(
        lanes::splat<lanes::Double2>(lanes::load<double>(reinterpret_cast<const double*>(p))));
}

// Lanes from and to complex entries.
template <class V>
MRKIT_INLINE V load_cf(const cf* p) {
    return lanes::load<V>(reinterpret_cast<const float*>(p));
}
template <class V>
MRKIT_INLINE void store_cf(cf* p, const V& v) {
    lanes::store(reinterpret_cast<float*>(p), v);
}

// The complex at a, then the one at b.
MRKIT_INLINE Float4 two(const cf* a, const cf* b) {
    const lanes::Double2 x = {lanes::load<double>(reinterpret_cast<const double*>(a)),
                              lanes::load<double>(reinterpret_cast<const double*>(b))};
    return reinterpret_cast<Float4>(x);
}

MRKIT_INLINE Float8 join(const Float4& lo, const Float4& hi) {
    return __builtin_shufflevector(lo, hi, 0, 1, 2, 3, 4, 5, 6, 7);
}

// The scalar last row: out = 0 + alpha * sum when first, else out += alpha * sum. Out of line:
// inlined, its sums may be compiled with their operands swapped, which picks the other NaN of two.
__attribute__((noinline)) inline void last_row(const cf* M, Index ld, Index j0, Index j1,
                                               const cf* v, Index vstride, cf* out, bool first) {
    const cf alpha(1.0f, 0.0f);
    cf c(0.0f);
    for (Index j = j0; j < j1; ++j) c += Eigen::internal::pmul(M[j * ld], v[j * vstride]);
    if (first) *out = cf(0.0f);
    *out += alpha * c;
}

// One voxel: M with leading dimension ld, v[j * vstride], u.
struct OneVoxel {
    using Lanes = Float4;
    const cf *M, *v;
    Index ld, vstride;
    cf* u;
    MRKIT_INLINE Float4 matrix(Index i, Index j) const { return load_cf<Float4>(M + i + j * ld); }
    MRKIT_INLINE Float4 vector(Index j) const { return twice(v + j * vstride); }
    MRKIT_INLINE Float4 result(Index i) const { return load_cf<Float4>(u + i); }
    MRKIT_INLINE void store(Index i, const Float4& x) const { store_cf(u + i, x); }
};

// Two voxels a and b, their matrices and vectors apart: a's row pair in the low half.
struct TwoVoxels {
    using Lanes = Float8;
    const cf *Ma, *Mb, *va, *vb;
    Index lda, ldb, vstride;
    cf *ua, *ub;
    MRKIT_INLINE Float8 matrix(Index i, Index j) const {
        return join(load_cf<Float4>(Ma + i + j * lda), load_cf<Float4>(Mb + i + j * ldb));
    }
    MRKIT_INLINE Float8 vector(Index j) const {
        return join(twice(va + j * vstride), twice(vb + j * vstride));
    }
    // Entry (i, j) of a, then of b; entry j of a's vector, then of b's.
    MRKIT_INLINE Float4 entries(Index i, Index j) const {
        return two(Ma + i + j * lda, Mb + i + j * ldb);
    }
    MRKIT_INLINE Float4 vector_entries(Index j) const {
        return two(va + j * vstride, vb + j * vstride);
    }
    MRKIT_INLINE void last_row(Index i, Index cols) const {
        products::last_row(Ma + i, lda, 0, cols, va, vstride, ua + i, true);
        products::last_row(Mb + i, ldb, 0, cols, vb, vstride, ub + i, true);
    }
    MRKIT_INLINE void store_entries(Index i, const Float4& x) const {
        store_cf(ua + i, __builtin_shufflevector(x, x, 0, 1));
        store_cf(ub + i, __builtin_shufflevector(x, x, 2, 3));
    }
    MRKIT_INLINE void store(Index i, const Float8& x) const {
        store_cf(ua + i, __builtin_shufflevector(x, x, 0, 1, 2, 3));
        store_cf(ub + i, __builtin_shufflevector(x, x, 4, 5, 6, 7));
    }
};

// Two voxels interleaved entry by entry: entry (i, j) of a at P[(i + j rows) step], b's after it;
// the vectors side by side (a's at v[j vstride], b's after it); results to U the same way.
struct Interleaved {
    using Lanes = Float8;
    const cf *P, *v;
    Index step, rows, vstride;
    cf* U;
    MRKIT_INLINE Float8 matrix(Index i, Index j) const {
        const cf* a = P + (i + j * rows) * step;
        return join(load_cf<Float4>(a), load_cf<Float4>(a + step));
    }
    MRKIT_INLINE Float8 vector(Index j) const {
        const Float4 x = load_cf<Float4>(v + j * vstride);
        return join(x, x);
    }
    MRKIT_INLINE void store(Index i, const Float8& x) const { store_cf(U + 2 * i, x); }
    MRKIT_INLINE Float4 entries(Index i, Index j) const {
        return load_cf<Float4>(P + (i + j * rows) * step);
    }
    MRKIT_INLINE Float4 vector_entries(Index j) const { return load_cf<Float4>(v + j * vstride); }
    MRKIT_INLINE void last_row(Index i, Index cols) const {
        const Index column = rows * step;
        products::last_row(P + i * step, column, 0, cols, v, vstride, U + 2 * i, true);
        products::last_row(P + i * step + 1, column, 0, cols, v + 1, vstride, U + 2 * i + 1, true);
    }
    MRKIT_INLINE void store_entries(Index i, const Float4& x) const { store_cf(U + 2 * i, x); }
};

// Row pairs of columns j0 .. j1 - 1; the first block starts the result from zero, later ones add
// to it. Cols > 0 fixes the columns at compile time (with j0 = 0), so that the loop unrolls.
template <int Cols, class Source>
MRKIT_INLINE void row_pairs(const Source& s, Index rows, Index j0, Index j1) {
    using V = typename Source::Lanes;
    if (Cols > 0) j1 = Cols;
    V alpha;  // 1 + 0i in every lane pair
    for (unsigned k = 0; k < sizeof(V) / sizeof(float); ++k) alpha[k] = k % 2 ? 0.0f : 1.0f;
    for (Index i = 0; i + 1 < rows; i += 2) {
        V c = {};
        for (Index j = j0; j < j1; ++j) c = complex_times(s.matrix(i, j), s.vector(j)) + c;
        if constexpr (std::is_same_v<Source, OneVoxel>)
            s.store(i, complex_times(c, alpha) + (j0 == 0 ? V{} : s.result(i)));
        else
            s.store(i, complex_times(c, alpha) + V{});
    }
}

// Eigen's inner product for a single row.
__attribute__((noinline)) inline void single_row(const cf* M, Index ld, Index cols, const cf* v,
                                                 Index vstride, cf* u) {
    const cf alpha(1.0f, 0.0f);
    cf sum = Eigen::internal::pmul(M[0], v[0]);
    for (Index j = 1; j < cols; ++j) sum = sum + Eigen::internal::pmul(M[j * ld], v[j * vstride]);
    u[0] = cf(0.0f);
    u[0] += alpha * sum;
}

// The odd last row of two voxels side by side: in four lanes, with the scalar row's products
// (a.re b.re - a.im b.im, a.re b.im + a.im b.re) and sums. Its complex product treats one whose
// parts are both NaN apart, so a NaN anywhere sends the row through last_row itself; otherwise
// every step had the same operands and so the same result.
template <int Cols, class Source>
MRKIT_INLINE void last_rows(const Source& s, Index i, Index cols) {
    if (Cols > 0) cols = Cols;
    Float4 sum = {};
    for (Index j = 0; j < cols; ++j)
        sum = sum + complex_times(s.entries(i, j), s.vector_entries(j));
    const Float4 one = {1.0f, 0.0f, 1.0f, 0.0f};
    const Float4 u = Float4{} + complex_times(one, sum);
    if (lanes::any_nan(u))
        s.last_row(i, cols);
    else
        s.store_entries(i, u);
}

// Two voxels (rows >= 2, cols < kBlockedColumns), their matrices apart or interleaved. Cols and
// Rows > 0 fix the sizes at compile time.
template <int Cols, int Rows, class Source>
MRKIT_INLINE void two_voxels(const Source& s, Index rows, Index cols) {
    if (Rows > 0) rows = Rows;
    row_pairs<Cols>(s, rows, 0, cols);
    if (rows % 2) last_rows<Cols>(s, rows - 1, cols);
}

}  // namespace products

// u = M v for one voxel: M rows x cols (rows >= 1) with leading dimension ld, entry j of v at
// v[j * vstride].
inline void matrix_vector(const cf* M, Index ld, Index rows, Index cols, const cf* v, Index vstride,
                          cf* u) {
    if (!kEigenOrders) {
        using Matrix = Eigen::Map<const Eigen::MatrixXcf, 0, Eigen::OuterStride<> >;
        using Vector = Eigen::Map<const Eigen::VectorXcf, 0, Eigen::InnerStride<> >;
        Eigen::Map<Eigen::VectorXcf>(u, rows).noalias() =
            Matrix(M, rows, cols, Eigen::OuterStride<>(ld)) *
            Vector(v, cols, Eigen::InnerStride<>(vstride));
        return;
    }
    if (rows == 1) return products::single_row(M, ld, cols, v, vstride, u);
    const Index block = cols < kBlockedColumns ? cols : (ld * Index(sizeof(cf)) < 32000 ? 16 : 4);
    const products::OneVoxel s{M, v, ld, vstride, u};
    for (Index j0 = 0; j0 < cols; j0 += block) {
        const Index j1 = std::min(j0 + block, cols);
        products::row_pairs<0>(s, rows, j0, j1);
        if (rows % 2)
            products::last_row(M + rows - 1, ld, j0, j1, v, vstride, u + rows - 1, j0 == 0);
    }
}

}  // namespace mrkit::sense::unfolding
