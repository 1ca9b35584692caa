// The voxels of a chunk: which carry signal at which aliased positions, and their factor
// matrices, interpolated from kept rows of the factor grid (or read from them in place).
#include <cmath>
#include <complex>
#include <type_traits>
#include <utility>

#include "recon/lanes.hpp"
#include "recon/sense/unfold_chunk.hpp"
#include "recon/toolkit/corners.hpp"

namespace mrkit::sense::unfolding {
namespace {

namespace lanes = mrkit::lanes;

inline cf narrow(cd v) {
    return cf(static_cast<float>(v.real()), static_cast<float>(v.imag()));
}

// Weights of the first `count` corners.
template <class Count>
void weigh(Count count, const Sample& sx, const double* wy, const double* wz, double* w) {
    const double wx[2] = {1.0 - sx.fraction, sx.fraction};
    for (int k = 0; k < count(); ++k) w[k] = mrkit::corner_weight(k, wx, wy, wz);
}

// Which corners a voxel of the row reads from kept rows: all eight or the lower four, as the
// corner rule finds them within each factor block (0: read from the factors as they lie, also
// when the factor vector does not hold every block a voxel may read).
struct CornerKinds {
    const Layout& L;
    const Row& row;
    bool blocks;
    int of(int lower) const {
        const int readable =
            blocks ? mrkit::readable_corners(row.rowBase + lower, L.F0, L.gridPlane, L.V) : 0;
        return readable == 8 || readable == 4 ? readable : 0;
    }
};

// Either part of the factor non-zero (or not a number).
inline bool signal(const cd* f) {
    const auto part =
        lanes::load<lanes::Double2>(reinterpret_cast<const double*>(f)) != lanes::Double2{};
    return (part[0] | part[1]) != 0;
}

// find_signal where every voxel reads the same corners with the same weights and the voxels'
// nearest grid columns follow one another: each position's tests read one run along x, and a
// voxel with signal everywhere takes its rows in order.
template <int N>
void find_signal_run(const Layout& L, const Row& row, int x0, int x1, int corners, Chunk& ch) {
    const cd* f =
        L.factors + row.sz->nearest * L.gridPlane + row.sy->nearest * L.F0 + L.xs[x0].nearest;
    bool all;
    L.kernels.all_signal(f, L.V, N, x1 - x0, &all);
    if (all) {
        for (int i = 0; i < x1 - x0; ++i) {
            ch.x[i] = x0 + i;
            ch.valid[i] = N;
            ch.corners[i] = corners;
            int* rows = ch.rows(i);
            for (int m = 0; m < N; ++m) rows[m] = m;
        }
        ch.active = ch.full = x1 - x0;
        return;
    }
    for (int x = x0; x < x1; ++x, ++f) {
        int bits = 0;
        for (int m = 0; m < N; ++m) bits |= signal(f + static_cast<size_t>(m) * L.V) << m;
        if (bits == 0) continue;
        const int i = ch.active++;
        int* rows = ch.rows(i);
        ch.x[i] = x;
        ch.corners[i] = corners;
        if (bits == (1 << N) - 1) {
            ch.valid[i] = N;
            ++ch.full;
            for (int m = 0; m < N; ++m) rows[m] = m;
            continue;
        }
        int valid = 0;
        for (int m = 0; m < N; ++m) rows[m] = bits >> m & 1 ? valid++ : -1;
        ch.valid[i] = valid;
    }
}

// Coil 0's factor at the nearest grid voxel says which positions carry signal; outside the
// object this is the only work done. N > 0 fixes the number of positions n, so the test unrolls.
template <int N>
void find_signal(const Layout& L, const Row& row, int x0, int x1, const CornerKinds& kinds,
                 int uniform, Chunk& ch) {
    const int n = N > 0 ? N : row.n;
    const double wy[2] = {1.0 - row.sy->fraction, row.sy->fraction};
    const double wz[2] = {1.0 - row.sz->fraction, row.sz->fraction};
    const cd* nearest = L.factors + row.sz->nearest * L.gridPlane + row.sy->nearest * L.F0;
    for (int x = x0; x < x1; ++x) {
        const Sample& sx = L.xs[x];
        const cd* f = nearest + sx.nearest;
        int* rows = ch.rows(ch.active);
        int valid = 0;
        for (int m = 0; m < n; ++m, f += L.V) rows[m] = signal(f) ? valid++ : -1;
        if (valid == 0) continue;
        const int i = ch.active++;
        ch.x[i] = x;
        ch.valid[i] = valid;
        ch.full += valid == n;
        const int corners = uniform >= 0 ? uniform : kinds.of(sx.lower);
        ch.corners[i] = corners;
        if (!ch.sharedWeights) {
            if (corners == 4)
                weigh(std::integral_constant<int, 4>(), sx, wy, wz, ch.weights(i));
            else if (corners == 8)
                weigh(std::integral_constant<int, 8>(), sx, wy, wz, ch.weights(i));
        }
    }
}

}  // namespace

// Lists the chunk's voxels with signal and how their corners are read: from the kept rows when
// they are the usual four (one plane) or eight, otherwise, at the grid's end, from the factors as
// they lie.
void find_signal(const Layout& L, const Row& row, int x0, int x1, Chunk& ch) {
    const int n = row.n;
    // Each block's bound is its end, so the rule is applied within one block (bound V).
    const CornerKinds kinds{L, row, static_cast<long>(n) * L.fd3 <= L.blocks};
    // Lower corners do not fall along x: when the chunk's first and last voxel read the same
    // corners, so do all between.
    const int first = kinds.of(L.xs[x0].lower);
    const int uniform = first != 0 && kinds.of(L.xs[x1 - 1].lower) == first ? first : -1;
    ch.uniform = uniform;
    ch.sharedWeights = L.oneFraction;
    // Four corners use the first four weights of eight.
    if (L.oneFraction) {
        const double wy[2] = {1.0 - row.sy->fraction, row.sy->fraction};
        const double wz[2] = {1.0 - row.sz->fraction, row.sz->fraction};
        weigh(std::integral_constant<int, 8>(), L.xs[x0], wy, wz, ch.shared);
    }
    ch.active = 0;
    ch.full = 0;
    with_positions(n, [&](auto N) {
        if constexpr (N() > 0)
            if (uniform > 0 && L.oneFraction && L.unitNearest)
                return find_signal_run<N()>(L, row, x0, x1, uniform, ch);
        find_signal<N()>(L, row, x0, x1, kinds, uniform, ch);
    });
}

namespace {

// The grid rows a row's corners lie in, fetched once per row as far as the corners need them:
// kept, or, when the kept rows are narrowed, where they lie in the factors (and narrowed).
struct CornerRows {
    const Layout& L;
    Row& row;
    KeptRows& cache;
    int lo, count;
    int kept = 0;  // corners whose rows are fetched
    // Distance between the blocks' runs of the rows as they are.
    int stride() const { return cache.narrowed ? L.V : cache.exact.stride(); }
    void fetch(int corners) {
        if (corners <= kept) return;
        kept = corners;
        for (int r = 0; r < corners / 2; ++r) {
            if (row.kept[r]) continue;
            const int gridRow = row.gridRow + (r & 1) + (r & 2 ? L.F1 : 0);
            if (!cache.narrowed) {
                row.kept[r] = cache.exact.row(gridRow, count);
                continue;
            }
            row.narrowed[r] = cache.narrow.row(gridRow, count, &row.finite);
            row.kept[r] = L.factors + static_cast<size_t>(gridRow) * L.F0 + lo;
        }
    }
};

// Every voxel with signal everywhere, alike in corners, at consecutive x and grid columns:
// neighbours pair up in order, as voxel_matrices would pair them.
bool dense_pairs(const Layout& L, int n, CornerRows& rows, Chunk& ch) {
    ch.dense = L.kernels.pairs && n >= 2 && paired(n, L.fd3) && ch.uniform > 0 &&
               ch.full == ch.active && L.unitColumns &&
               ch.x[ch.active - 1] - ch.x[0] == ch.active - 1;
    if (!ch.dense) return false;
    rows.fetch(ch.uniform);
    const int column = L.xs[ch.x[0]].lower - rows.lo;
    ch.pairs = (ch.active + 1) / 2;
    for (int p = 0; p < ch.pairs; ++p) {
        ch.first[p] = 2 * p;
        ch.two[p] = 2 * p + 1 < ch.active;
        ch.column[p] = column + 2 * p;
    }
    return true;
}

// M of voxel i from the corners of the rule, where they are not the usual ones of kept rows.
void matrix_from_factors(const Layout& L, const Row& row, int i, Chunk& ch) {
    const int n = row.n;
    const int* rows = ch.rows(i);
    cf* out = ch.matrix(i);
    const Sample& sx = L.xs[ch.x[i]];
    const mrkit::Corners<double> at(sx.lower + row.rowBase, L.F0, L.gridPlane, L.V, sx.fraction,
                                    row.sy->fraction, row.sz->fraction);
    for (int c = 0; c < L.fd3; ++c)
        for (int m = 0; m < n; ++m)
            if (rows[m] >= 0)
                out[rows[m] + static_cast<size_t>(c) * n] =
                    narrow(at.apply(L.factors + static_cast<size_t>(c * n + m) * L.V));
}

// M of voxel i from its corners in kept rows.
template <int Corners>
void matrix_from_rows(const Layout& L, const Row& row, int i, int column, int stride, Chunk& ch) {
    const int n = row.n;
    const int* rows = ch.rows(i);
    cf* out = ch.matrix(i);
    const mrkit::sense::CornerRuns<Corners> runs{row.kept, column, stride, ch.weights_of(i)};
    if (ch.valid[i] == n) return runs.all(n * L.fd3, out);
    for (int c = 0; c < L.fd3; ++c)
        for (int m = 0; m < n; ++m)
            if (rows[m] >= 0) out[rows[m] + static_cast<size_t>(c) * n] = runs.at(c * n + m);
}

// Each voxel's M, or its pair, when the chunk is not dense. Returns the corner counts of the
// pairs (4 | 8).
int voxel_matrices(const Layout& L, const Row& row, CornerRows& rows, Chunk& ch) {
    const int n = row.n;
    int kinds = 0;
    for (int i = 0; i < ch.active; ++i) {
        ch.pairOf[i] = -1;
        const int corners = ch.corners[i];
        if (corners == 0) {
            matrix_from_factors(L, row, i, ch);
            continue;
        }
        rows.fetch(corners);
        const int column = L.xs[ch.x[i]].lower - rows.lo;
        if (L.kernels.pairs && ch.valid[i] == n && paired(n, L.fd3)) {
            // With the next voxel when that is the neighbour in x and in grid columns and alike;
            // otherwise the other half holds the next grid column's factors, unused.
            const bool two = i + 1 < ch.active && ch.corners[i + 1] == corners &&
                             ch.valid[i + 1] == n && ch.x[i + 1] == ch.x[i] + 1 &&
                             L.xs[ch.x[i + 1]].lower - rows.lo == column + 1;
            const int p = ch.pairs++;
            ch.first[p] = i;
            ch.two[p] = two;
            ch.column[p] = column;
            kinds |= corners;
            ch.pairOf[i] = p;
            if (two) ch.pairOf[++i] = p;
            continue;
        }
        if (corners == 4)
            matrix_from_rows<4>(L, row, i, column, rows.stride(), ch);
        else
            matrix_from_rows<8>(L, row, i, column, rows.stride(), ch);
    }
    return kinds;
}

// The pairs' interleaved matrices, or where the pair products read them in place.
void pair_matrices(const Row& row, const CornerRows& rows, int kinds, Chunk& ch) {
    const int stride = rows.stride(), count = rows.count;
    // On the grid the weights but the lower corner's are 0, and with finite corners they add
    // zeros: the factors are the lower corner's, read narrowed from its kept row. (Only a -0
    // factor could come out otherwise, as +0; no output shows the sign of a zero factor, since
    // every coil product is added to a zero at its end.)
    if (rows.cache.narrowed && row.finite) {
        ch.grid = row.narrowed[0];
        ch.gridStep = rows.cache.narrow.stride();
        return;
    }
    if (rows.cache.narrowed) {
        // Rows not all finite: the weighted sums voxel by voxel from the factors where they lie,
        // since a pair's read of the next columns could pass the end of the factor vector.
        for (int p = 0; p < ch.pairs; ++p)
            for (int k = 0; k < (ch.two[p] ? 2 : 1); ++k) {
                const int i = ch.first[p] + k, column = ch.column[p] + k;
                cf* to = ch.P.data() + p * ch.pair_stride() + k;
                if (ch.corners[i] == 4)
                    mrkit::sense::CornerRuns<4>{row.kept, column, stride, ch.weights_of(i)}.all(
                        count, to, 2);
                else
                    mrkit::sense::CornerRuns<8>{row.kept, column, stride, ch.weights_of(i)}.all(
                        count, to, 2);
            }
        return;
    }
    const double* weights = ch.sharedWeights ? ch.shared : ch.weight.data();
    const int weightStep = ch.sharedWeights ? 0 : 8;
    for (const auto& [kind, corner_pairs] :
         {std::pair(4, rows.L.kernels.corner_pairs4), std::pair(8, rows.L.kernels.corner_pairs8)})
        if (kinds & kind)
            corner_pairs(row.kept, stride, count, ch.pairs, ch.first.data(), ch.two.data(),
                         ch.corners.data(), ch.column.data(), weights, weightStep, ch.P.data(),
                         ch.pair_stride());
}

}  // namespace

// M of every voxel with signal, n x coils: with every position carrying signal all blocks in order
// (or interleaved with the pair's other voxel), otherwise the rows with signal first and the rest
// unused, as the product still takes them.
void interpolate(const Layout& L, Row& row, int lo, KeptRows& cache, Chunk& ch) {
    CornerRows rows{L, row, cache, lo, row.n * L.fd3};
    ch.pairs = 0;
    ch.grid = nullptr;
    const int kinds =
        dense_pairs(L, row.n, rows, ch) ? ch.uniform : voxel_matrices(L, row, rows, ch);
    if (ch.pairs > 0) pair_matrices(row, rows, kinds, ch);
}

}  // namespace mrkit::sense::unfolding
