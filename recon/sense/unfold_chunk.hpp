// What the unfolding's steps share. The data model, once:
//
// - Folded volume (x, y, z, coil), sizes fd0..fd3; output volume (x, y, z), sizes N0..N2. Only y
//   and z are folded: folded voxel (x, y, z) holds the aliased output positions (x, yList[iy],
//   zList[iz]), n = ny * nz of them, numbered m = iy * nz + iz (Aliases, per axis).
// - Factors: F3 blocks of one factor grid F0 x F1 x F2 (V entries) each. A voxel with n aliased
//   positions reads block c * n + m for coil c and position m; coil 0's factor at the nearest grid
//   voxel says whether position m carries signal (not 0 + 0i). A folded index samples the grid at
//   a coordinate (Sample, per axis), whose lower corner and fractions weigh the corners of
//   corners.hpp, within each block.
// - Layout: all of the above that depends only on the sizes, worked out once per call; it also
//   holds the processor's kernels, chosen once.
// - Row: the folded voxels (x, y, z) for fixed (y, z); they share n, the aliased y and z, and
//   the grid rows their corners lie in. A thread walks its x range in strips of grid columns,
//   row by row, each row in chunks of up to Chunk::kLength voxels.
// - Chunk: a thread's scratch for one chunk: the voxels with signal (in x order), each voxel's
//   n x coils factor matrix M (rows with signal first) and the chunk's coil values. With the
//   pairing kernels, neighbouring voxels whose positions all carry signal go in pairs, their two
//   matrices interleaved entry by entry (or read in place from narrowed kept rows).
// - KeptRows: the grid rows (y and y + 1, and one plane on) a row's corners lie in, each block's
//   run over the strip's columns copied out once, so that the next row of voxels finds half of
//   its corners there (factor_rows.hpp).
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <type_traits>
#include <vector>

#include "recon/lanes.hpp"
#include "recon/recon.hpp"
#include "recon/sense/factor_rows.hpp"
#include "recon/sense/unfold_products.hpp"

namespace mrkit::sense::unfolding {

// Where one folded index samples the factor grid: the nearest grid index of its coordinate (never
// below 0) for the signal mask, and its lower grid index and fraction for interpolation.
struct Sample {
    int nearest, lower;
    double fraction;
};

// Folded index i -> factor-grid coordinate, first to first and last to last; along y and z the
// coordinate is snapped to the factor grid's compartments, so the interpolation never blends
// factors of differently aliased voxels.
inline std::vector<Sample> samples(int folded, int grid, int fullSize, const float* gridBounds) {
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
        out[i] = {MR_round(c), lower, c - static_cast<float>(lower)};
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

// Aliased positions per folded voxel up to which the output offsets are kept per row.
constexpr int kMaxSlots = 64;

// Whether voxels whose positions all carry signal may go in pairs: the two-voxel products take
// fewer than kBlockedColumns coils; a single position reads its half of the interleaved matrix
// through a stride.
inline bool paired(int n, int coils) {
    return n == 1 || (kEigenOrders && coils < kBlockedColumns);
}

// Calls f with the number of aliased positions n as a compile-time constant from 2 to 4, so that
// loops over them unroll (0: any other n).
template <class F>
void with_positions(int n, F&& f) {
    switch (n) {
        case 2:
            return f(std::integral_constant<int, 2>());
        case 3:
            return f(std::integral_constant<int, 3>());
        case 4:
            return f(std::integral_constant<int, 4>());
        default:
            return f(std::integral_constant<int, 0>());
    }
}

// Factor-grid columns of the widest strip a thread works through at a time.
constexpr int kStripWidth = 264;

struct Chunk;

// The kernels that depend on the processor, chosen once per call. With AVX2, voxels whose
// positions all carry signal go in pairs of neighbours, two to a 256-bit register, and on the
// factor grid read their factors from narrowed kept rows; the baseline takes one voxel at a time.
struct Kernels {
    bool pairs;
    // Coil values re[x] + i im[x] (im may be null) for x = x0 .. x1 - 1 into out[x - x0].
    void (*gather)(const float* re, const float* im, int x0, int x1, cf* out);
    // Whether each of `count` factors from f, and from f + k V for every k < n, is not 0 + 0i.
    void (*all_signal)(const cd* f, int V, int n, int count, bool* result);
    // The coil products of every pair of a chunk's voxels (n rows).
    void (*pair_products)(Chunk* ch, int n, int coils, int x0);
    // The coil products of two voxels whose matrices lie apart (n >= 2 rows).
    void (*two_voxels)(products::TwoVoxels s, Index rows, Index cols);
    // Kept rows narrowed to single precision, and the paired voxels' factors from kept rows with
    // four and eight corners.
    mrkit::sense::CopyNarrowed copy_narrowed;
    mrkit::sense::CornerPairs corner_pairs4, corner_pairs8;
    // The kernels for this processor (and MRKIT_NO_AVX2).
    static const Kernels& chosen();
};

// What every thread reads: sizes, sampling of the factor grid and aliased positions.
struct Layout {
    int fd0, fd1, fd2, fd3, N0, N1, N2, F0, F1, F2;
    // Elements of one folded (x, y) plane, of one coil's volume, of all; of one factor-grid plane,
    // of one block (V); of one output plane, of the output.
    int foldedPlane, foldedVolume, foldedTotal, gridPlane, V, outPlane, outTotal;
    std::vector<Sample> xs, ys, zs;
    bool oneFraction;  // every x samples the grid at the same fraction (as when F0 = fd0)
    bool allOnGrid;    // that fraction is 0, and every y and z samples the grid at its lower corner
    bool unitColumns;  // each x's lower grid column is the one after the previous x's
    bool unitNearest;  // each x's nearest grid column is the one after the previous x's
    Aliases yAlias, zAlias;
    int slots, blocks;
    const cd* factors;
    const Kernels& kernels = Kernels::chosen();

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
          foldedPlane(fd0 * fd1),
          foldedVolume(foldedPlane * fd2),
          foldedTotal(foldedDims.prod()),
          gridPlane(F0 * F1),
          V(gridPlane * F2),
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
          allOnGrid(
              oneFraction && xs[0].fraction == 0.0 &&
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
    bool finite = true;  // every entry of those rows, when they are narrowed

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
          rowBase(sy->lower * L.F0 + sz->lower * L.gridPlane),
          gridRow(sy->lower + sz->lower * L.F1) {}
};

// One thread's scratch for a run of folded voxels along x (a chunk of one row): which aliased
// positions carry signal, how each voxel's factors are read, its factor matrix M, and the coil
// values. With the pairing kernels, voxels with every position carrying signal and the usual
// corners (from kept rows) go in pairs of neighbours (or alone); their two matrices interleaved.
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
    const int* rows(int i) const { return rowOf.data() + static_cast<size_t>(i) * slots; }
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

// A thread's kept factor rows: narrowed where every voxel samples the grid at its lower corner
// (the factors of every pair read from there), otherwise as they are.
struct KeptRows {
    bool narrowed;
    mrkit::sense::FactorRows<cd> exact;
    mrkit::sense::FactorRows<cf> narrow;
    // Rows y and y + 1, and in 3-D the same one plane on.
    static int rows(const Layout& L) { return L.F2 > 1 ? 4 : 2; }
    KeptRows(const Layout& L, int capacity)
        : narrowed(L.allOnGrid && L.kernels.pairs),
          exact(L.factors, L.F0, L.V, capacity, L.blocks, narrowed ? 0 : rows(L)),
          narrow(L.factors, L.F0, L.V, capacity, L.blocks, narrowed ? rows(L) : 0,
                 L.kernels.copy_narrowed) {}
    void columns(int lo, int width) {
        exact.columns(lo, width);
        narrow.columns(lo, width);
    }
};

// Lists the chunk x0 .. x1 - 1 of a row's voxels with signal and how their corners are read.
void find_signal(const Layout& L, const Row& row, int x0, int x1, Chunk& ch);

// The factor matrix of every voxel of the chunk listed, or where the pair kernel reads it.
void interpolate(const Layout& L, Row& row, int lo, KeptRows& cache, Chunk& ch);

}  // namespace mrkit::sense::unfolding
