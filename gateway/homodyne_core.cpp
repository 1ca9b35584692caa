// Numeric cores of the homodyne commands. The float steps and their order fix the results to
// the last bit; do not regroup products or replace divisions by reciprocals.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "gateway/homodyne.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {

// (int) x as x86-64 computes it (NaN and out-of-range values give INT32_MIN), without the
// undefined behaviour of the language conversion.
int truncate_to_int(double x) {
    if (!(x > -2147483649.0 && x < 2147483648.0)) return INT32_MIN;
    return static_cast<int>(x);
}

// 32-bit wrap-around arithmetic, as the plain int expressions give on the target.
int wrap(uint32_t x) {
    return static_cast<int32_t>(x);
}

bool same_bits(float a, float b) {
    uint32_t x, y;
    std::memcpy(&x, &a, sizeof x);
    std::memcpy(&y, &b, sizeof y);
    return x == y;
}

// Rows r in [begin, end) (r = j + ny * k) of the per-volume weight table. powf is a pure
// function, so a product equal in every bit to the previous one reuses its result: unfiltered
// axes and the flat parts of the filters cost one powf per run instead of one per sample.
void fill_weight_rows(const float* fx, const float* fy, const float* fz, int nx, int ny,
                      float exponent, int begin, int end, float* table) {
    for (int r = begin; r < end; ++r) {
        const float wy = fy[r % ny], wz = fz[r / ny];
        float* row = table + static_cast<std::size_t>(r) * nx;
        float last = (fx[0] * wy) * wz;
        float g = powf(last, exponent);
        for (int i = 0; i < nx; ++i) {
            const float p = (fx[i] * wy) * wz;
            if (!same_bits(p, last)) {
                last = p;
                g = powf(p, exponent);
            }
            row[i] = g;
        }
    }
}

void scale(const float* in, const float* table, std::size_t n, float* out) {
    for (std::size_t e = 0; e < n; ++e) out[e] = in[e] * table[e];
}

// Each sample d becomes Re(d * conj(l)) / |l| in the order of operations the results are
// fixed to. Templated on the complexities so the per-sample loop carries no branches.
template <bool kDataComplex, bool kLowComplex, bool kZeroIm, class Low>
void remove_phase(const float* re, const float* im, const float* lowRe, const float* lowIm,
                  const Low& low, const int* n, int begin, int end, float* outRe, float* outIm) {
    const int nx = n[0], ny = n[1], nz = n[2];
    const std::size_t volume = static_cast<std::size_t>(nx) * ny * nz;
    for (int v = begin; v < end; ++v) {
        std::size_t e = static_cast<std::size_t>(v) * volume;
        for (int k = 0; k < nz; ++k) {
            for (int j = 0; j < ny; ++j) {
                for (int i = 0; i < nx; ++i, ++e) {
                    const float lr = low(lowRe, i, j, k, v, e);
                    const float li = kLowComplex ? low(lowIm, i, j, k, v, e) : 0.0f;
                    const float m = kLowComplex ? sqrtf(lr * lr + li * li) : sqrtf(lr * lr);
                    const float c = lr / m;
                    const float s = kLowComplex ? (-li) / m : 0.0f;
                    if (kDataComplex) {
                        const float dr = re[e], di = im[e];
                        outRe[e] = (c * dr) - s * di;
                        if (kZeroIm) outIm[e] = 0.0f;
                    } else {
                        outRe[e] = c * re[e];
                    }
                }
            }
        }
    }
}

template <class Low>
void remove_phase_parallel(const float* re, const float* im, const float* lowRe, const float* lowIm,
                           const Low& low, const int* n, int nvol, float* outRe, float* outIm) {
    mrkit::parallel_blocks(nvol, [&](int begin, int end) {
        if (!im) {
            if (lowIm)
                remove_phase<false, true, false>(re, im, lowRe, lowIm, low, n, begin, end, outRe,
                                                 outIm);
            else
                remove_phase<false, false, false>(re, im, lowRe, lowIm, low, n, begin, end, outRe,
                                                  outIm);
        } else if (outIm) {
            if (lowIm)
                remove_phase<true, true, true>(re, im, lowRe, lowIm, low, n, begin, end, outRe,
                                               outIm);
            else
                remove_phase<true, false, true>(re, im, lowRe, lowIm, low, n, begin, end, outRe,
                                                outIm);
        } else {
            if (lowIm)
                remove_phase<true, true, false>(re, im, lowRe, lowIm, low, n, begin, end, outRe,
                                                outIm);
            else
                remove_phase<true, false, false>(re, im, lowRe, lowIm, low, n, begin, end, outRe,
                                                 outIm);
        }
    });
}

}  // namespace

int calculate_filter(int n, const double* range, float* filter, int* edges) {
    const int a = truncate_to_int(range[0]);
    const int b = truncate_to_int(range[1]);
    const int lo = static_cast<int>(ceilf(static_cast<float>(n) * -0.5f));
    const int hi = static_cast<int>(ceilf(static_cast<float>(n) * 0.5f)) - 1;
    const int extent = wrap(static_cast<uint32_t>(b) - static_cast<uint32_t>(a) + 1u);
    const int full = wrap(2u * static_cast<uint32_t>(std::max(a, b)) + 1u);
    const float ratio = static_cast<float>(extent) / static_cast<float>(full);

    // The band is located among the coordinates lo .. hi - 1 only (the last one is left out),
    // so a range whose first coordinate or its mirror falls outside has no band: rejected.
    const int64_t mirror = -static_cast<int64_t>(a);
    if (a < lo || a >= hi || mirror < lo || mirror >= hi) return 0;
    if (!(static_cast<double>(ratio) >= 0.55 && ratio < 1.0f)) return 0;

    const int pA = a - lo, pM = static_cast<int>(mirror - lo), pC = -lo;
    const int w = pM - pC;
    for (int i = 0; i < n; ++i) {
        float f = filter[i];
        if (i <= pA) f = 0.0f;
        if (i >= pM) f = 2.0f;
        if (pA < i && i < pC) {
            const float t =
                (static_cast<float>(pC) - static_cast<float>(i)) / static_cast<float>(w);
            f = 2.0f - (t * t + 1.0f);
        }
        if (pC <= i && i < pM) {
            const float t =
                (static_cast<float>(i) - static_cast<float>(pC)) / static_cast<float>(w);
            f = t * t + 1.0f;
        }
        filter[i] = f;
    }
    edges[0] = pA;
    edges[1] = pM;
    return 1;
}

int homodyne_volume_sizes(int ndims, const int* dims, int* n) {
    for (int d = 0; d < 3; ++d) n[d] = d < ndims ? dims[d] : 1;
    int nvol = 1;
    for (int d = 3; d < ndims; ++d) nvol *= dims[d];
    return nvol;
}

int homodyne_filter_setup(const int* n, const double* const* ranges, float* weights,
                          int (*edges)[2]) {
    int count = 0;
    for (int d = 0; d < 3; ++d) {
        std::fill(weights, weights + std::max(n[d], 0), 1.0f);
        edges[d][0] = 0;
        edges[d][1] = 0;
        const double* range = ranges[d];
        const double sum = range ? range[0] + range[1] : 0.0;
        // Ranges symmetric within one sample (and NaN sums) need no weighting: whole axis.
        if (range && (sum > 1.0 || sum < -1.0))
            count += calculate_filter(n[d], range, weights, edges[d]) != 0;
        else
            edges[d][1] = n[d] - 1;
        weights += std::max(n[d], 0);
    }
    return count;
}

void homodyne_band_dims(int ndims, const int* dims, const int (*edges)[2], int* bandDims) {
    for (int d = 0; d < ndims; ++d) bandDims[d] = d < 3 ? edges[d][1] - edges[d][0] + 1 : dims[d];
}

void homodyne_crop(const float* re, const float* im, const int* n, int nvol, const int (*edges)[2],
                   float* outRe, float* outIm) {
    const int nx = n[0], ny = n[1], nz = n[2];
    // A rejected range on an axis of size 0 leaves a band of one sample that the input does
    // not hold; the band block then keeps its zeros.
    if (nvol < 1 || nx < 1 || ny < 1 || nz < 1) return;
    const int xs = edges[0][0], ys = edges[1][0], zs = edges[2][0];
    const int onx = edges[0][1] - xs + 1, ony = edges[1][1] - ys + 1, onz = edges[2][1] - zs + 1;
    const std::size_t volume = static_cast<std::size_t>(nx) * ny * nz;
    std::size_t out = 0;
    for (int v = 0; v < nvol; ++v) {
        for (int k = 0; k < onz; ++k) {
            for (int j = 0; j < ony; ++j, out += onx) {
                const std::size_t in =
                    v * volume + (static_cast<std::size_t>(k + zs) * ny + (j + ys)) * nx + xs;
                std::memcpy(outRe + out, re + in, onx * sizeof(float));
                if (im) std::memcpy(outIm + out, im + in, onx * sizeof(float));
            }
        }
    }
}

void homodyne_weight(const float* re, const float* im, const int* n, int nvol, const float* weights,
                     int count, float* outRe, float* outIm) {
    const int nx = n[0], ny = n[1], nz = n[2];
    if (nvol < 1 || nx < 1 || ny < 1 || nz < 1) return;
    const float* fx = weights;
    const float* fy = fx + nx;
    const float* fz = fy + ny;
    // count 0 gives the exponent +inf and powf(1, inf) = 1: the data is multiplied by 1.
    const float exponent = 1.0f / static_cast<float>(count);
    const std::size_t volume = static_cast<std::size_t>(nx) * ny * nz;
    // The weight of a sample depends only on its place in the volume: one table, built by all
    // threads together, serves every volume.
    std::vector<float> table(volume);
    float* t = table.data();
    mrkit::parallel_blocks(nvol, [&](int begin, int end) {
        int rowBegin, rowEnd;
        mrkit::static_block(ny * nz, omp_get_thread_num(), omp_get_num_threads(), rowBegin, rowEnd);
        fill_weight_rows(fx, fy, fz, nx, ny, exponent, rowBegin, rowEnd, t);
#pragma omp barrier
        for (int v = begin; v < end; ++v) {
            const std::size_t offset = v * volume;
            scale(re + offset, t, volume, outRe + offset);
            if (im) scale(im + offset, t, volume, outIm + offset);
        }
    });
}

bool homodyne_low_res_fits(int ndims, const int* dims, const int* lowDims) {
    if (std::equal(dims, dims + ndims, lowDims)) return true;
    for (int d = 0; d < ndims; ++d)
        if (d < 3 ? lowDims[d] < 1 : lowDims[d] != dims[d]) return false;
    return true;
}

void homodyne_multiply(const float* re, const float* im, const float* lowRe, const float* lowIm,
                       int ndims, const int* dims, const int* lowDims, float* outRe, float* outIm) {
    int n[3], l[3];
    const int nvol = homodyne_volume_sizes(ndims, dims, n);
    homodyne_volume_sizes(ndims, lowDims, l);
    if (nvol < 1) return;
    const std::size_t lowVolume = static_cast<std::size_t>(l[0]) * l[1] * l[2];
    if (std::equal(dims, dims + ndims, lowDims)) {
        const auto low = [](const float* block, int, int, int, int, std::size_t e) {
            return block[e];
        };
        remove_phase_parallel(re, im, lowRe, lowIm, low, n, nvol, outRe, outIm);
        return;
    }
    // Positions of the data samples in low-resolution sample units; both grids share their
    // first and last samples.
    const std::unique_ptr<float[]> posX(MR_linspace(0.0f, static_cast<float>(l[0] - 1), n[0]));
    const std::unique_ptr<float[]> posY(MR_linspace(0.0f, static_cast<float>(l[1] - 1), n[1]));
    const std::unique_ptr<float[]> posZ(MR_linspace(0.0f, static_cast<float>(l[2] - 1), n[2]));
    const float *px = posX.get(), *py = posY.get(), *pz = posZ.get();
    const auto low = [&](const float* block, int i, int j, int k, int v, std::size_t) {
        return MR_linear_interpolation(block + v * lowVolume, py[j], px[i], pz[k], l);
    };
    remove_phase_parallel(re, im, lowRe, lowIm, low, n, nvol, outRe, outIm);
}
