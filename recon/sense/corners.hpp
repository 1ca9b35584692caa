// Trilinear interpolation of many grids at one position: the readable corners and their weight
// products are found once and then applied to every coil or factor block. The corner rule, the
// weight products and the summation order are those of MR_linear_interpolation, so every
// result is bit-identical to a call of it; only the repeated set-up is saved.
#pragma once

#include <complex>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace mrkit {

template <class Weight>
struct Corners {
    int count = 0;  // corners read, in the order b, b+1, b+nx, b+nx+1, then the same + plane
    int offset[8] = {};
    Weight weight[8] = {};

    // Corner b and fractions t1 (+1), t2 (+nx), t3 (+plane); corners at index N or beyond drop
    // out, tested from the highest flat index down without renormalising.
    Corners(int b, int nx, int plane, int N, Weight t1, Weight t2, Weight t3) {
        int readable = 0;
        if (b + nx + 1 + plane < N)
            readable = 8;
        else if (b + nx + plane < N)
            readable = 7;
        else if (b + 1 + plane < N)
            readable = 6;
        else if (b + plane < N)
            readable = 5;
        else if (b + nx + 1 < N)
            readable = 4;
        else if (b + nx < N)
            readable = 3;
        else if (b + 1 < N)
            readable = 2;
        else if (b < N)
            readable = 1;
        const Weight one = 1;
        const int offsets[8] = {0, 1, nx, nx + 1, plane, 1 + plane, nx + plane, nx + 1 + plane};
        for (int c = 0; c < readable; ++c) {
            // With one row per plane (+nx == +plane) corner b+nx+1 can pass the end while
            // b+plane does not; it drops out like every corner past the end.
            if (b + offsets[c] >= N) continue;
            const Weight w1 = (c & 1) ? t1 : one - t1;
            const Weight w2 = (c & 2) ? t2 : one - t2;
            const Weight w3 = (c & 4) ? t3 : one - t3;
            offset[count] = b + offsets[c];
            weight[count++] = w1 * w2 * w3;
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
#if defined(__SSE2__)
        const auto term = [&](int c) {
            return _mm_mul_pd(_mm_loadu_pd(reinterpret_cast<const double*>(data + offset[c])),
                              _mm_set1_pd(weight[c]));
        };
        __m128d sum = term(0);
        for (int c = 1; c < n; ++c) sum = _mm_add_pd(sum, term(c));
        alignas(16) double out[2];
        _mm_store_pd(out, sum);
        return {out[0], out[1]};
#else
        return sum<std::complex<double>, Fixed>([data](int q) { return data[q]; }, n);
#endif
    }
};

}  // namespace mrkit
