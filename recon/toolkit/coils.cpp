// Coil combination along any dimension: root sum of squares and its phase-corrected form.
//
// Output sample i combines the input samples b(i) + c*S, c = 0 .. C-1, where S is the stride
// of the coil dimension and b(i) skips the coil blocks of the samples before it.
#include <algorithm>
#include <cmath>
#include <cstddef>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {
using Index = std::ptrdiff_t;

struct CoilLayout {
    Index coils;   // C
    Index stride;  // S
    int outputs;   // P
};

CoilLayout coil_layout(int nOutDims, const int* dims, int coilDim, const int* outDims) {
    CoilLayout l{dims[coilDim - 1], 1, 1};
    for (int d = 0; d < coilDim - 1; ++d) l.stride *= dims[d];
    for (int d = 0; d < nOutDims; ++d) l.outputs *= outDims[d];
    return l;
}

inline Index first_coil(Index i, const CoilLayout& l) {
    return i + (i / l.stride) * l.stride * (l.coils - 1);
}

// Outputs per tile when the coil stride is long enough to sweep coils outermost: the tile of
// `out` stays in L1 while each coil streams through it.
constexpr Index kTile = 1024;

// Each out[i] receives re^2 then im^2 of coil 0, coil 1, ... in this order, onto the value the
// caller left there, then its square root. Both sweeps below keep that order per output.

// Short coil stride: coil samples of neighbouring outputs interleave, so outputs are summed
// one by one, eight at a time so that their addition chains overlap.
template <bool HasIm>
void sos_short_stride(const float* re, const float* im, const CoilLayout& l, float* out,
                      Index begin, Index end) {
    constexpr int kLanes = 8;
    const Index C = l.coils, S = l.stride;
    Index i = begin;
    for (; i + kLanes <= end; i += kLanes) {
        Index b[kLanes];
        float acc[kLanes];
        for (int k = 0; k < kLanes; ++k) {
            b[k] = first_coil(i + k, l);
            acc[k] = out[i + k];
        }
        for (Index c = 0; c < C; ++c)
            for (int k = 0; k < kLanes; ++k) {
                const float r = re[b[k] + c * S];
                acc[k] += r * r;
                if (HasIm) {
                    const float q = im[b[k] + c * S];
                    acc[k] += q * q;
                }
            }
        for (int k = 0; k < kLanes; ++k) out[i + k] = std::sqrt(acc[k]);
    }
    for (; i < end; ++i) {
        const Index b = first_coil(i, l);
        float acc = out[i];
        for (Index c = 0; c < C; ++c) {
            const float r = re[b + c * S];
            acc += r * r;
            if (HasIm) {
                const float q = im[b + c * S];
                acc += q * q;
            }
        }
        out[i] = std::sqrt(acc);
    }
}

// Long coil stride: outputs within one run of S have contiguous coil-0 samples, so the coils
// are swept outermost over a tile and every input streams through once.
template <bool HasIm>
void sos_long_stride(const float* re, const float* im, const CoilLayout& l, float* out, Index begin,
                     Index end) {
    const Index C = l.coils, S = l.stride;
    for (Index i0 = begin; i0 < end;) {
        const Index i1 = std::min<Index>({end, i0 + kTile, (i0 / S + 1) * S});
        const Index n = i1 - i0;
        const Index b0 = first_coil(i0, l);
        float* o = out + i0;
        for (Index c = 0; c < C; ++c) {
            const float* r = re + b0 + c * S;
            const float* q = HasIm ? im + b0 + c * S : nullptr;
            for (Index k = 0; k < n; ++k) {
                float acc = o[k] + r[k] * r[k];
                if (HasIm) acc = acc + q[k] * q[k];
                o[k] = acc;
            }
        }
        for (Index k = 0; k < n; ++k) o[k] = std::sqrt(o[k]);
        i0 = i1;
    }
}

template <bool HasIm>
void sos_blocks(const float* re, const float* im, const CoilLayout& l, float* out) {
    mrkit::parallel_blocks(l.outputs, [&](int begin, int end) {
        if (l.stride < 16)
            sos_short_stride<HasIm>(re, im, l, out, begin, end);
        else
            sos_long_stride<HasIm>(re, im, l, out, begin, end);
    });
}
}  // namespace

void MR_perform_sos(const float* re, const float* im, int nOutDims, const int* dims, int coilDim,
                    float* out, const int* outDims) {
    const CoilLayout l = coil_layout(nOutDims, dims, coilDim, outDims);
    if (im)
        sos_blocks<true>(re, im, l, out);
    else
        sos_blocks<false>(re, im, l, out);
}

void MR_perform_pcsos(const float* re, const float* im, int nOutDims, const int* dims, int coilDim,
                      float* outRe, float* outIm, const int* outDims) {
    const CoilLayout l = coil_layout(nOutDims, dims, coilDim, outDims);
    const Index C = l.coils, S = l.stride;
    // The tenth dimension is the one averaged over, whatever the array's rank.
    const Index E = dims[9];
    Index Q9 = 1;
    for (int d = 0; d < 9; ++d) Q9 *= dims[d];
    const Index Q10 = Q9 * E;
    const float count = static_cast<float>(E);

    mrkit::parallel_blocks(l.outputs, [&](int begin, int end) {
        for (Index i = begin; i < end; ++i) {
            const Index b = first_coil(i, l);
            float sumSq = 0.0f, accRe = 0.0f, accIm = 0.0f;
            // Without coils or averaging samples nothing is read, and Q10 may be 0.
            Index q = 0;
            if (C > 0 && Q10 > 0) {
                const Index r = b % Q10;
                if (r >= Q9) q = r / Q9 * Q9;
            }
            for (Index c = 0; c < C; ++c) {
                const Index j = b + c * S;
                const Index j0 = j - q;
                float sumMag = 0.0f;
                for (Index k = 0; k < E; ++k) {
                    const float x = re[j0 + k * Q9];
                    float sq = 0.0f + x * x;
                    if (im) {
                        const float y = im[j0 + k * Q9];
                        sq = sq + y * y;
                    }
                    sumMag += std::sqrt(sq);
                }
                const float m = sumMag / count;
                sumSq += re[j] * re[j];
                accRe += re[j] * m;
                if (im) {
                    sumSq += im[j] * im[j];
                    accIm += im[j] * m;
                }
            }
            const float mag = std::sqrt(sumSq);
            const float phi = std::atan2(accIm, accRe);
            float s, co;
            sincosf(phi, &s, &co);
            outRe[i] = mag * co;
            outIm[i] = mag * s;
        }
    });
}
