// Unfolding of one folded multi-coil volume: per folded voxel, the factors of its aliased
// positions are interpolated from the factor grid and applied to the coil values, and the
// results are scattered to the aliased positions of the full field of view.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <vector>

#include <emmintrin.h>
#include <immintrin.h>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "recon/sense/corners.hpp"
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

using cd = std::complex<double>;
using cf = std::complex<float>;

// Aliased positions per folded voxel up to which the output offsets are kept per row.
constexpr int kMaxSlots = 64;

// Rows of the factor grid with the blocks of each grid voxel side by side: entry k of voxel q of a
// cached row is block k at flat index row * F0 + lo + q. One thread's columns only, a few rows
// kept (least recently used goes), so that a voxel's factors are read as a run, not one element
// from each block a block apart.
class RowCache {
  public:
    RowCache(const cd* factors, int F0, int V, int lo, int width, int blocks, int rows)
        : factors_(factors),
          F0_(F0),
          V_(V),
          lo_(lo),
          width_(width),
          blocks_(blocks),
          tag_(rows, -1),
          filled_(rows, 0),
          used_(rows, 0),
          data_(static_cast<size_t>(rows) * width * blocks) {}

    int blocks() const { return blocks_; }

    // Voxel q = 0 of flat row `row`, with at least blocks 0 .. needed - 1 filled. Entries whose
    // flat index reaches the end of a block are never read (those corners drop out) and are
    // not filled.
    const cd* row(int row, int needed) {
        int slot = 0;
        for (int s = 0; s < static_cast<int>(tag_.size()); ++s) {
            if (tag_[s] == row) {
                slot = s;
                break;
            }
            if (used_[s] < used_[slot]) slot = s;
        }
        if (tag_[slot] != row) {
            tag_[slot] = row;
            filled_[slot] = 0;
        }
        used_[slot] = ++clock_;
        cd* out = at(slot);
        if (filled_[slot] < needed) fill(out, row, filled_[slot], needed);
        filled_[slot] = std::max(filled_[slot], needed);
        return out;
    }

  private:
    cd* at(int slot) { return data_.data() + static_cast<size_t>(slot) * width_ * blocks_; }

    void fill(cd* out, int row, int from, int to) const {
        const long start = static_cast<long>(row) * F0_ + lo_;
        const int width = static_cast<int>(std::max<long>(0, std::min<long>(width_, V_ - start)));
        // A few voxels at a time, so that their entries stay in the first-level cache while
        // every block is read.
        constexpr int kTile = 16;
        for (int q0 = 0; q0 < width; q0 += kTile) {
            const int q1 = std::min(width, q0 + kTile);
            for (int k = from; k < to; ++k) {
                const double* in =
                    reinterpret_cast<const double*>(factors_ + static_cast<size_t>(k) * V_ + start);
                double* entry = reinterpret_cast<double*>(out + k);
                for (int q = q0; q < q1; ++q)
                    _mm_storeu_pd(entry + 2 * static_cast<size_t>(q) * blocks_,
                                  _mm_loadu_pd(in + 2 * q));
            }
        }
    }

    const cd* factors_;
    int F0_, V_, lo_, width_, blocks_;
    std::vector<int> tag_, filled_;
    std::vector<long> used_;
    long clock_ = 0;
    std::vector<cd> data_;
};

// One thread's scratch for a run of folded voxels along x (a chunk of one (y, z) row): which
// aliased positions carry signal, where each voxel's corners start, and its factor matrix.
struct Chunk {
    static constexpr int kLength = 64;
    const int slots, coils;
    int active = 0;             // voxels with signal, in x order
    std::vector<int> x, valid;  // their x and number of positions with signal
    std::vector<int> rowOf;     // slots per voxel: row of position m in M, or -1
    std::vector<int> column;    // grid column of corner 0 in the cached rows, or -1
    std::vector<int> ld;        // leading dimension of the voxel's M
    std::vector<cf> M;          // slots x coils per voxel, column-major
    std::vector<cf> values;     // coil values of each x of the chunk

    Chunk(int s, int c)
        : slots(s),
          coils(c),
          x(kLength),
          valid(kLength),
          rowOf(static_cast<size_t>(kLength) * s),
          column(kLength),
          ld(kLength),
          M(static_cast<size_t>(kLength) * s * c),
          values(static_cast<size_t>(kLength) * c) {}
    int* rows(int i) { return rowOf.data() + static_cast<size_t>(i) * slots; }
    cf* matrix(int i) { return M.data() + static_cast<size_t>(i) * slots * coils; }
    cf* values_at(int c) { return values.data() + static_cast<size_t>(c) * kLength; }
};

// Coil values re[x] + i im[x] (im may be null) for x = x0 .. x1 - 1 into out[x - x0].
inline void gather(const float* re, const float* im, int x0, int x1, cf* out) {
    float* to = reinterpret_cast<float*>(out) - 2 * x0;
    int x = x0;
    if (im)
        for (; x + 4 <= x1; x += 4) {
            const __m128 r = _mm_loadu_ps(re + x), i = _mm_loadu_ps(im + x);
            _mm_storeu_ps(to + 2 * x, _mm_unpacklo_ps(r, i));
            _mm_storeu_ps(to + 2 * x + 4, _mm_unpackhi_ps(r, i));
        }
    for (; x < x1; ++x) out[x - x0] = cf(re[x], im ? im[x] : 0.0f);
}

inline cf narrow(cd v) {
    return cf(static_cast<float>(v.real()), static_cast<float>(v.imag()));
}
inline cf narrow(__m128d v) {
    alignas(16) double out[2];
    _mm_store_pd(out, v);
    return cf(static_cast<float>(out[0]), static_cast<float>(out[1]));
}

// M of one voxel from the cached corner rows: entry k of each corner, times the corner's weight,
// summed in corner order as MR_linear_interpolation does. Corners 2k and 2k + 1 lie in row k, at
// the voxel's column and the next. All n positions carry signal: M is n x coils, blocks in order.
template <int Corners>
void interpolate_all(const cd* const* row, int column, int blocks, const double* weight, int count,
                     cf* out) {
    const cd* p[Corners];
    __m128d w[Corners];
    for (int k = 0; k < Corners; ++k) {
        p[k] = row[k >> 1] + static_cast<size_t>(column + (k & 1)) * blocks;
        w[k] = _mm_set1_pd(weight[k]);
    }
    for (int e = 0; e < count; ++e) {
        __m128d sum = _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(p[0] + e)), w[0]);
        for (int k = 1; k < Corners; ++k)
            sum = _mm_add_pd(
                sum, _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(p[k] + e)), w[k]));
        out[e] = narrow(sum);
    }
}

#if defined(__x86_64__) && defined(__GNUC__)
// interpolate_all with two entries per instruction: the same products and sums lane by lane (no
// fused multiply-add), so the same bits.
template <int Corners>
__attribute__((target("avx2"))) void interpolate_all_avx2(const cd* const* row, int column,
                                                          int blocks, const double* weight,
                                                          int count, cf* out) {
    const cd* p[Corners];
    __m256d w[Corners];
    for (int k = 0; k < Corners; ++k) {
        p[k] = row[k >> 1] + static_cast<size_t>(column + (k & 1)) * blocks;
        w[k] = _mm256_set1_pd(weight[k]);
    }
    int e = 0;
    for (; e + 2 <= count; e += 2) {
        __m256d sum =
            _mm256_mul_pd(_mm256_loadu_pd(reinterpret_cast<const double*>(p[0] + e)), w[0]);
        for (int k = 1; k < Corners; ++k)
            sum = _mm256_add_pd(
                sum,
                _mm256_mul_pd(_mm256_loadu_pd(reinterpret_cast<const double*>(p[k] + e)), w[k]));
        _mm_storeu_ps(reinterpret_cast<float*>(out + e), _mm256_cvtpd_ps(sum));
    }
    if (e < count) {
        __m128d sum = _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(p[0] + e)),
                                 _mm256_castpd256_pd128(w[0]));
        for (int k = 1; k < Corners; ++k)
            sum =
                _mm_add_pd(sum, _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(p[k] + e)),
                                           _mm256_castpd256_pd128(w[k])));
        out[e] = narrow(sum);
    }
}

const bool kAvx2 = __builtin_cpu_supports("avx2");
#else
const bool kAvx2 = false;
#endif

template <int Corners>
void interpolate_all_fast(const cd* const* row, int column, int blocks, const double* weight,
                          int count, cf* out) {
#if defined(__x86_64__) && defined(__GNUC__)
    if (kAvx2) return interpolate_all_avx2<Corners>(row, column, blocks, weight, count, out);
#endif
    interpolate_all<Corners>(row, column, blocks, weight, count, out);
}

// The same for a voxel where only some positions carry signal: rows compacted, leading
// dimension `slots`.
template <int Corners>
void interpolate_some(const cd* const* row, int column, int blocks, const double* weight,
                      const int* rows, int n, int coils, int slots, cf* out) {
    const cd* p[Corners];
    __m128d w[Corners];
    for (int k = 0; k < Corners; ++k) {
        p[k] = row[k >> 1] + static_cast<size_t>(column + (k & 1)) * blocks;
        w[k] = _mm_set1_pd(weight[k]);
    }
    for (int c = 0; c < coils; ++c)
        for (int m = 0; m < n; ++m) {
            if (rows[m] < 0) continue;
            const int e = c * n + m;
            __m128d sum = _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(p[0] + e)), w[0]);
            for (int k = 1; k < Corners; ++k)
                sum = _mm_add_pd(
                    sum, _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(p[k] + e)), w[k]));
            out[rows[m] + static_cast<size_t>(c) * slots] = narrow(sum);
        }
}

}  // namespace

namespace mrkit::sense {

int unfold_volumes(const std::vector<Volume>& volumes, const Eigen::VectorXi& foldedDims,
                   const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
                   const Eigen::VectorXi& fullDims, const float* yCompartments,
                   const float* zCompartments) {
    const int fd0 = foldedDims[0], fd1 = foldedDims[1], fd2 = foldedDims[2], fd3 = foldedDims[3];
    const int N0 = fullDims[0], N1 = fullDims[1], N2 = fullDims[2];
    const int F0 = factorDims[0], F1 = factorDims[1], F2 = factorDims[2];
    const int slab = fd0 * fd1, volume = slab * fd2, foldedTotal = foldedDims.prod();
    const int plane = F0 * F1, V = plane * F2;
    const int outPlane = N0 * N1, outTotal = outPlane * N2;

    const std::vector<Sample> xs = samples(fd0, F0, N0, nullptr);
    const std::vector<Sample> ys = samples(fd1, F1, N1, yCompartments);
    const std::vector<Sample> zs = samples(fd2, F2, N2, zCompartments);
    const Aliases yAlias(N1, fd1), zAlias(N2, fd2);
    const int slots = yAlias.most * zAlias.most;
    // Blocks a voxel may read, as far as the factor vector holds them.
    const int blocks = V > 0 ? static_cast<int>(std::min<Eigen::Index>(
                                   static_cast<Eigen::Index>(slots) * fd3, factors.size() / V))
                             : 0;

    std::atomic<int> status{1};
    mrkit::parallel_blocks(fd0, [&](int begin, int end) {
        if (begin >= end) return;
        Chunk ch(slots, fd3);
        Eigen::VectorXcf u(slots), u2(slots);
        // Grid columns of this thread's corners: the lower one of each x and the next.
        const int lo = xs[begin].lower, width = xs[end - 1].lower + 2 - lo;
        RowCache cache(factors.data(), F0, V, lo, width, blocks, F2 > 1 ? 8 : 4);

        for (int y = 0; y < fd1; ++y) {
            const int ny = yAlias.count[y];
            const int* yList = yAlias.of(y);
            for (int z = 0; z < fd2; ++z) {
                const int nz = zAlias.count[z];
                const int* zList = zAlias.of(z);
                const int n = ny * nz;
                const Sample &sy = ys[y], &sz = zs[z];
                // Weight of corner k: (x weight * y weight) * z weight, each t or 1 - t.
                const double wy[2] = {1.0 - sy.fraction, sy.fraction};
                const double wz[2] = {1.0 - sz.fraction, sz.fraction};
                const int rowBase = sy.lower * F0 + sz.lower * plane;
                const int row0 = sy.lower + sz.lower * F1;
                // Corner rows (y, y + 1, then one plane on), fetched when first needed.
                const cd* row[4] = {nullptr, nullptr, nullptr, nullptr};
                const auto rows_for = [&](int corners) {
                    for (int r = 0; r < corners / 2; ++r)
                        if (!row[r]) row[r] = cache.row(row0 + (r & 1) + (r & 2 ? F1 : 0), n * fd3);
                };
                for (int x0 = begin; x0 < end; x0 += Chunk::kLength) {
                    const int x1 = std::min(end, x0 + Chunk::kLength);

                    // Coil 0's factor at the nearest grid voxel says which positions carry
                    // signal; outside the object this is the only work done.
                    ch.active = 0;
                    for (int x = x0; x < x1; ++x) {
                        const Sample& sx = xs[x];
                        const int r = sz.nearest * plane + sy.nearest * F0 + sx.nearest;
                        int* rows = ch.rows(ch.active);
                        int valid = 0;
                        for (int m = 0; m < n; ++m) {
                            const cd f = factors[r + m * V];
                            rows[m] = (f.real() != 0.0 || f.imag() != 0.0) ? valid++ : -1;
                        }
                        if (valid == 0) continue;
                        const int i = ch.active++;
                        ch.x[i] = x;
                        ch.valid[i] = valid;

                        // Corners as MR_linear_interpolation picks them; within a block, so the
                        // block bound (block + 1) * V leaves b + offset < V as the test. All
                        // corners of one plane (4) or two (8) come from the cached rows; other
                        // voxels, at the grid's end, read the factors as they lie.
                        const int b = sx.lower + rowBase;
                        const int corners = b + F0 + 1 + plane < V             ? 8
                                            : b + plane >= V && b + F0 + 1 < V ? 4
                                                                               : 0;
                        cf* out = ch.matrix(i);
                        if (corners == 0 || n * fd3 > blocks) {
                            const mrkit::Corners<double> at(b, F0, plane, V, sx.fraction,
                                                            sy.fraction, sz.fraction);
                            for (int c = 0; c < fd3; ++c)
                                for (int m = 0; m < n; ++m)
                                    if (rows[m] >= 0)
                                        out[rows[m] + static_cast<size_t>(c) * slots] =
                                            narrow(at.apply(factors.data() + (c * n + m) * V));
                            ch.ld[i] = slots;
                            continue;
                        }
                        const double wx[2] = {1.0 - sx.fraction, sx.fraction};
                        double w[8];
                        for (int k = 0; k < corners; ++k)
                            w[k] = wx[k & 1] * wy[(k >> 1) & 1] * wz[(k >> 2) & 1];
                        rows_for(corners);
                        const int column = sx.lower - lo;
                        if (valid == n) {
                            ch.ld[i] = n;
                            if (corners == 4)
                                interpolate_all_fast<4>(row, column, blocks, w, n * fd3, out);
                            else
                                interpolate_all_fast<8>(row, column, blocks, w, n * fd3, out);
                        } else {
                            ch.ld[i] = slots;
                            if (corners == 4)
                                interpolate_some<4>(row, column, blocks, w, rows, n, fd3, slots,
                                                    out);
                            else
                                interpolate_some<8>(row, column, blocks, w, rows, n, fd3, slots,
                                                    out);
                        }
                    }
                    if (ch.active == 0) continue;

                    // Output offset of each aliased position (y outer, z inner) but for x; when
                    // none can reach past the output, a voxel whose positions all carry signal
                    // writes them without the checks below.
                    int offset[kMaxSlots];
                    bool inside = n <= kMaxSlots;
                    for (int m = 0; m < n && inside; ++m) {
                        offset[m] = yList[m / nz] * N0 + zList[m % nz] * outPlane;
                        inside = offset[m] + x1 - 1 < outTotal;
                    }
                    const int rowStart = y * fd0 + z * slab;
                    const bool folded = rowStart + x1 - 1 < foldedTotal;
                    for (const Volume& vol : volumes) {
                        // The chunk's coil values, coil by coil along the row, so that the
                        // coils' rows (a volume apart) are not all read at once.
                        for (int c = 0; c < fd3; ++c)
                            gather(vol.foldedRe + rowStart + c * volume,
                                   vol.foldedIm ? vol.foldedIm + rowStart + c * volume : nullptr,
                                   x0, x1, ch.values_at(c));
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
                            // Aliased positions in factor order (y outer, z inner). One outside
                            // the output advances neither counter, so the rest of the voxel
                            // pairs with the mask one step behind; that pairing is kept.
                            const int* rows = ch.rows(i);
                            int k = 0, j = 0;
                            for (int iy = 0; iy < ny; ++iy) {
                                for (int iz = 0; iz < nz; ++iz) {
                                    if (rows[k] < 0) {
                                        ++k;
                                        continue;
                                    }
                                    const int o = yList[iy] * N0 + x + zList[iz] * outPlane;
                                    if (o >= outTotal) {
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
                        for (int i = 0; i < ch.active; ++i) {
                            const int x = ch.x[i];
                            if (!folded && y * fd0 + x + z * slab >= foldedTotal) {
                                status.store(-1, std::memory_order_relaxed);
                                continue;
                            }
#ifdef MRKIT_AVX2_PAIRS
                            // Two voxels of the same row count at once.
                            if (kAvx2 && folded && i + 1 < ch.active && fd3 < 128 &&
                                ch.valid[i] >= 2 && ch.valid[i + 1] == ch.valid[i]) {
                                const int x2 = ch.x[i + 1];
                                mrkit::small::matrix_vector_two_avx2(
                                    ch.matrix(i), ch.ld[i], ch.matrix(i + 1), ch.ld[i + 1],
                                    ch.valid[i], fd3, values + (x - x0), values + (x2 - x0),
                                    Chunk::kLength, u.data(), u2.data());
                                scatter(i, u.data());
                                scatter(i + 1, u2.data());
                                ++i;
                                continue;
                            }
#endif
                            mrkit::small::matrix_vector(ch.matrix(i), ch.ld[i], ch.valid[i], fd3,
                                                        values + (x - x0), Chunk::kLength,
                                                        u.data());
                            scatter(i, u.data());
                        }
                    }
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
