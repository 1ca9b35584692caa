// Reading the combination factors around folded voxels. The factor blocks (one per coil and
// aliased position) lie a whole factor grid apart in the factor vector, often a multiple of
// 4 KiB, so reading one entry of each in turn keeps evicting the first-level cache. Instead a few
// rows of the factor grid are kept, each block's run of a strip of columns copied whole, the
// runs a little more than their length apart so that they do not share cache sets. A voxel's
// factors are then interpolated from them with, per block, the same corners, weights and order
// of sums as MR_linear_interpolation.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <type_traits>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__SSE2__) && defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define MRKIT_AVX2 1
#define MRKIT_AVX2_TARGET __attribute__((target("avx2")))
#else
#define MRKIT_AVX2_TARGET
#endif

namespace mrkit::sense {

using cd = std::complex<double>;
using cf = std::complex<float>;

// Entry q of block k of a kept row is the factor at flat index row * F0 + lo + q of block k: a
// run of at most `capacity` columns starting at column lo, blocks 0 .. blocks - 1, a few rows
// (the least recently used goes). Held as they are (T = cd) or narrowed to single precision
// (T = cf, AVX2 only); narrowed, each row also tells whether all its entries so far are finite.
template <class T>
class FactorRows {
  public:
    static constexpr bool kNarrowed = std::is_same_v<T, cf>;

    FactorRows(const cd* factors, int F0, int V, int capacity, int blocks, int rows)
        : factors_(factors),
          F0_(F0),
          V_(V),
          // Padded past the run: a read one or two columns beyond it stays in the buffer.
          stride_((capacity + 3) / 4 * 4 + 4),
          blocks_(blocks),
          tag_(rows, -1),
          filled_(rows, 0),
          finite_(rows, true),
          used_(rows, 0),
          data_(static_cast<size_t>(rows) * stride_ * blocks) {}

    // Columns lo .. lo + width - 1 from now on (width at most the capacity); nothing is kept.
    void columns(int lo, int width) {
        lo_ = lo;
        width_ = width;
        std::fill(tag_.begin(), tag_.end(), -1);
    }

    // Distance between the runs of two consecutive blocks.
    int stride() const { return stride_; }

    // Voxel q = 0 of block 0 of flat row `row`, with at least blocks 0 .. needed - 1 filled.
    // Entries whose flat index reaches the end of a block are never read (those corners drop out)
    // and are not filled.
    // With `finite`, that is cleared when the row (narrowed) holds an entry not finite.
    const T* row(int row, int needed, bool* finite = nullptr) {
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
            finite_[slot] = true;
        }
        used_[slot] = ++clock_;
        T* out = data_.data() + static_cast<size_t>(slot) * stride_ * blocks_;
        if (filled_[slot] < needed && !fill(out, row, filled_[slot], needed)) finite_[slot] = false;
        filled_[slot] = std::max(filled_[slot], needed);
        if (finite && !finite_[slot]) *finite = false;
        return out;
    }

  private:
    bool fill(T* out, int row, int from, int to) const {
        const long start = static_cast<long>(row) * F0_ + lo_;
        const long width = std::max<long>(0, std::min<long>(width_, V_ - start));
        bool finite = true;
        for (int k = from; k < to; ++k) {
            const cd* in = factors_ + static_cast<size_t>(k) * V_ + start;
            T* run = out + static_cast<size_t>(k) * stride_;
#if defined(__SSE2__)
            // The next block's run lies a factor grid on, where the hardware's prefetch does not
            // follow; its first lines are on their way while this run is copied.
            if (k + 1 < to)
                for (int line = 0; line < 8; ++line)
                    _mm_prefetch(reinterpret_cast<const char*>(in + V_) + 64 * line, _MM_HINT_T0);
#endif
            if constexpr (kNarrowed)
                finite = copy_narrowed(in, width, run) && finite;
            else
                std::memcpy(static_cast<void*>(run), in, width * sizeof(cd));
        }
        return finite;
    }

#ifdef MRKIT_AVX2
    // The four complex at p, narrowed.
    MRKIT_AVX2_TARGET static __m256 narrowed_four(const double* p) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(_mm256_loadu_pd(p))),
                                    _mm256_cvtpd_ps(_mm256_loadu_pd(p + 4)), 1);
    }
#endif

    // Copies n entries narrowed and tells whether every part is finite after. A part that was
    // not finite is not after either; one that overflows only sends its row the weighted way,
    // which gives the same factors from finite corners. One that is not gives a NaN times 0,
    // which stays in a sum; the sums carry one add per eight entries, so they keep pace with the
    // loads.
    MRKIT_AVX2_TARGET static bool copy_narrowed(const cd* in, long n, cf* out) {
        long q = 0;
        bool finite = true;
#ifdef MRKIT_AVX2
        const double* from = reinterpret_cast<const double*>(in);
        float* to = reinterpret_cast<float*>(out);
        const __m256 zero = _mm256_setzero_ps();
        __m256 sum = zero;
        for (; q + 8 <= n; q += 8) {
            const __m256 a = narrowed_four(from + 2 * q), b = narrowed_four(from + 2 * q + 8);
            _mm256_storeu_ps(to + 2 * q, a);
            _mm256_storeu_ps(to + 2 * q + 8, b);
            sum = _mm256_add_ps(sum, _mm256_add_ps(_mm256_mul_ps(a, zero), _mm256_mul_ps(b, zero)));
        }
        for (; q + 2 <= n; q += 2) {
            const __m128 v = _mm256_cvtpd_ps(_mm256_loadu_pd(from + 2 * q));
            _mm_storeu_ps(to + 2 * q, v);
            sum = _mm256_add_ps(sum, _mm256_castps128_ps256(_mm_mul_ps(v, _mm_setzero_ps())));
        }
        finite = _mm256_movemask_ps(_mm256_cmp_ps(sum, sum, _CMP_UNORD_Q)) == 0;
#endif
        for (; q < n; ++q) {
            out[q] = cf(static_cast<float>(in[q].real()), static_cast<float>(in[q].imag()));
            finite = finite && std::isfinite(out[q].real()) && std::isfinite(out[q].imag());
        }
        return finite;
    }

    const cd* factors_;
    int F0_, V_, lo_ = 0, width_ = 0, stride_, blocks_;
    std::vector<int> tag_, filled_;
    std::vector<char> finite_;
    std::vector<long> used_;
    long clock_ = 0;
    std::vector<T> data_;
};

// The corners of one voxel in kept rows, with their weights: corners 2r and 2r + 1 lie in row r
// (y, y + 1, then the same one plane on), at the voxel's column and the next. Corners is 4 (one
// plane) or 8 (two).
template <int Corners>
struct CornerRuns {
    const cd* const* rows;
    int column, stride;
    const double* weight;

    const cd* corner(int k) const { return rows[k >> 1] + column + (k & 1); }

    // Entry e: the corners' entries times their weights, summed in corner order, narrowed. Out
    // of line, as is all(): inlined, the sums could be compiled with their operands swapped as
    // the caller's code goes, which picks the other NaN of two.
    __attribute__((noinline)) cf at(int e) const { return entry(e); }

    // Entries 0 .. count - 1 into out[0], out[step], ...
    __attribute__((noinline)) void all(int count, cf* out, int step = 1) const {
        for (int e = 0; e < count; ++e) out[static_cast<size_t>(e) * step] = entry(e);
    }

  private:
    cf entry(int e) const {
        const size_t at = static_cast<size_t>(e) * stride;
#if !defined(__SSE2__)
        cd sum = corner(0)[at] * weight[0];
        for (int k = 1; k < Corners; ++k) sum += corner(k)[at] * weight[k];
        return cf(static_cast<float>(sum.real()), static_cast<float>(sum.imag()));
#else
        __m128d sum = _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(corner(0) + at)),
                                 _mm_set1_pd(weight[0]));
        for (int k = 1; k < Corners; ++k)
            sum = _mm_add_pd(
                sum, _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(corner(k) + at)),
                                _mm_set1_pd(weight[k])));
        alignas(16) double out[2];
        _mm_store_pd(out, sum);
        return cf(static_cast<float>(out[0]), static_cast<float>(out[1]));
#endif
    }
};

#ifdef MRKIT_AVX2
// CornerRuns::all for pairs of voxels at grid columns c and c + 1 of the same rows, one voxel in
// each half of a 256-bit register, each corner pair one load: lane by lane the same products and
// sums (no fused multiply-add). Pair p (those whose first voxel i = first[p] has
// `corners[i] == Corners`): column[p], voxel i's weights at weights + i weightStep and, when
// two[p], voxel i + 1's (else voxel i's again), entry e of the two voxels narrowed to
// out[p * outStride + 2 e] and the complex after it. The rows are kept rows (`stride` their
// FactorRows stride) or the factors as they lie (stride V). Every voxel with these corners runs
// this one loop: a variant could be compiled with the operands of a sum swapped and so pick the
// other NaN of two.
template <int Corners>
__attribute__((target("avx2"), noinline)) void pairs_avx2(const cd* const* rows, int stride,
                                                          int count, int pairs, const int* first,
                                                          const int* two, const int* corners,
                                                          const int* column, const double* weights,
                                                          int weightStep, cf* out,
                                                          size_t outStride) {
    const size_t step = 2 * static_cast<size_t>(stride);
    __m256d w[Corners] = {};
    const double *wa = nullptr, *wb = nullptr;  // the weights in w
    for (int p = 0; p < pairs; ++p) {
        const int i = first[p];
        if (corners[i] != Corners) continue;
        const double* a = weights + static_cast<size_t>(i) * weightStep;
        const double* b = two[p] ? a + weightStep : a;
        if (a != wa || b != wb) {
            wa = a;
            wb = b;
            for (int k = 0; k < Corners; ++k) w[k] = _mm256_setr_pd(wa[k], wa[k], wb[k], wb[k]);
        }
        const double* in[Corners];
        for (int k = 0; k < Corners; ++k)
            in[k] = reinterpret_cast<const double*>(rows[k >> 1] + column[p] + (k & 1));
        float* to = reinterpret_cast<float*>(out + p * outStride);
        size_t at = 0;
        for (int e = 0; e < count; ++e, at += step) {
            __m256d sum = _mm256_mul_pd(_mm256_loadu_pd(in[0] + at), w[0]);
            for (int k = 1; k < Corners; ++k)
                sum = _mm256_add_pd(sum, _mm256_mul_pd(_mm256_loadu_pd(in[k] + at), w[k]));
            _mm_storeu_ps(to + 4 * e, _mm256_cvtpd_ps(sum));
        }
    }
}
#endif

}  // namespace mrkit::sense
