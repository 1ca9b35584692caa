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

#include "recon/lanes.hpp"

namespace mrkit::sense {

using cd = std::complex<double>;
using cf = std::complex<float>;

// Copies n entries narrowed to single precision; *finite tells whether every part is after. A
// part that was not finite is not after either; one that overflows only sends its row the
// weighted way, which gives the same factors from finite corners. Each part times 0 is NaN
// exactly when it is not finite, and a NaN stays in the sum.
MRKIT_INLINE void copy_narrowed_body(const cd* in, long n, cf* out, bool* finite) {
    using lanes::Double4;
    using lanes::Float4;
    using lanes::Float8;
    const double* from = reinterpret_cast<const double*>(in);
    float* to = reinterpret_cast<float*>(out);
    const auto two = [from](long q) {  // entries q and q + 1, narrowed
        return __builtin_convertvector(lanes::load<Double4>(from + 2 * q), Float4);
    };
    const auto four = [&](long q) {
        return __builtin_shufflevector(two(q), two(q + 2), 0, 1, 2, 3, 4, 5, 6, 7);
    };
    // One add per eight entries keeps the sum's chain in pace with the loads.
    Float8 sum = {};
    long q = 0;
    for (; q + 8 <= n; q += 8) {
        const Float8 a = four(q), b = four(q + 4);
        lanes::store(to + 2 * q, a);
        lanes::store(to + 2 * q + 8, b);
        sum = sum + (a * Float8{} + b * Float8{});
    }
    Float4 rest = {};
    for (; q + 2 <= n; q += 2) {
        const Float4 v = two(q);
        lanes::store(to + 2 * q, v);
        rest = rest + v * Float4{};
    }
    bool all = !lanes::any_nan(rest + __builtin_shufflevector(sum, sum, 0, 1, 2, 3) +
                               __builtin_shufflevector(sum, sum, 4, 5, 6, 7));
    for (; q < n; ++q) {
        out[q] = cf(static_cast<float>(in[q].real()), static_cast<float>(in[q].imag()));
        all = all && std::isfinite(out[q].real()) && std::isfinite(out[q].imag());
    }
    *finite = all;
}
MRKIT_PER_TARGET(copy_narrowed, copy_narrowed_body)
using CopyNarrowed = void (*)(const cd*, long, cf*, bool*);

// Entry q of block k of a kept row is the factor at flat index row * F0 + lo + q of block k: a
// run of at most `capacity` columns starting at column lo, blocks 0 .. blocks - 1, a few rows
// (the least recently used goes). Held as they are (T = cd) or narrowed to single precision
// (T = cf, copied by `copy`); narrowed, each row also tells whether all its entries so far are
// finite.
template <class T>
class FactorRows {
  public:
    static constexpr bool kNarrowed = std::is_same_v<T, cf>;

    FactorRows(const cd* factors, int F0, int V, int capacity, int blocks, int rows,
               CopyNarrowed copy = nullptr)
        : factors_(factors),
          copy_(copy),
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
            // The next block's run lies a factor grid on, where the hardware's prefetch does not
            // follow; its first lines are on their way while this run is copied.
            if (k + 1 < to)
                for (int line = 0; line < 8; ++line)
                    __builtin_prefetch(reinterpret_cast<const char*>(in + V_) + 64 * line, 0, 3);
            if constexpr (kNarrowed) {
                bool all;
                copy_(in, width, run, &all);
                finite = all && finite;
            } else {
                std::memcpy(static_cast<void*>(run), in, width * sizeof(cd));
            }
        }
        return finite;
    }

    const cd* factors_;
    CopyNarrowed copy_;
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
        using lanes::Double2;
        const size_t at = static_cast<size_t>(e) * stride;
        Double2 sum = lanes::load<Double2>(corner(0) + at) * lanes::splat<Double2>(weight[0]);
        for (int k = 1; k < Corners; ++k)
            sum = sum + lanes::load<Double2>(corner(k) + at) * lanes::splat<Double2>(weight[k]);
        return cf(static_cast<float>(sum[0]), static_cast<float>(sum[1]));
    }
};

// CornerRuns::all for pairs of voxels at grid columns c and c + 1 of the same rows, one voxel in
// each half of four lanes, each corner pair one load: lane by lane the same products and sums.
// Pair p (those whose first voxel i = first[p] has `corners[i] == Corners`): column[p], voxel i's
// weights at weights + i weightStep and, when two[p], voxel i + 1's (else voxel i's again), entry
// e of the two voxels narrowed to out[p * outStride + 2 e] and the complex after it. The rows are
// kept rows (`stride` their FactorRows stride) or the factors as they lie (stride V). Every voxel
// with these corners runs this one loop: a variant could be compiled with the operands of a sum
// swapped and so pick the other NaN of two.
template <int Corners>
MRKIT_INLINE void corner_pairs_body(const cd* const* rows, int stride, int count, int pairs,
                                    const int* first, const int* two, const int* corners,
                                    const int* column, const double* weights, int weightStep,
                                    cf* out, size_t outStride) {
    using lanes::Double4;
    using lanes::Float4;
    const size_t step = 2 * static_cast<size_t>(stride);
    Double4 w[Corners] = {};
    const double *wa = nullptr, *wb = nullptr;  // the weights in w
    for (int p = 0; p < pairs; ++p) {
        const int i = first[p];
        if (corners[i] != Corners) continue;
        const double* a = weights + static_cast<size_t>(i) * weightStep;
        const double* b = two[p] ? a + weightStep : a;
        if (a != wa || b != wb) {
            wa = a;
            wb = b;
            for (int k = 0; k < Corners; ++k) w[k] = Double4{wa[k], wa[k], wb[k], wb[k]};
        }
        const double* in[Corners];
        for (int k = 0; k < Corners; ++k)
            in[k] = reinterpret_cast<const double*>(rows[k >> 1] + column[p] + (k & 1));
        float* to = reinterpret_cast<float*>(out + p * outStride);
        size_t at = 0;
        for (int e = 0; e < count; ++e, at += step) {
            Double4 sum = lanes::load<Double4>(in[0] + at) * w[0];
            for (int k = 1; k < Corners; ++k) sum = sum + lanes::load<Double4>(in[k] + at) * w[k];
            lanes::store(to + 4 * e, __builtin_convertvector(sum, Float4));
        }
    }
}
MRKIT_PER_TARGET(corner_pairs4, corner_pairs_body<4>)
MRKIT_PER_TARGET(corner_pairs8, corner_pairs_body<8>)
using CornerPairs = void (*)(const cd* const*, int, int, int, const int*, const int*, const int*,
                             const int*, const double*, int, cf*, size_t);

}  // namespace mrkit::sense
