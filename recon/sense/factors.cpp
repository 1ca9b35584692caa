// Regularised SENSE combination factors on the factor grid: the sensitivity maps' own x grid and
// their y and z lines folded by the reduction factors. Each folded voxel solves
//   U = (S^H Psi^-1 S + D)^-1 S^H Psi^-1
// for its valid aliased positions and stores U packed by the voxel's own slot count.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include "recon/lanes.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "recon/sense/products.hpp"
#include "recon/sense/validity.hpp"
#include "recon/toolkit/corners.hpp"

namespace {

// Inverse from a partial-pivoting LU: the row permutation applied to the identity, then the
// unit-lower and the upper triangular solves in place. These steps fix the last bits.
void lu_inverse(const Eigen::PartialPivLU<Eigen::MatrixXcd>& lu, Eigen::MatrixXcd& inv) {
    const Eigen::Index n = lu.matrixLU().rows();
    inv.noalias() = lu.permutationP() * Eigen::MatrixXcd::Identity(n, n);
    lu.matrixLU().triangularView<Eigen::UnitLower>().solveInPlace(inv);
    lu.matrixLU().triangularView<Eigen::Upper>().solveInPlace(inv);
}

// Aliased positions of one folded line along y or z, on the full grid and on the map grid.
struct Line {
    struct Position {
        int index;     // in one coil's map
        float cy, cz;  // map coordinates
    };
    Eigen::VectorXi full;   // from MR_get_unfolded_positions
    Eigen::VectorXf coord;  // map coordinate of each, for interpolation
    std::vector<int> line;  // nearest map line of each
    int count = 0;
    explicit Line(int capacity)
        : full(capacity), coord(Eigen::VectorXf::Zero(capacity)), line(capacity) {}

    // Folded grid line `index` -> nearest folded image line -> its aliased full positions.
    void fill(int index, const Eigen::VectorXf& lines, const Eigen::VectorXf& toMap, int fullSize,
              int foldedSize) {
        const int p = MR_round(lines[index]);
        count = MR_get_unfolded_positions(fullSize, foldedSize, p, full);
        for (int i = 0; i < count; ++i) {
            coord[i] = toMap[full[i]];
            line[i] = MR_round(coord[i]);
        }
    }
};

// Records folded line index - 1 as a compartment bound where the aliased positions jump, for
// at most two bounds; `bounds` keeps the caller's values elsewhere.
void record_edges(const std::vector<Line>& lines, int foldedGridSize, float* bounds) {
    int recorded = 0;
    for (size_t i = 1; i < lines.size() && recorded < 2; ++i)
        if (find_edges(lines[i].coord, lines[i - 1].coord, lines[i].count, lines[i - 1].count,
                       foldedGridSize) == 1)
            bounds[recorded++] = static_cast<float>(i - 1);
}

// The aliased positions of every line of the factor grid along one axis.
std::vector<Line> grid_lines(int gridSize, int capacity, float foldedLast, int fullSize,
                             int foldedSize, float mapLast) {
    const Eigen::VectorXf toFolded = Eigen::VectorXf::LinSpaced(gridSize, 0.f, foldedLast);
    const Eigen::VectorXf toMap = Eigen::VectorXf::LinSpaced(fullSize, 0.f, mapLast);
    std::vector<Line> lines(gridSize, Line(capacity));
    for (int i = 0; i < gridSize; ++i) lines[i].fill(i, toFolded, toMap, fullSize, foldedSize);
    return lines;
}

int ceil_div(int a, int b) {
    return (a + b - 1) / b;
}

// to[x] = (sum over the corners of re[x + offset[k]] * w[k], the same of im), in corner order,
// for x0 .. x1 - 1; eight x at a time, then one at a time.
template <int Corners>
MRKIT_INLINE void interpolate_run(const float* re, const float* im, const int* offset,
                                  const float* w, int x0, int x1, std::complex<float>* to) {
    using mrkit::lanes::Float8;
    namespace ln = mrkit::lanes;
    Float8 weight[Corners];
    for (int k = 0; k < Corners; ++k) weight[k] = ln::splat<Float8>(w[k]);
    int x = x0;
    for (; x + 8 <= x1; x += 8) {
        Float8 r = ln::load<Float8>(re + x + offset[0]) * weight[0];
        Float8 i = ln::load<Float8>(im + x + offset[0]) * weight[0];
        for (int k = 1; k < Corners; ++k) {
            r = r + ln::load<Float8>(re + x + offset[k]) * weight[k];
            i = i + ln::load<Float8>(im + x + offset[k]) * weight[k];
        }
        ln::store(to + x, __builtin_shufflevector(r, i, 0, 8, 1, 9, 2, 10, 3, 11));
        ln::store(to + x + 4, __builtin_shufflevector(r, i, 4, 12, 5, 13, 6, 14, 7, 15));
    }
    for (; x < x1; ++x) {
        float r = re[x + offset[0]] * w[0], i = im[x + offset[0]] * w[0];
        for (int k = 1; k < Corners; ++k) {
            r += re[x + offset[k]] * w[k];
            i += im[x + offset[k]] * w[k];
        }
        to[x] = {r, i};
    }
}
MRKIT_INLINE void interpolate_run4(const float* re, const float* im, const int* offset,
                                   const float* w, int x0, int x1, std::complex<float>* to) {
    interpolate_run<4>(re, im, offset, w, x0, x1, to);
}
MRKIT_INLINE void interpolate_run8(const float* re, const float* im, const int* offset,
                                   const float* w, int x0, int x1, std::complex<float>* to) {
    interpolate_run<8>(re, im, offset, w, x0, x1, to);
}
MRKIT_PER_TARGET(interpolate_run4, interpolate_run4)
MRKIT_PER_TARGET(interpolate_run8, interpolate_run8)

// The runs of one and of two planes of corners for this processor, chosen once per call.
struct RunKernels {
    using Run = void (*)(const float*, const float*, const int*, const float*, int, int,
                         std::complex<float>*);
    Run four, eight;
    static RunKernels pick() {
        using A = std::complex<float>*;
        namespace ln = mrkit::lanes;
        return {ln::pick(&interpolate_run4_baseline<const float*, const float*, const int*,
                                                    const float*, int, int, A>,
                         &interpolate_run4_avx2<const float*, const float*, const int*,
                                                const float*, int, int, A>),
                ln::pick(&interpolate_run8_baseline<const float*, const float*, const int*,
                                                    const float*, int, int, A>,
                         &interpolate_run8_avx2<const float*, const float*, const int*,
                                                const float*, int, int, A>)};
    }
};

// What every worker reads, and the two outputs they share.
struct Problem {
    const float *sensRe, *sensIm;
    int nx, ny, nVox, nTot, nYf, nZf, coils;
    double lambda;
    const Eigen::VectorXf& regImage;
    const Eigen::MatrixXcd& psiInv;
    bool psiIdentity;
    const double* psiPacked;  // psiInv for the blocked products
    RunKernels runs;
    mrkit::small::ChainKernels kernels;
    Eigen::VectorXcd& factors;
    std::atomic<int>& status;
};

using mrkit::sense::Validity;

// Largest count of valid positions whose inverse mrkit::small computes.
constexpr int kSmallSolve = mrkit::small::kEigenOrders ? mrkit::small::kSmallSolve : 0;

// One worker's scratch, reused for every voxel it solves, with the validity rule fixed.
template <Validity Rule>
class Worker {
  public:
    Worker(const Problem& p, int slots, int tile)
        : p_(p),
          slots_(slots),
          tile_(tile),
          prior_(slots),
          S_(p.coils, slots),
          D_(Eigen::MatrixXcd::Zero(slots, slots)),
          solves_(slots + 1),
          U_(static_cast<size_t>(slots) * p.coils),
          maps_(static_cast<size_t>(slots) * p.coils * tile) {}

    // Factors of the folded voxels x0 .. x1 - 1 (at most one tile) of one line, voxel x into
    // out + (x - x0) as solve() writes them, blocks `step` apart; `valid` holds the tile's flags,
    // slots per column. All voxels of a line share their aliased positions, so each position's maps
    // are interpolated for the whole run of x at once.
    void solve_line(int x0, int x1, const Line& ys, const Line& zs, int* valid,
                    std::complex<double>* out, size_t step) {
        const int nx = p_.nx, ny = p_.ny, n = ys.count * zs.count;
        // A position past the maps takes no slot (sizes the caller got wrong): voxel by voxel.
        for (int iy = 0; iy < ys.count; ++iy)
            for (int iz = 0; iz < zs.count; ++iz)
                if (x1 - 1 + nx * (ys.line[iy] + ny * zs.line[iz]) >= p_.nTot) {
                    for (int x = x0; x < x1; ++x)
                        solve(x, ys, zs, valid + (x - x0) * slots_, out + (x - x0), step);
                    return;
                }
        // Only coil 0's real map decides, and only where an imaginary map exists.
        if (Rule == Validity::Column && p_.sensIm)
            for (int x = x0; x < x1; ++x)
                for (int j = 0; j < n; ++j) {
                    const Line::Position q = position(x, ys, zs, j);
                    if (p_.sensRe[q.index] != 0.0f) valid[(x - x0) * slots_ + j] = 1;
                }
        if (Rule == Validity::Voxel)
            for (int x = x0; x < x1; ++x)
                for (int j = 0; j < n; ++j)
                    valid[(x - x0) * slots_ + j] = seen(position(x, ys, zs, j).index);
        for (int j = 0; j < n; ++j) {
            bool used = false;
            for (int x = x0; x < x1; ++x) used = used || valid[(x - x0) * slots_ + j];
            if (used) interpolate_position(x0, x1, ys, zs, j);
        }
        for (int x = x0; x < x1; ++x) {
            const int* flags = valid + (x - x0) * slots_;
            int K = 0;
            for (int j = 0; j < n; ++j) {
                if (!flags[j]) continue;
                if (p_.lambda != 0.0) {
                    const int i = position(x, ys, zs, j).index;
                    prior_[K] = i < p_.regImage.size() ? static_cast<double>(p_.regImage[i]) : 0.0;
                }
                const std::complex<float>* from = map(j, 0) + (x - x0);
                std::complex<double>* to = &S_(0, K);
                for (int c = 0; c < p_.coils; ++c, from += tile_)
                    to[c] = std::complex<double>(*from);
                ++K;
            }
            store(K, n, flags, out + (x - x0), step);
        }
    }

    // Factors of folded voxel x of a line with the aliased lines ys and zs, block s + c n at
    // out[(s + c n) step] (n = ys.count * zs.count); `valid` holds the flags of column x, which
    // stay set once set.
    void solve(int x, const Line& ys, const Line& zs, int* valid, std::complex<double>* out,
               size_t step) {
        store(collect(x, ys, zs, valid), ys.count * zs.count, valid, out, step);
    }

  private:
    // Whether some coil's map is non-zero (or not a number) at map index i, as far as the maps
    // reach.
    bool seen(int i) const {
        for (int c = 0; c < p_.coils; ++c) {
            const long at = i + static_cast<long>(c) * p_.nVox;
            if (at >= p_.nTot) break;
            if (p_.sensRe[at] != 0.0f || p_.sensIm[at] != 0.0f) return true;
        }
        return false;
    }

    // Solves for the first K columns of S and stores U packed by the voxel's own slot count n.
    // Flags left set by earlier voxels past the slots visited here have no row and store 0.
    void store(int K, int n, const int* valid, std::complex<double>* out, size_t step) {
        const std::complex<double>* U = K > 0 ? weights(K) : nullptr;
        for (int c = 0; c < p_.coils; ++c) {
            int row = 0;
            for (int s = 0; s < n; ++s) {
                std::complex<double> value = 0.0;
                if (K > 0 && valid[s]) {
                    if (row < K) value = U[row + c * K];
                    ++row;
                }
                out[(s + static_cast<size_t>(c) * n) * step] = value;
            }
        }
    }

    // Aliased position j (y outer, z inner) of voxel x: map index and map coordinates.
    Line::Position position(int x, const Line& ys, const Line& zs, int j) const {
        const int iy = j / zs.count, iz = j % zs.count;
        return {x + p_.nx * (ys.line[iy] + p_.ny * zs.line[iz]), ys.coord[iy], zs.coord[iz]};
    }

    // Coil c's interpolated map at position j along the tile's x, both parts side by side.
    std::complex<float>* map(int j, int c) {
        return maps_.data() + (static_cast<size_t>(j) * p_.coils + c) * tile_;
    }

    // Every coil's maps at (x, cy, cz) of position j for x = x0 .. x1 - 1, into map(j, c).
    // The weights do not depend on x (an integer); where all x read the same corners of one
    // or two planes, runs of x go at once with the same float products and sums per lane.
    void interpolate_position(int x0, int x1, const Line& ys, const Line& zs, int j) {
        const int nx = p_.nx, plane = p_.nx * p_.ny, N = p_.nVox;
        const Line::Position q = position(0, ys, zs, j);
        const int ty = static_cast<int>(q.cy), tz = static_cast<int>(q.cz);
        const int b0 = nx * ty + plane * tz;  // corner 0 of x = 0
        const float t2 = q.cy - static_cast<float>(ty), t3 = q.cz - static_cast<float>(tz);
        // The count of readable corners never rises along the run: its ends decide for all.
        const int first = mrkit::readable_corners(b0 + x0, nx, plane, N);
        const int last = mrkit::readable_corners(b0 + x1 - 1, nx, plane, N);
        const int corners = x1 > (1 << 24)            ? 0  // x not exact as float
                            : last == 8               ? 8
                            : first == 4 && last == 4 ? 4
                                                      : 0;
        if (corners == 0) {
            for (int x = x0; x < x1; ++x) {
                const float fx = static_cast<float>(x);
                const int tx = static_cast<int>(fx);
                const mrkit::Corners<float> at(b0 + tx, nx, plane, N, fx - static_cast<float>(tx),
                                               t2, t3);
                for (int c = 0; c < p_.coils; ++c) {
                    const float *re = p_.sensRe + c * N, *im = p_.sensIm + c * N;
                    map(j, c)[x - x0] = {at.apply<float>([re](int i) { return re[i]; }),
                                         at.apply<float>([im](int i) { return im[i]; })};
                }
            }
            return;
        }
        // The x fraction is 0.
        const float wx[2] = {1.0f - 0.0f, 0.0f}, wy[2] = {1.0f - t2, t2}, wz[2] = {1.0f - t3, t3};
        float w[8];
        int offset[8];
        for (int k = 0; k < corners; ++k) {
            w[k] = mrkit::corner_weight(k, wx, wy, wz);
            offset[k] = mrkit::corner_offset(k, nx, plane);
        }
        for (int c = 0; c < p_.coils; ++c) {
            const float *re = p_.sensRe + c * N + b0, *im = p_.sensIm + c * N + b0;
            (corners == 4 ? p_.runs.four : p_.runs.eight)(re, im, offset, w, x0, x1,
                                                          map(j, c) - x0);
        }
    }

    // Products and inverse for one count K of valid positions, kept per K so that voxels
    // alternating between counts (non-integer factors) never reallocate. The chain runs in
    // mrkit::small's kernels where they cover its shapes, and through Eigen's expressions
    // otherwise; the inverse in mrkit::small up to its size, through PartialPivLU above.
    struct Solve {
        bool kernels = false;
        std::vector<std::complex<double>> scratch;
        std::vector<double> packedS;
        Eigen::MatrixXcd T, A, inv, W;
        Eigen::PartialPivLU<Eigen::MatrixXcd> lu;
        Solve(int K, int coils) : inv(K, K) {
            kernels = mrkit::small::kEigenOrders && mrkit::small::chain_covered(K, coils);
            if (kernels) {
                scratch.resize(static_cast<size_t>(2 * K * coils + 2 * K * K));
                packedS.resize(static_cast<size_t>(4) * K * coils);
            } else {
                T.resize(K, coils);
                W.resize(K, coils);
            }
            A.resize(K, K);
            if (K > kSmallSolve) lu = Eigen::PartialPivLU<Eigen::MatrixXcd>(K);
        }
    };

    // Fills S and the priors with the valid slots (y outer, z inner) and returns their count.
    // A position outside the maps takes no slot.
    int collect(int x, const Line& ys, const Line& zs, int* valid) {
        const float fx = static_cast<float>(x);
        const int nx = p_.nx, ny = p_.ny;
        int j = 0, K = 0;
        if (Rule == Validity::Voxel) std::fill(valid, valid + ys.count * zs.count, 0);
        for (int iy = 0; iy < ys.count; ++iy) {
            for (int iz = 0; iz < zs.count; ++iz) {
                const int i = x + nx * (ys.line[iy] + ny * zs.line[iz]);
                if (i >= p_.nTot) {
                    p_.status.store(-1, std::memory_order_relaxed);
                    continue;
                }
                // Only coil 0's real map decides, and only where an imaginary map exists.
                if (Rule == Validity::Column && p_.sensIm && p_.sensRe[i] != 0.0f) valid[j] = 1;
                if (Rule == Validity::Voxel) valid[j] = seen(i);
                if (valid[j] == 0) {
                    ++j;
                    continue;
                }
                if (p_.lambda != 0.0)
                    prior_[K] = i < p_.regImage.size() ? static_cast<double>(p_.regImage[i]) : 0.0;
                // Every coil's map is read at (fx, cy, cz).
                const float cy = ys.coord[iy], cz = zs.coord[iz];
                const int tx = static_cast<int>(fx), ty = static_cast<int>(cy),
                          tz = static_cast<int>(cz);
                const mrkit::Corners<float> at(
                    nx * ty + tx + nx * ny * tz, nx, nx * ny, p_.nVox, fx - static_cast<float>(tx),
                    cy - static_cast<float>(ty), cz - static_cast<float>(tz));
                for (int c = 0; c < p_.coils; ++c) {
                    const float* re = p_.sensRe + c * p_.nVox;
                    const float* im = p_.sensIm ? p_.sensIm + c * p_.nVox : nullptr;
                    S_(c, K) = std::complex<double>(
                        at.apply<float>([re](int q) { return re[q]; }),
                        im ? at.apply<float>([im](int q) { return im[q]; }) : 0.0f);
                }
                ++K;
                ++j;
            }
        }
        return K;
    }

    // U = ((S^H Psi^-1 S + D)^-1 S^H) Psi^-1 for the first K columns of S, K x coils; returns
    // where it is.
    const std::complex<double>* weights(int K) {
        // D's off-diagonal stays zero, and its diagonal is rewritten whenever lambda is used.
        if (p_.lambda != 0.0)
            for (int k = 0; k < K; ++k)
                D_(k, k) = prior_[k] == 0.0 ? 0.0 : 1.0 / (std::pow(prior_[k], 2.0) * p_.lambda);
        if (!solves_[K]) solves_[K] = std::make_unique<Solve>(K, p_.coils);
        Solve& m = *solves_[K];
        std::complex<double>* to = U_.data();
        const auto Sk = S_.leftCols(K);
        if (m.kernels) {
            namespace sp = mrkit::small;
            const Eigen::Index coils = p_.coils;
            std::complex<double>* T = m.scratch.data();
            const sp::Chain chain{
                S_.data(),      S_.rows(),        coils,     K, p_.psiInv.data(), p_.psiPacked,
                p_.psiIdentity, D_.data(),        D_.rows(), T, m.A.data(),       m.inv.data(),
                T + K * coils,  m.packedS.data(), to,        K};
            p_.kernels.front(chain);
            invert(m, K);
            p_.kernels.back(chain);
            return to;
        }
        m.T.noalias() = Sk.adjoint() * p_.psiInv;
        m.A.noalias() = m.T * Sk;
        m.A += D_.topLeftCorner(K, K);
        invert(m, K);
        m.W.noalias() = m.inv * Sk.adjoint();
        Eigen::Map<Eigen::MatrixXcd>(to, K, p_.coils).noalias() = m.W * p_.psiInv;
        return to;
    }

    // m.inv = m.A^-1.
    void invert(Solve& m, int K) {
        if (K <= kSmallSolve) {
            mrkit::small::lu_inverse(m.A.data(), K, K, m.scratch.data() + 2 * K * p_.coils,
                                     m.inv.data());
            return;
        }
        m.lu.compute(m.A);
        lu_inverse(m.lu, m.inv);
    }

    const Problem& p_;
    const int slots_, tile_;
    std::vector<double> prior_;
    Eigen::MatrixXcd S_, D_;
    std::vector<std::unique_ptr<Solve>> solves_;
    std::vector<std::complex<double>> U_;    // K x coils when not written straight out
    std::vector<std::complex<float>> maps_;  // per slot and coil: the maps along the tile's x
};

}  // namespace

int find_edges(Eigen::VectorXf current, Eigen::VectorXf previous, int count, int prevCount,
               int foldedSize) {
    if (count != prevCount) return 1;
    if (count < 1) return 0;
    const float limit = static_cast<float>(foldedSize / 2);
    for (int i = 0; i < count; ++i)
        if (std::fabs(current[i] - previous[i]) > limit) return 1;
    return 0;
}

namespace mrkit::sense {

// Factors of columns begin .. end - 1, a tile of columns at a time with x innermost, so that maps
// are read and factors written along rows; each column of the tile keeps its own validity flags.
template <Validity Rule>
void solve_columns(const Problem& problem, int slots, const std::vector<Line>& yLines,
                   const std::vector<Line>& zLines, int begin, int end) {
    if (begin >= end) return;
    const int nx = problem.nx, nYf = problem.nYf, nZf = problem.nZf, coils = problem.coils;
    constexpr int kTile = 32;
    Worker<Rule> worker(problem, slots, kTile);
    std::vector<int> validFlags(static_cast<size_t>(kTile) * slots);
    // The tile's factors of one (yf, zf) line, block by block with x innermost, then written
    // out a block at a time: the blocks lie a whole factor grid apart (often a multiple of
    // 4 KiB), too many to write to at once.
    std::vector<std::complex<double>> line(static_cast<size_t>(kTile) * slots * coils);
    const size_t V = static_cast<size_t>(nx) * nYf * nZf;
    // A host's stop request ends the call between tiles (the factors are then incomplete).
    for (int x0 = begin; x0 < end && !mrkit::interrupted(); x0 += kTile) {
        const int x1 = std::min(end, x0 + kTile);
        std::fill(validFlags.begin(), validFlags.end(), 0);
        for (int yf = 0; yf < nYf; ++yf)
            for (int zf = 0; zf < nZf; ++zf) {
                worker.solve_line(x0, x1, yLines[yf], zLines[zf], validFlags.data(), line.data(),
                                  kTile);
                const int blocks = yLines[yf].count * zLines[zf].count * coils;
                std::complex<double>* out =
                    problem.factors.data() + x0 + static_cast<size_t>(nx) * (yf + nYf * zf);
                for (int b = 0; b < blocks; ++b)
                    std::copy(line.begin() + b * kTile, line.begin() + b * kTile + (x1 - x0),
                              out + b * V);
            }
    }
}

template <Validity Rule>
int combination_factors(const float* sensRe, const float* sensIm, const Eigen::VectorXi& sensDims,
                        const Eigen::MatrixXcd& noiseCov, const Eigen::Vector3f& R, double lambda,
                        const Eigen::VectorXf& regImage, Eigen::VectorXcd& factors,
                        Eigen::VectorXi& foldedDims, Eigen::VectorXi fullDims, float* yCompartments,
                        float* zCompartments) {
    const int nx = sensDims[0], ny = sensDims[1], nz = sensDims[2], coils = sensDims[3];
    const int nYf = static_cast<int>(ceilf(static_cast<float>(ny) / R[1]));
    const int nZf = static_cast<int>(ceilf(static_cast<float>(nz) / R[2]));
    const int nVox = nx * ny * nz;
    const int nTot = sensDims.prod();
    // Real maps under the per-voxel rule: their imaginary parts are zeros.
    std::vector<float> zeros;
    if (Rule == Validity::Voxel && !sensIm) {
        zeros.assign(static_cast<size_t>(nTot), 0.0f);
        sensIm = zeros.data();
    }

    // The lists hold ceil(R) entries; an image folded more strongly than R would overrun them,
    // so they are sized for that too.
    const int capY = std::max(static_cast<int>(ceilf(R[1])), ceil_div(fullDims[1], foldedDims[1]));
    const int capZ = std::max(static_cast<int>(ceilf(R[2])), ceil_div(fullDims[2], foldedDims[2]));
    const int slots = capY * capZ;

    const std::vector<Line> yLines = grid_lines(nYf, capY, static_cast<float>(foldedDims[1] - 1),
                                                fullDims[1], foldedDims[1], ny - 1.f);
    const std::vector<Line> zLines = grid_lines(nZf, capZ, static_cast<float>(foldedDims[2] - 1),
                                                fullDims[2], foldedDims[2], nz - 1.f);
    // The jumps are found along the first column (y) and its first line (z).
    if (nx > 0) {
        record_edges(yLines, nYf, yCompartments);
        record_edges(zLines, nZf, zCompartments);
    }

    Eigen::MatrixXcd psiInv(coils, coils);
    {
        Eigen::PartialPivLU<Eigen::MatrixXcd> lu(noiseCov);
        lu_inverse(lu, psiInv);
    }

    std::atomic<int> status{1};
    const bool psiIdentity = mrkit::small::is_identity(psiInv);
    std::vector<double> psiPacked(static_cast<size_t>(4) * coils * coils);
    mrkit::general::pack(psiInv.data(), coils, coils, coils, psiPacked.data(), 1, coils);
    const Problem problem{sensRe,
                          sensIm,
                          nx,
                          ny,
                          nVox,
                          nTot,
                          nYf,
                          nZf,
                          coils,
                          lambda,
                          regImage,
                          psiInv,
                          psiIdentity,
                          psiPacked.data(),
                          RunKernels::pick(),
                          mrkit::small::ChainKernels::pick(),
                          factors,
                          status};
    mrkit::parallel_blocks(nx, [&](int begin, int end) {
        solve_columns<Rule>(problem, slots, yLines, zLines, begin, end);
    });

    if (yCompartments[1] < yCompartments[0]) std::swap(yCompartments[0], yCompartments[1]);
    if (zCompartments[1] < zCompartments[0]) std::swap(zCompartments[0], zCompartments[1]);
    return status.load();
}

template int combination_factors<Validity::Column>(const float*, const float*,
                                                   const Eigen::VectorXi&, const Eigen::MatrixXcd&,
                                                   const Eigen::Vector3f&, double,
                                                   const Eigen::VectorXf&, Eigen::VectorXcd&,
                                                   Eigen::VectorXi&, Eigen::VectorXi, float*,
                                                   float*);
template int combination_factors<Validity::Voxel>(const float*, const float*,
                                                  const Eigen::VectorXi&, const Eigen::MatrixXcd&,
                                                  const Eigen::Vector3f&, double,
                                                  const Eigen::VectorXf&, Eigen::VectorXcd&,
                                                  Eigen::VectorXi&, Eigen::VectorXi, float*,
                                                  float*);

}  // namespace mrkit::sense

int get_combination_factors(const float* sensRe, const float* sensIm,
                            const Eigen::VectorXi& sensDims, const Eigen::MatrixXcd& noiseCov,
                            const Eigen::Vector3f& R, double lambda,
                            const Eigen::VectorXf& regImage, Eigen::VectorXcd& factors,
                            Eigen::VectorXi& foldedDims, Eigen::VectorXi fullDims,
                            float* yCompartments, float* zCompartments) {
    return mrkit::sense::combination_factors<mrkit::sense::Validity::Column>(
        sensRe, sensIm, sensDims, noiseCov, R, lambda, regImage, factors, foldedDims, fullDims,
        yCompartments, zCompartments);
}

int get_combination_factors_voxelwise(const float* sensRe, const float* sensIm,
                                      const Eigen::VectorXi& sensDims,
                                      const Eigen::MatrixXcd& noiseCov, const Eigen::Vector3f& R,
                                      double lambda, const Eigen::VectorXf& regImage,
                                      Eigen::VectorXcd& factors, Eigen::VectorXi& foldedDims,
                                      Eigen::VectorXi fullDims, float* yCompartments,
                                      float* zCompartments) {
    return mrkit::sense::combination_factors<mrkit::sense::Validity::Voxel>(
        sensRe, sensIm, sensDims, noiseCov, R, lambda, regImage, factors, foldedDims, fullDims,
        yCompartments, zCompartments);
}
