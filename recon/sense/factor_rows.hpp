// Reading the combination factors around folded voxels. The factor blocks (one per coil and
// aliased position) lie a whole factor grid apart in the factor vector, often a multiple of
// 4 KiB, so reading one entry of each in turn keeps evicting the first-level cache. Instead a few
// rows of the factor grid are kept with the blocks of each grid voxel side by side, and a voxel's
// factors are interpolated from them as runs: per block the same corners, weights and order of sums
// as MR_linear_interpolation.
#pragma once

#include <algorithm>
#include <complex>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__SSE2__) && defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define MRKIT_AVX2 1
#endif

namespace mrkit::sense {

using cd = std::complex<double>;
using cf = std::complex<float>;

// Entry k of voxel q of a kept row is block k at flat index row * F0 + lo + q: one thread's
// columns, blocks 0 .. blocks - 1, a few rows (the least recently used goes).
class FactorRows {
  public:
    FactorRows(const cd* factors, int F0, int V, int lo, int width, int blocks, int rows)
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
        cd* out = data_.data() + static_cast<size_t>(slot) * width_ * blocks_;
        if (filled_[slot] < needed) fill(out, row, filled_[slot], needed);
        filled_[slot] = std::max(filled_[slot], needed);
        return out;
    }

  private:
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
                for (int q = q0; q < q1; ++q) {
#if defined(__SSE2__)
                    _mm_storeu_pd(entry + 2 * static_cast<size_t>(q) * blocks_,
                                  _mm_loadu_pd(in + 2 * q));
#else
                    entry[2 * static_cast<size_t>(q) * blocks_] = in[2 * q];
                    entry[2 * static_cast<size_t>(q) * blocks_ + 1] = in[2 * q + 1];
#endif
                }
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

// The corners of one voxel in kept rows, with their weights: corners 2r and 2r + 1 lie in row r
// (y, y + 1, then the same one plane on), at the voxel's column and the next. Corners is 4 (one
// plane) or 8 (two).
template <int Corners>
struct CornerRuns {
    const cd* const* rows;
    int column, blocks;
    const double* weight;

    const cd* corner(int k) const {
        return rows[k >> 1] + static_cast<size_t>(column + (k & 1)) * blocks;
    }

    // Entry e: the corners' entries times their weights, summed in corner order, narrowed.
    cf at(int e) const {
#if !defined(__SSE2__)
        cd sum = corner(0)[e] * weight[0];
        for (int k = 1; k < Corners; ++k) sum += corner(k)[e] * weight[k];
        return cf(static_cast<float>(sum.real()), static_cast<float>(sum.imag()));
#else
        __m128d sum = _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(corner(0) + e)),
                                 _mm_set1_pd(weight[0]));
        for (int k = 1; k < Corners; ++k)
            sum = _mm_add_pd(
                sum, _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(corner(k) + e)),
                                _mm_set1_pd(weight[k])));
        alignas(16) double out[2];
        _mm_store_pd(out, sum);
        return cf(static_cast<float>(out[0]), static_cast<float>(out[1]));
#endif
    }

    // Entries 0 .. count - 1 into out[0 .. count - 1].
    void all(int count, cf* out, bool avx2) const;
};

#ifdef MRKIT_AVX2
// CornerRuns::all two entries per instruction: lane by lane the same products and sums (no fused
// multiply-add). Arguments by value, so that they come in registers.
template <int Corners>
__attribute__((target("avx2"))) void all_avx2(const cd* const* rows, int column, int blocks,
                                              const double* weight, int count, cf* out) {
    const double* in[Corners];
    __m256d w[Corners];
    for (int k = 0; k < Corners; ++k) {
        in[k] = reinterpret_cast<const double*>(rows[k >> 1] +
                                                static_cast<size_t>(column + (k & 1)) * blocks);
        w[k] = _mm256_set1_pd(weight[k]);
    }
    int e = 0;
    for (; e + 2 <= count; e += 2) {
        __m256d sum = _mm256_mul_pd(_mm256_loadu_pd(in[0] + 2 * e), w[0]);
        for (int k = 1; k < Corners; ++k)
            sum = _mm256_add_pd(sum, _mm256_mul_pd(_mm256_loadu_pd(in[k] + 2 * e), w[k]));
        _mm_storeu_ps(reinterpret_cast<float*>(out + e), _mm256_cvtpd_ps(sum));
    }
    if (e < count) out[e] = CornerRuns<Corners>{rows, column, blocks, weight}.at(e);
}
#endif

template <int Corners>
void CornerRuns<Corners>::all(int count, cf* out, bool avx2) const {
#ifdef MRKIT_AVX2
    if (avx2) return all_avx2<Corners>(rows, column, blocks, weight, count, out);
#endif
    (void)avx2;
    for (int e = 0; e < count; ++e) out[e] = at(e);
}

}  // namespace mrkit::sense
