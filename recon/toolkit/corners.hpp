// The trilinear corner rule every interpolation of a flat column-major block follows: the
// toolkit's MR_linear_interpolation, homodyne's low-resolution phase, the SENSE factors and the
// unfolding. Corners come in the order b, b+1, b+nx, b+nx+1, then the same one plane on; corner c
// is weighted (w1 * w2) * w3, each the fraction toward it or one minus that. Only the flat end N of
// the block is guarded: corners at or past N drop out without renormalising the rest, so values
// fade toward zero there, and a corner past the end of a row reads the next row.
#pragma once

#include <complex>

#include "recon/lanes.hpp"

namespace mrkit {

// Offset of corner c from the lower corner b.
inline int corner_offset(int c, int nx, int plane) {
    return (c & 1) + (c & 2 ? nx : 0) + (c & 4 ? plane : 0);
}

// How many corners, in the order above, may be read: the first up to the last one below N. The
// count never rises with b, so a run of lower corners whose first and last share it all do.
inline int readable_corners(long b, int nx, int plane, long N) {
    for (int c = 8; c > 0; --c)
        if (b + corner_offset(c - 1, nx, plane) < N) return c;
    return 0;
}

// Weight of corner c, given each axis's pair {1 - t, t}.
template <class W>
inline W corner_weight(int c, const W* w1, const W* w2, const W* w3) {
    return (w1[c & 1] * w2[(c >> 1) & 1]) * w3[(c >> 2) & 1];
}

// The readable corners of one position and their weights, found once and then applied to any
// number of grids of the same shape (every coil, every factor block).
template <class Weight>
struct Corners {
    int count = 0;  // corners read, in corner order
    int offset[8] = {};
    Weight weight[8] = {};

    // Lower corner b, fractions t1 (+1), t2 (+nx), t3 (+plane), flat end N.
    Corners(int b, int nx, int plane, int N, Weight t1, Weight t2, Weight t3) {
        const Weight one = 1;
        const Weight w1[2] = {one - t1, t1}, w2[2] = {one - t2, t2}, w3[2] = {one - t3, t3};
        const int readable = readable_corners(b, nx, plane, N);
        for (int c = 0; c < readable; ++c) {
            // With one row per plane (+nx == +plane) corner b+nx+1 can pass the end while
            // b+plane does not; it drops out like every corner past the end.
            const int at = b + corner_offset(c, nx, plane);
            if (at >= N) continue;
            offset[count] = at;
            weight[count++] = corner_weight(c, w1, w2, w3);
        }
    }

    // Interpolated value of the grid whose element i is read(i). The usual corner counts (all
    // eight, or one plane) get loops of fixed length, which unroll.
    template <class Value, class Read>
    Value apply(Read read) const {
        switch (count) {
            case 8:
                return sum<Value, 8>(read, 8);
            case 4:
                return sum<Value, 4>(read, 4);
            case 0:
                return Value(0);
            default:
                return sum<Value, 0>(read, count);
        }
    }

    template <class Value, int Fixed, class Read>
    Value sum(Read read, int n) const {
        if (Fixed > 0) n = Fixed;
        Value sum = read(offset[0]) * weight[0];
        for (int c = 1; c < n; ++c) sum += read(offset[c]) * weight[c];
        return sum;
    }

    // Complex samples with real weights: both parts are scaled and summed lane by lane, which is
    // exactly what the complex-times-real operator and complex addition do. Fixed > 0 promises
    // that many corners, so the loop unrolls. Out of line, so that the caller's code cannot swap
    // the operands of its sums (which picks the other NaN of two).
    template <int Fixed = 0>
    __attribute__((noinline)) std::complex<double> apply(const std::complex<double>* data) const {
        const int n = Fixed > 0 ? Fixed : count;
        if (n == 0) return 0.0;
        using lanes::Double2;
        const auto term = [&](int c) {
            return lanes::load<Double2>(reinterpret_cast<const double*>(data + offset[c])) *
                   lanes::splat<Double2>(weight[c]);
        };
        Double2 sum = term(0);
        for (int c = 1; c < n; ++c) sum = sum + term(c);
        return {sum[0], sum[1]};
    }
};

}  // namespace mrkit
