// Unfolding of one folded multi-coil volume: per folded voxel, the factors of its aliased
// positions are interpolated from the factor grid and applied to the coil values, and the
// results are scattered to the aliased positions of the full field of view.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstring>
#include <type_traits>
#include <vector>

#include "recon/cpu.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "recon/sense/corners.hpp"
#include "recon/sense/factor_rows.hpp"
#include "recon/sense/products.hpp"
#include "recon/sense/unfold_volumes.hpp"

namespace {

// Where one folded index samples the factor grid: the coordinate (never below 0), its nearest
// grid index for the signal mask, and its lower grid index and fraction for interpolation.
struct Sample {
    float coord;
    int nearest, lower;
    double fraction;
};

// Folded index i -> factor-grid coordinate, first to first and last to last; along y and z the
// coordinate is snapped to the factor grid's compartments, so the interpolation never blends
// factors of differently aliased voxels.
std::vector<Sample> samples(int folded, int grid, int fullSize, const float* gridBounds) {
    float imageBounds[2] = {-1.0f, -1.0f};
    if (gridBounds) get_compartments(fullSize, folded, imageBounds);
    const float step =
        folded > 1 ? static_cast<float>(grid - 1) / static_cast<float>(folded - 1) : 0.0f;
    std::vector<Sample> out(folded);
    for (int i = 0; i < folded; ++i) {
        float c = folded == 1 ? 0.0f : static_cast<float>(i) * step;
        if (gridBounds) c = static_cast<float>(pos2interpolate(c, i, imageBounds, gridBounds));
        if (c < 0) c = 0;
        const int lower = static_cast<int>(c);
        out[i] = {c, MR_round(c), lower, c - static_cast<float>(lower)};
    }
    return out;
}

// Aliased full positions of every folded index of one axis, `most` entries per index.
struct Aliases {
    int most;
    std::vector<int> count, position;
    Aliases(int fullSize, int folded)
        : most(static_cast<int>(ceilf(static_cast<float>(fullSize) / static_cast<float>(folded)))),
          count(folded),
          position(static_cast<size_t>(folded) * most) {
        Eigen::VectorXi list(most);
        for (int i = 0; i < folded; ++i) {
            count[i] = MR_get_unfolded_positions(fullSize, folded, i, list);
            std::copy(list.data(), list.data() + most, position.begin() + i * most);
        }
    }
    const int* of(int i) const { return position.data() + static_cast<size_t>(i) * most; }
};

using mrkit::sense::cd;
using mrkit::sense::cf;

// Aliased positions per folded voxel up to which the output offsets are kept per row.
constexpr int kMaxSlots = 64;

// Whether voxels whose positions all carry signal go in pairs: the pair kernels (when built) take
// fewer than kBlockedColumns coils; a single position reads its half of the interleaved matrix
// through a stride.
inline bool paired(int n, int coils) {
#ifdef MRKIT_AVX2_PAIRS
    return n == 1 || coils < mrkit::small::kBlockedColumns;
#else
    (void)coils;
    return n == 1;
#endif
}

// Factor-grid columns of the widest strip a thread works through at a time.
constexpr int kStripWidth = 264;

// What every thread reads: sizes, sampling of the factor grid and aliased positions.
struct Layout {
    int fd0, fd1, fd2, fd3, N0, N1, N2, F0, F1, F2;
    int slab, volume, foldedTotal, plane, V, outPlane, outTotal;
    std::vector<Sample> xs, ys, zs;
    bool oneFraction;  // every x samples the grid at the same fraction (as when F0 = fd0)
    bool onGrid;       // that fraction is 0
    bool allOnGrid;    // and every y and z samples the grid at its lower corner too
    bool unitColumns;  // each x's lower grid column is the one after the previous x's
    bool unitNearest;  // and so its nearest
    Aliases yAlias, zAlias;
    int slots, blocks;
    const cd* factors;

    Layout(const Eigen::VectorXi& foldedDims, const Eigen::VectorXcd& f,
           const Eigen::VectorXi& factorDims, const Eigen::VectorXi& fullDims,
           const float* yCompartments, const float* zCompartments)
        : fd0(foldedDims[0]),
          fd1(foldedDims[1]),
          fd2(foldedDims[2]),
          fd3(foldedDims[3]),
          N0(fullDims[0]),
          N1(fullDims[1]),
          N2(fullDims[2]),
          F0(factorDims[0]),
          F1(factorDims[1]),
          F2(factorDims[2]),
          slab(fd0 * fd1),
          volume(slab * fd2),
          foldedTotal(foldedDims.prod()),
          plane(F0 * F1),
          V(plane * F2),
          outPlane(N0 * N1),
          outTotal(outPlane * N2),
          xs(samples(fd0, F0, N0, nullptr)),
          ys(samples(fd1, F1, N1, yCompartments)),
          zs(samples(fd2, F2, N2, zCompartments)),
          oneFraction(std::all_of(xs.begin(), xs.end(),
                                  [&](const Sample& s) {
                                      return std::memcmp(&s.fraction, &xs[0].fraction,
                                                         sizeof(double)) == 0;
                                  })),
          onGrid(oneFraction && xs[0].fraction == 0.0),
          allOnGrid(
              onGrid &&
              std::all_of(ys.begin(), ys.end(),
                          [](const Sample& s) { return s.fraction == 0.0; }) &&
              std::all_of(zs.begin(), zs.end(), [](const Sample& s) { return s.fraction == 0.0; })),
          unitColumns(std::adjacent_find(xs.begin(), xs.end(),
                                         [](const Sample& a, const Sample& b) {
                                             return b.lower != a.lower + 1;
                                         }) == xs.end()),
          unitNearest(std::adjacent_find(xs.begin(), xs.end(),
                                         [](const Sample& a, const Sample& b) {
                                             return b.nearest != a.nearest + 1;
                                         }) == xs.end()),
          yAlias(N1, fd1),
          zAlias(N2, fd2),
          slots(yAlias.most * zAlias.most),
          // Blocks a voxel may read, as far as the factor vector holds them.
          blocks(V > 0 ? static_cast<int>(std::min<Eigen::Index>(
                             static_cast<Eigen::Index>(slots) * fd3, f.size() / V))
                       : 0),
          factors(f.data()) {}
};

// One (y, z) row of folded voxels: its aliased positions and where it samples the factor grid.
struct Row {
    int y, z, ny, nz, n;
    const int *yList, *zList;
    const Sample *sy, *sz;
    int rowBase;  // flat factor index of the row's lower corner but for x
    int gridRow;  // row of that corner among the factor grid's F1 * F2 rows
    // Corner rows, once fetched: as they are (kept, or where they lie in the factors when the
    // rows are kept narrowed) and narrowed.
    const cd* kept[4] = {nullptr, nullptr, nullptr, nullptr};
    const cf* narrowed[4] = {nullptr, nullptr, nullptr, nullptr};
    bool finite = true;  // every entry of those rows, when the rows are checked
    bool onGrid;         // every voxel of the row samples the grid at its lower corner

    Row(const Layout& L, int y_, int z_)
        : y(y_),
          z(z_),
          ny(L.yAlias.count[y_]),
          nz(L.zAlias.count[z_]),
          n(ny * nz),
          yList(L.yAlias.of(y_)),
          zList(L.zAlias.of(z_)),
          sy(&L.ys[y_]),
          sz(&L.zs[z_]),
          rowBase(sy->lower * L.F0 + sz->lower * L.plane),
          gridRow(sy->lower + sz->lower * L.F1),
          onGrid(L.onGrid && sy->fraction == 0.0 && sz->fraction == 0.0) {}
};

// One thread's scratch for a run of folded voxels along x (a chunk of one row): which aliased
// positions carry signal, how each voxel's factors are read, its factor matrix M, and the coil
// values. Voxels with every position carrying signal and the usual corners (from kept rows) go
// in pairs of neighbours (or alone) through the AVX2 loops; their two matrices are interleaved.
struct Chunk {
    static constexpr int kLength = 64;
    const int slots, coils;
    int active = 0;              // voxels with signal, in x order
    int full = 0;                // of them, with signal at every position
    int uniform = -1;            // the corners of every voxel, when alike and read from kept rows
    bool dense = false;          // every voxel in a pair, pair p of voxels 2p and 2p + 1
    std::vector<int> x, valid;   // their x and number of positions with signal
    std::vector<int> rowOf;      // slots per voxel: row of position m in M, or -1
    std::vector<int> corners;    // 4 or 8 from kept rows, 0 read from the factors as they lie
    std::vector<double> weight;  // 8 per voxel, when the voxels' weights differ
    double shared[8];            // the weights of every voxel, when they are alike
    bool sharedWeights = false;  // they are
    std::vector<cf> M;           // n x coils per voxel, column-major, the rows with signal first
    std::vector<cf> values;      // coil values of each x of the chunk, one spare at the end
    std::vector<cf> u, u2;       // results of one voxel, or of two
    // Pairs: the voxel's pair or -1; per pair its first voxel, whether the next is the second,
    // grid column, interleaved matrices and results. The matrices may also be read straight from
    // a narrowed kept row (`grid`, entry e of pair p at grid[column[p] + e gridStep]) by the same
    // kernel.
    int pairs = 0;
    std::vector<int> pairOf, first, two, column;
    std::vector<cf> P, U;
    const cf* grid = nullptr;
    int gridStep = 0;

    Chunk(int s, int c)
        : slots(s),
          coils(c),
          x(kLength),
          valid(kLength),
          rowOf(static_cast<size_t>(kLength) * s),
          corners(kLength),
          weight(static_cast<size_t>(kLength) * 8),
          M(static_cast<size_t>(kLength) * s * c),
          values(static_cast<size_t>(kLength) * c + 1),
          u(s),
          u2(s),
          pairOf(kLength),
          first(kLength),
          two(kLength),
          column(kLength),
          P(static_cast<size_t>(kLength) * pair_stride()),
          U(static_cast<size_t>(kLength) * 2 * s) {}
    int* rows(int i) { return rowOf.data() + static_cast<size_t>(i) * slots; }
    double* weights(int i) { return weight.data() + static_cast<size_t>(i) * 8; }
    const double* weights_of(int i) { return sharedWeights ? shared : weights(i); }
    cf* matrix(int i) { return M.data() + static_cast<size_t>(i) * slots * coils; }
    cf* values_at(int c) { return values.data() + static_cast<size_t>(c) * kLength; }
    size_t pair_stride() const { return 2 * static_cast<size_t>(slots) * coils; }
    const cf* pair_matrix(int p) const {
        return grid ? grid + column[p] : P.data() + p * pair_stride();
    }
    int pair_step() const { return grid ? gridStep : 2; }
    cf* pair_result(int p) { return U.data() + static_cast<size_t>(p) * 2 * slots; }
};

// Coil values re[x] + i im[x] (im may be null) for x = x0 .. x1 - 1 into out[x - x0].
inline void gather(const float* re, const float* im, int x0, int x1, cf* out) {
    int x = x0;
#if defined(__SSE2__)
    float* to = reinterpret_cast<float*>(out) - 2 * x0;
    if (im)
        for (; x + 4 <= x1; x += 4) {
            const __m128 r = _mm_loadu_ps(re + x), i = _mm_loadu_ps(im + x);
            _mm_storeu_ps(to + 2 * x, _mm_unpacklo_ps(r, i));
            _mm_storeu_ps(to + 2 * x + 4, _mm_unpackhi_ps(r, i));
        }
#endif
    for (; x < x1; ++x) out[x - x0] = cf(re[x], im ? im[x] : 0.0f);
}

#ifdef MRKIT_AVX2
// gather, eight values at a time.
__attribute__((target("avx2"))) void gather_avx2(const float* re, const float* im, int x0, int x1,
                                                 cf* out) {
    int x = x0;
    if (im) {
        for (float* to = reinterpret_cast<float*>(out); x + 8 <= x1; x += 8, to += 16) {
            const __m256 r = _mm256_loadu_ps(re + x), i = _mm256_loadu_ps(im + x);
            const __m256 lo = _mm256_unpacklo_ps(r, i), hi = _mm256_unpackhi_ps(r, i);
            _mm256_storeu_ps(to, _mm256_permute2f128_ps(lo, hi, 0x20));
            _mm256_storeu_ps(to + 8, _mm256_permute2f128_ps(lo, hi, 0x31));
        }
    }
    gather(re, im, x, x1, out + (x - x0));
}
#endif

inline cf narrow(cd v) {
    return cf(static_cast<float>(v.real()), static_cast<float>(v.imag()));
}

// Weight of corner k < count: (x weight * y weight) * z weight, each t or 1 - t.
template <class Count>
void weigh(Count count, const Sample& sx, const double* wy, const double* wz, double* w) {
    const double wx[2] = {1.0 - sx.fraction, sx.fraction};
    for (int k = 0; k < count(); ++k) w[k] = wx[k & 1] * wy[(k >> 1) & 1] * wz[(k >> 2) & 1];
}

// Which corners voxel x reads (see find_signal): 8, 4 or 0.
struct CornerKinds {
    long all8, from4, below4;
    int of(int lower) const { return lower < all8 ? 8 : lower >= from4 && lower < below4 ? 4 : 0; }
};

// Either part of the factor non-zero (or not a number).
inline bool signal(const cd* f) {
#if defined(__SSE2__)
    return _mm_movemask_pd(_mm_cmpneq_pd(_mm_loadu_pd(reinterpret_cast<const double*>(f)),
                                         _mm_setzero_pd())) != 0;
#else
    return f->real() != 0.0 || f->imag() != 0.0;
#endif
}

#ifdef MRKIT_AVX2
// Whether each of the `count` entries from f, and from f + k V for every k < n, has signal.
__attribute__((target("avx2"))) bool all_signal_avx2(const cd* f, int V, int n, int count) {
    const __m256d zero = _mm256_setzero_pd();
    __m256d all = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
    for (int k = 0; k < n; ++k) {
        const double* in = reinterpret_cast<const double*>(f + static_cast<size_t>(k) * V);
        int q = 0;
        for (; q + 2 <= count; q += 2) {
            const __m256d part = _mm256_cmp_pd(_mm256_loadu_pd(in + 2 * q), zero, _CMP_NEQ_UQ);
            all = _mm256_and_pd(all, _mm256_or_pd(part, _mm256_permute_pd(part, 0x5)));
        }
        if (q < count && !signal(f + static_cast<size_t>(k) * V + q)) return false;
    }
    return _mm256_movemask_pd(all) == 0xF;
}
#endif

// find_signal where every voxel reads the same corners with the same weights and the voxels'
// nearest grid columns follow one another: each position's tests read one run along x, and a
// voxel with signal everywhere takes its rows in order.
template <int N>
void find_signal_run(const Layout& L, const Row& row, int x0, int x1, int corners, bool avx2,
                     Chunk& ch) {
    const cd* f = L.factors + row.sz->nearest * L.plane + row.sy->nearest * L.F0 + L.xs[x0].nearest;
#ifdef MRKIT_AVX2
    if (avx2 && all_signal_avx2(f, L.V, N, x1 - x0)) {
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
#else
    (void)avx2;
#endif
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
    const cd* nearest = L.factors + row.sz->nearest * L.plane + row.sy->nearest * L.F0;
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

// Lists the chunk's voxels with signal and how their corners are read: from the kept rows when
// they are the usual four (one plane) or eight, otherwise, at the grid's end, from the factors as
// they lie.
void find_signal(const Layout& L, const Row& row, int x0, int x1, bool avx2, Chunk& ch) {
    const int n = row.n;
    // Corners as MR_linear_interpolation picks them for lower corner b = x's lower + rowBase;
    // within a block, so the block bound (block + 1) * V leaves b + offset < V as the test: all
    // eight below all8, one plane from from4 to below4, none when the blocks are not all there.
    const bool blocks = static_cast<long>(n) * L.fd3 <= L.blocks;
    const long rest = static_cast<long>(L.V) - row.rowBase;
    const CornerKinds kinds{blocks ? rest - L.F0 - 1 - L.plane : 0, rest - L.plane,
                            blocks ? rest - L.F0 - 1 : 0};
    // Lower corners do not fall along x, and eight corners or four are each one run of them: when
    // the chunk's first and last voxel read the same, so do all between.
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
    if (uniform > 0 && L.oneFraction && L.unitNearest) switch (n) {
            case 2:
                return find_signal_run<2>(L, row, x0, x1, uniform, avx2, ch);
            case 3:
                return find_signal_run<3>(L, row, x0, x1, uniform, avx2, ch);
            case 4:
                return find_signal_run<4>(L, row, x0, x1, uniform, avx2, ch);
        }
    switch (n) {
        case 2:
            return find_signal<2>(L, row, x0, x1, kinds, uniform, ch);
        case 3:
            return find_signal<3>(L, row, x0, x1, kinds, uniform, ch);
        case 4:
            return find_signal<4>(L, row, x0, x1, kinds, uniform, ch);
        default:
            return find_signal<0>(L, row, x0, x1, kinds, uniform, ch);
    }
}

// A thread's kept factor rows: narrowed where every voxel samples the grid at its lower corner
// (the factors of every pair read from there), otherwise as they are.
struct KeptRows {
    bool narrowed;
    mrkit::sense::FactorRows<cd> exact;
    mrkit::sense::FactorRows<cf> narrow;
    KeptRows(const Layout& L, bool avx2, int capacity)
        : narrowed(L.allOnGrid && avx2),
          exact(L.factors, L.F0, L.V, capacity, L.blocks,
                narrowed   ? 0
                : L.F2 > 1 ? 4
                           : 2),
          narrow(L.factors, L.F0, L.V, capacity, L.blocks, narrowed ? L.F2 > 1 ? 4 : 2 : 0) {}
    void columns(int lo, int width) {
        exact.columns(lo, width);
        narrow.columns(lo, width);
    }
};

// M of every voxel with signal, n x coils: with every position carrying signal all blocks in order
// (or interleaved with the pair's other voxel), otherwise the rows with signal first and the rest
// unused, as the product still takes them.
void interpolate(const Layout& L, Row& row, int lo, bool avx2, KeptRows& cache, Chunk& ch) {
    const int n = row.n, count = n * L.fd3;
    // Rows as they are: kept, or where they lie when the kept rows are narrowed.
    const int stride = cache.narrowed ? L.V : cache.exact.stride();
    int kept = 0;  // corners whose rows are fetched
    const auto keep_rows = [&](int corners) {
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
    };
    ch.pairs = 0;
    ch.grid = nullptr;
    int kinds = 0;
    // Every voxel with signal everywhere, alike in corners, at consecutive x and grid columns:
    // neighbours pair up in order, as the loop below would pair them.
    ch.dense = avx2 && n >= 2 && paired(n, L.fd3) && ch.uniform > 0 && ch.full == ch.active &&
               L.unitColumns && ch.x[ch.active - 1] - ch.x[0] == ch.active - 1;
    if (ch.dense) {
        keep_rows(ch.uniform);
        kinds = ch.uniform;
        const int column = L.xs[ch.x[0]].lower - lo;
        ch.pairs = (ch.active + 1) / 2;
        for (int p = 0; p < ch.pairs; ++p) {
            ch.first[p] = 2 * p;
            ch.two[p] = 2 * p + 1 < ch.active;
            ch.column[p] = column + 2 * p;
        }
    }
    for (int i = 0; i < (ch.dense ? 0 : ch.active); ++i) {
        ch.pairOf[i] = -1;
        const int corners = ch.corners[i];
        const int* rows = ch.rows(i);
        cf* out = ch.matrix(i);
        if (corners == 0) {
            const Sample& sx = L.xs[ch.x[i]];
            const mrkit::Corners<double> at(sx.lower + row.rowBase, L.F0, L.plane, L.V, sx.fraction,
                                            row.sy->fraction, row.sz->fraction);
            for (int c = 0; c < L.fd3; ++c)
                for (int m = 0; m < n; ++m)
                    if (rows[m] >= 0)
                        out[rows[m] + static_cast<size_t>(c) * n] =
                            narrow(at.apply(L.factors + static_cast<size_t>(c * n + m) * L.V));
            continue;
        }
        keep_rows(corners);
        const int column = L.xs[ch.x[i]].lower - lo;
        if (avx2 && ch.valid[i] == n && paired(n, L.fd3)) {
            // With the next voxel when that is the neighbour in x and in grid columns and alike;
            // otherwise the other half holds the next grid column's factors, unused.
            const bool two = i + 1 < ch.active && ch.corners[i + 1] == corners &&
                             ch.valid[i + 1] == n && ch.x[i + 1] == ch.x[i] + 1 &&
                             L.xs[ch.x[i + 1]].lower - lo == column + 1;
            const int p = ch.pairs++;
            ch.first[p] = i;
            ch.two[p] = two;
            ch.column[p] = column;
            kinds |= corners;
            ch.pairOf[i] = p;
            if (two) ch.pairOf[++i] = p;
            continue;
        }
        const auto one = [&](const auto& runs) {
            if (ch.valid[i] == n) return runs.all(count, out);
            for (int c = 0; c < L.fd3; ++c)
                for (int m = 0; m < n; ++m)
                    if (rows[m] >= 0)
                        out[rows[m] + static_cast<size_t>(c) * n] = runs.at(c * n + m);
        };
        if (corners == 4)
            one(mrkit::sense::CornerRuns<4>{row.kept, column, stride, ch.weights_of(i)});
        else
            one(mrkit::sense::CornerRuns<8>{row.kept, column, stride, ch.weights_of(i)});
    }
#ifdef MRKIT_AVX2
    // On the grid the weights but the lower corner's are 0, and with finite corners they add
    // zeros: the factors are the lower corner's, read where they lie. (Only a -0 factor could come
    // out otherwise, as +0; no output shows the sign of a zero factor, since every coil product is
    // added to a zero at its end.)
    if (ch.pairs > 0 && cache.narrowed && row.finite) {
        ch.grid = row.narrowed[0];
        ch.gridStep = cache.narrow.stride();
        return;
    }
    if (kinds & 4)
        mrkit::sense::pairs_avx2<4>(row.kept, stride, count, ch.pairs, ch.first.data(),
                                    ch.two.data(), ch.corners.data(), ch.column.data(),
                                    ch.sharedWeights ? ch.shared : ch.weight.data(),
                                    ch.sharedWeights ? 0 : 8, ch.P.data(), ch.pair_stride());
    if (kinds & 8)
        mrkit::sense::pairs_avx2<8>(row.kept, stride, count, ch.pairs, ch.first.data(),
                                    ch.two.data(), ch.corners.data(), ch.column.data(),
                                    ch.sharedWeights ? ch.shared : ch.weight.data(),
                                    ch.sharedWeights ? 0 : 8, ch.P.data(), ch.pair_stride());
#endif
}

#ifdef MRKIT_AVX2_PAIRS
// The coil products of every pair of the chunk (n rows, fewer than kBlockedColumns coils), one
// loop for all: the next x's values go with the second voxel, and a voxel alone reads them unused
// (the spare entry when it is the chunk's last).
template <int Coils, int Rows>
__attribute__((target("avx2"))) void pair_products_avx2(Chunk& ch, int n, int coils, int x0) {
    const cf* values = ch.values_at(0);
    const int step = ch.pair_step();
    for (int p = 0; p < ch.pairs; ++p)
        mrkit::small::matrix_vector_interleaved_avx2<Coils, Rows>(
            ch.pair_matrix(p), step, n, coils, values + (ch.x[ch.first[p]] - x0), Chunk::kLength,
            ch.pair_result(p));
}

// The usual sizes unrolled (Coils and Rows > 0 fix them); every pair of a call, wherever its
// matrix lies, takes the same code.
template <int Coils>
void pair_products(Chunk& ch, int n, int coils, int x0) {
    switch (n) {
        case 2:
            return pair_products_avx2<Coils, 2>(ch, n, coils, x0);
        case 3:
            return pair_products_avx2<Coils, 3>(ch, n, coils, x0);
        case 4:
            return pair_products_avx2<Coils, 4>(ch, n, coils, x0);
        default:
            return pair_products_avx2<Coils, 0>(ch, n, coils, x0);
    }
}

void pair_products(Chunk& ch, int n, int coils, int x0) {
    switch (coils) {
        case 8:
            return pair_products<8>(ch, n, coils, x0);
        case 12:
            return pair_products<12>(ch, n, coils, x0);
        case 16:
            return pair_products<16>(ch, n, coils, x0);
        case 32:
            return pair_products<32>(ch, n, coils, x0);
        default:
            return pair_products<0>(ch, n, coils, x0);
    }
}
#endif

// The chunk's voxels of one volume: u = M v per voxel, scattered to its aliased positions.
void unfold_chunk(const Layout& L, const Row& row, int x0, int x1, bool avx2,
                  const mrkit::sense::Volume& vol, Chunk& ch, std::atomic<int>& status) {
    const int n = row.n, ny = row.ny, nz = row.nz;
    // Output offset of each aliased position (y outer, z inner) but for x; when none can reach
    // past the output, a voxel whose positions all carry signal writes them without the checks
    // below.
    int offset[kMaxSlots];
    bool inside = n <= kMaxSlots;
    for (int m = 0; m < n && inside; ++m) {
        offset[m] = row.yList[m / nz] * L.N0 + row.zList[m % nz] * L.outPlane;
        inside = offset[m] + x1 - 1 < L.outTotal;
    }
    // Every voxel with signal is out of range when there are no coils (the folded offset
    // reaches the end at once); otherwise none is.
    const int rowStart = row.y * L.fd0 + row.z * L.slab;
    if (rowStart + x1 - 1 >= L.foldedTotal) {
        if (ch.active > 0) status.store(-1, std::memory_order_relaxed);
        return;
    }

    // The chunk's coil values, coil by coil along the row, so that the coils' rows (a volume
    // apart) are not all read at once.
    for (int c = 0; c < L.fd3; ++c) {
        const float* re = vol.foldedRe + rowStart + c * L.volume;
        const float* im = vol.foldedIm ? vol.foldedIm + rowStart + c * L.volume : nullptr;
#ifdef MRKIT_AVX2
        if (avx2) {
            gather_avx2(re, im, x0, x1, ch.values_at(c));
            continue;
        }
#endif
        gather(re, im, x0, x1, ch.values_at(c));
    }

    // Results u of voxel i to its aliased positions.
    const auto scatter = [&](int i, const cf* u) {
        const int x = ch.x[i];
        if (inside && ch.valid[i] == n) {
            for (int m = 0; m < n; ++m) {
                vol.outRe[offset[m] + x] = u[m].real();
                vol.outIm[offset[m] + x] = u[m].imag();
            }
            return;
        }
        // Aliased positions in factor order (y outer, z inner). One outside the output
        // advances neither counter, so the rest of the voxel pairs with the mask one step
        // behind; that pairing is kept.
        const int* rows = ch.rows(i);
        int k = 0, j = 0;
        for (int iy = 0; iy < ny; ++iy) {
            for (int iz = 0; iz < nz; ++iz) {
                if (rows[k] < 0) {
                    ++k;
                    continue;
                }
                const int o = row.yList[iy] * L.N0 + x + row.zList[iz] * L.outPlane;
                if (o >= L.outTotal) {
                    status.store(-1, std::memory_order_relaxed);
                    continue;
                }
                vol.outRe[o] = u[j].real();
                vol.outIm[o] = u[j].imag();
                ++j;
                ++k;
            }
        }
    };
    const cf* values = ch.values_at(0);
    // The two voxels of a pair: results interleaved, written two neighbours at a time.
    const auto scatter_pair = [&](int p) {
        const int i = ch.first[p], x = ch.x[i];
        const bool two = ch.two[p];
        const cf* U = ch.pair_result(p);
        if (!inside) {
            for (int m = 0; m < n; ++m) {
                ch.u[m] = U[2 * m];
                ch.u2[m] = U[2 * m + 1];
            }
            scatter(i, ch.u.data());
            if (two) scatter(i + 1, ch.u2.data());
            return;
        }
        for (int m = 0; m < n; ++m) {
            float* re = vol.outRe + offset[m] + x;
            float* im = vol.outIm + offset[m] + x;
            if (!two) {
                *re = U[2 * m].real();
                *im = U[2 * m].imag();
                continue;
            }
#if defined(__SSE2__)
            const __m128 q = _mm_loadu_ps(reinterpret_cast<const float*>(U + 2 * m));
            _mm_storel_pi(reinterpret_cast<__m64*>(re),
                          _mm_shuffle_ps(q, q, _MM_SHUFFLE(2, 0, 2, 0)));
            _mm_storel_pi(reinterpret_cast<__m64*>(im),
                          _mm_shuffle_ps(q, q, _MM_SHUFFLE(3, 1, 3, 1)));
#else
            re[0] = U[2 * m].real();
            re[1] = U[2 * m + 1].real();
            im[0] = U[2 * m].imag();
            im[1] = U[2 * m + 1].imag();
#endif
        }
    };
    bool products = false;  // of the pairs, done
#ifdef MRKIT_AVX2_PAIRS
    if (ch.pairs > 0 && n >= 2) {  // the pairs take fewer than kBlockedColumns coils
        pair_products(ch, n, L.fd3, x0);
        products = true;
    }
#endif
    if (products && ch.dense) {
        int p = 0;
#if defined(__SSE2__)
        // Two pairs of two at a time, along x position by position.
        if (inside) {
            const int quads = ch.active / 4 * 2;
            const size_t step = 4 * static_cast<size_t>(ch.slots);  // floats from pair to pair
            for (int m = 0; m < n; ++m) {
                const float* u = reinterpret_cast<const float*>(ch.pair_result(0) + 2 * m);
                float* re = vol.outRe + offset[m] + ch.x[0];
                float* im = vol.outIm + offset[m] + ch.x[0];
                for (int q = 0; q < quads; q += 2, u += 2 * step, re += 4, im += 4) {
                    const __m128 a = _mm_loadu_ps(u), b = _mm_loadu_ps(u + step);
                    _mm_storeu_ps(re, _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0)));
                    _mm_storeu_ps(im, _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1)));
                }
            }
            p = quads;
        }
#endif
        for (; p < ch.pairs; ++p) scatter_pair(p);
        return;
    }
    for (int i = 0; i < ch.active; ++i) {
        const int x = ch.x[i];
        if (const int p = ch.pairOf[i]; p >= 0) {
            if (products) {
                scatter_pair(p);
                if (ch.two[p]) ++i;
                continue;
            }
            // One position (n = 1): each voxel's row into its own M.
            const cf* P = ch.pair_matrix(p);
            const size_t step = ch.pair_step();
            for (int k = 0; k < (ch.two[p] ? 2 : 1); ++k) {
                cf* M = ch.matrix(i + k);
                for (int c = 0; c < L.fd3; ++c) M[c] = P[c * step + k];
                mrkit::small::matrix_vector(M, n, n, L.fd3, values + (x + k - x0), Chunk::kLength,
                                            ch.u.data());
                scatter(i + k, ch.u.data());
            }
            if (ch.two[p]) ++i;
            continue;
        }
#ifdef MRKIT_AVX2_PAIRS
        // Two voxels at once, all n rows each (Eigen's product takes the unused rows too, which
        // decides the bits of the used ones); a voxel without a neighbour goes through the same
        // kernel paired with itself, so that which voxels pair up (it depends on the threads'
        // blocks) cannot change the bits, not even of a NaN.
        if (avx2 && L.fd3 < mrkit::small::kBlockedColumns && n >= 2) {
            const bool pair = i + 1 < ch.active && ch.pairOf[i + 1] < 0;
            const int k = pair ? i + 1 : i;
            mrkit::small::matrix_vector_two_avx2(ch.matrix(i), n, ch.matrix(k), n, n, L.fd3,
                                                 values + (x - x0), values + (ch.x[k] - x0),
                                                 Chunk::kLength, ch.u.data(), ch.u2.data());
            scatter(i, ch.u.data());
            if (pair) scatter(++i, ch.u2.data());
            continue;
        }
#endif
        mrkit::small::matrix_vector(ch.matrix(i), n, n, L.fd3, values + (x - x0), Chunk::kLength,
                                    ch.u.data());
        scatter(i, ch.u.data());
    }
}

}  // namespace

namespace mrkit::sense {

int unfold_volumes(const std::vector<Volume>& volumes, const Eigen::VectorXi& foldedDims,
                   const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
                   const Eigen::VectorXi& fullDims, const float* yCompartments,
                   const float* zCompartments) {
    if (volumes.empty()) return 1;
    const Layout L(foldedDims, factors, factorDims, fullDims, yCompartments, zCompartments);
    std::atomic<int> status{1};
    mrkit::parallel_blocks(L.fd0, [&](int begin, int end) {
        if (begin >= end) return;
        Chunk ch(L.slots, L.fd3);
        const bool avx2 = mrkit::has_avx2();
        // Grid columns of a strip's corners: the lower one of each x and the next. Rows y and
        // y + 1 (and the same one plane on) are kept across the strip, so that the next row of
        // folded voxels finds half of its corners there. Strips of at most kStripWidth columns
        // bound that scratch whatever the image's width.
        const int lo0 = L.xs[begin].lower;
        KeptRows cache(L, avx2, std::min(L.xs[end - 1].lower + 2 - lo0, kStripWidth));
        // Folded rows longer than the output's reach into its next row, so that two voxels may
        // write one sample; the one later in x order must win, as with x outermost. Then every
        // strip is one x wide.
        const bool overlaps = L.fd0 > L.N0;
        for (int s0 = begin, s1; s0 < end; s0 = s1) {
            const int lo = L.xs[s0].lower;
            for (s1 = s0 + 1; s1 < end && !overlaps && L.xs[s1].lower + 2 - lo <= kStripWidth;)
                ++s1;
            cache.columns(lo, L.xs[s1 - 1].lower + 2 - lo);
            // Row by row, each row in chunks: the folded volumes are read along their rows.
            for (int y = 0; y < L.fd1; ++y)
                for (int z = 0; z < L.fd2; ++z) {
                    Row row(L, y, z);
                    for (int x0 = s0; x0 < s1; x0 += Chunk::kLength) {
                        const int x1 = std::min(s1, x0 + Chunk::kLength);
                        find_signal(L, row, x0, x1, avx2, ch);
                        if (ch.active == 0) continue;
                        interpolate(L, row, lo, avx2, cache, ch);
                        for (const Volume& vol : volumes)
                            unfold_chunk(L, row, x0, x1, avx2, vol, ch, status);
                    }
                }
        }
    });
    return status.load();
}

}  // namespace mrkit::sense

int unfold(const float* foldedRe, const float* foldedIm, const Eigen::VectorXi& foldedDims,
           const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
           const Eigen::VectorXi& /*sensDims*/, Eigen::VectorXi fullDims,
           const float* yCompartments, const float* zCompartments, float* outRe, float* outIm) {
    return mrkit::sense::unfold_volumes({{foldedRe, foldedIm, outRe, outIm}}, foldedDims, factors,
                                        factorDims, fullDims, yCompartments, zCompartments);
}
