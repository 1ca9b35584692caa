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
#include "recon/toolkit/corners.hpp"

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

// One volume times the table; real and imaginary parts in one pass over the table.
void scale(const float* re, const float* im, const float* table, std::size_t n, float* outRe,
           float* outIm) {
    if (!im) {
        for (std::size_t e = 0; e < n; ++e) outRe[e] = re[e] * table[e];
        return;
    }
    for (std::size_t e = 0; e < n; ++e) {
        outRe[e] = re[e] * table[e];
        outIm[e] = im[e] * table[e];
    }
}

// Each sample d of one row becomes Re(d * conj(l)) / |l| in the order of operations the
// results are fixed to; lr, li hold the row's low-resolution values (li null: real). Templated
// on the complexities so the loop carries no branches and vectorises.
template <bool kDataComplex, bool kLowComplex, bool kZeroIm>
void remove_phase_row(const float* re, const float* im, const float* lr, const float* li, int n,
                      float* outRe, float* outIm) {
    for (int i = 0; i < n; ++i) {
        const float l = lr[i], q = kLowComplex ? li[i] : 0.0f;
        const float m = kLowComplex ? sqrtf(l * l + q * q) : sqrtf(l * l);
        const float c = l / m;
        const float s = kLowComplex ? (-q) / m : 0.0f;
        if (kDataComplex) {
            const float dr = re[i], di = im[i];
            outRe[i] = (c * dr) - s * di;
            if (kZeroIm) outIm[i] = 0.0f;
        } else {
            outRe[i] = c * re[i];
        }
    }
}

// Phase removal over all volumes, in parallel. lowRow(v, j, k, e, scratchRe, scratchIm, lr, li)
// points lr, li (li only for complex low-resolution data) at the low-resolution values of the
// data row (j, k) of volume v starting at flat index e, filling the thread's scratch rows when
// it has to compute them (rows of nx floats only when `interpolating`).
template <class LowRow>
void remove_phase(const float* re, const float* im, bool lowComplex, bool interpolating,
                  const LowRow& lowRow, const int* n, int nvol, float* outRe, float* outIm) {
    const int nx = n[0], ny = n[1], nz = n[2];
    const auto row = [&](auto dataComplex, auto lowIsComplex, auto zeroIm, std::size_t e,
                         const float* lr, const float* li) {
        remove_phase_row<dataComplex, lowIsComplex, zeroIm>(re + e, dataComplex ? im + e : nullptr,
                                                            lr, li, nx, outRe + e,
                                                            zeroIm ? outIm + e : nullptr);
    };
    mrkit::parallel_blocks(nvol, [&](int begin, int end) {
        std::vector<float> scratchRe(interpolating ? nx : 0),
            scratchIm(interpolating && lowComplex ? nx : 0);
        const std::size_t volume = static_cast<std::size_t>(nx) * ny * nz;
        for (int v = begin; v < end && !mrkit::interrupted(); ++v) {
            for (int k = 0; k < nz; ++k) {
                for (int j = 0; j < ny; ++j) {
                    const std::size_t e = v * volume + (static_cast<std::size_t>(k) * ny + j) * nx;
                    const float *lr, *li = nullptr;
                    lowRow(v, j, k, e, scratchRe.data(), scratchIm.data(), lr, li);
                    const auto pick = [&](auto lowIsComplex) {
                        const std::true_type yes;
                        const std::false_type no;
                        if (!im)
                            row(no, lowIsComplex, no, e, lr, li);
                        else if (outIm)
                            row(yes, lowIsComplex, yes, e, lr, li);
                        else
                            row(yes, lowIsComplex, no, e, lr, li);
                    };
                    if (lowComplex)
                        pick(std::true_type());
                    else
                        pick(std::false_type());
                }
            }
        }
    });
}

// Integer part and fraction of every sample position along one axis, as
// MR_linear_interpolation splits its coordinates.
void split_positions(const float* pos, int n, int* corner, float* fraction) {
    for (int i = 0; i < n; ++i) {
        corner[i] = static_cast<int>(pos[i]);
        fraction[i] = pos[i] - static_cast<float>(corner[i]);
    }
}

// The interpolation of MR_linear_interpolation over one data row, by the corner rule of
// corners.hpp. Sample i has the lower corner b = rowBase + cx[i] (rowBase + i when kContiguous)
// and the fraction tx[i] along the row; t2, t3 are the row's fractions. Samples that read the
// first kCount corners all (eight, or the lower four) go through a loop of fixed length, which
// vectorises; the rest, at the end of the block, take the rule's corners one sample at a time.
template <int kCount, bool kContiguous>
void interpolate_run(const float* block, int rowBase, const int* cx, const float* tx, float t2,
                     float t3, int lx, int plane, int begin, int end, float* out) {
    int offsets[8];
    for (int c = 0; c < 8; ++c) offsets[c] = mrkit::corner_offset(c, lx, plane);
    const float w2[2] = {1.0f - t2, t2}, w3[2] = {1.0f - t3, t3};
    for (int i = begin; i < end; ++i) {
        const float* d = block + rowBase + (kContiguous ? i : cx[i]);
        const float w1[2] = {1.0f - tx[i], tx[i]};
        float sum = d[0] * mrkit::corner_weight(0, w1, w2, w3);
        for (int c = 1; c < kCount; ++c) sum += d[offsets[c]] * mrkit::corner_weight(c, w1, w2, w3);
        out[i] = sum;
    }
}

template <bool kContiguous>
void interpolate_row(const float* block, int rowBase, const int* cx, const float* tx, float t2,
                     float t3, int lx, int plane, int N, int nx, float* out) {
    // Lower corners rise along the row (cx is non-decreasing) and the readable count falls.
    const auto readable = [&](int i) {
        return mrkit::readable_corners(rowBase + cx[i], lx, plane, N);
    };
    const auto end_of = [&](int begin, int count) {
        int lo = begin, hi = nx;
        while (lo < hi) {
            const int mid = lo + (hi - lo) / 2;
            if (readable(mid) == count)
                lo = mid + 1;
            else
                hi = mid;
        }
        return lo;
    };
    const int all8 = end_of(0, 8);
    interpolate_run<8, kContiguous>(block, rowBase, cx, tx, t2, t3, lx, plane, 0, all8, out);
    int done = all8;
    if (all8 < nx && readable(all8) == 4) {
        done = end_of(all8, 4);
        interpolate_run<4, kContiguous>(block, rowBase, cx, tx, t2, t3, lx, plane, all8, done, out);
    }
    for (int i = done; i < nx; ++i)
        out[i] = mrkit::Corners<float>(rowBase + cx[i], lx, plane, N, tx[i], t2, t3)
                     .apply<float>([block](int q) { return block[q]; });
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
    for (int i = 0; filter && i < n; ++i) {
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
        if (weights) std::fill(weights, weights + std::max(n[d], 0), 1.0f);
        edges[d][0] = 0;
        edges[d][1] = 0;
        const double* range = ranges[d];
        const double sum = range ? range[0] + range[1] : 0.0;
        // Ranges symmetric within one sample (and NaN sums) need no weighting: whole axis.
        if (range && (sum > 1.0 || sum < -1.0))
            count += calculate_filter(n[d], range, weights, edges[d]) != 0;
        else
            edges[d][1] = n[d] - 1;
        if (weights) weights += std::max(n[d], 0);
    }
    return count;
}

std::size_t homodyne_weight_count(const int* n) {
    if (n[0] < 1 || n[1] < 1 || n[2] < 1) return 0;
    return static_cast<std::size_t>(n[0]) + n[1] + n[2];
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
        for (int v = begin; v < end && !mrkit::interrupted(); ++v) {
            const std::size_t offset = v * volume;
            scale(re + offset, im ? im + offset : nullptr, t, volume, outRe + offset,
                  im ? outIm + offset : nullptr);
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
    // Scratch and positions are sized by the axes: none for data without elements.
    if (nvol < 1 || n[0] < 1 || n[1] < 1 || n[2] < 1) return;
    const bool lowComplex = lowIm != nullptr;
    if (std::equal(dims, dims + ndims, lowDims)) {
        const auto lowRow = [&](int, int, int, std::size_t e, float*, float*, const float*& lr,
                                const float*& li) {
            lr = lowRe + e;
            if (lowComplex) li = lowIm + e;
        };
        remove_phase(re, im, lowComplex, false, lowRow, n, nvol, outRe, outIm);
        return;
    }
    // Positions of the data samples in low-resolution sample units (both grids share their
    // first and last samples), split once per call rather than once per sample.
    std::vector<int> corner[3];
    std::vector<float> fraction[3];
    for (int d = 0; d < 3; ++d) {
        const std::unique_ptr<float[]> pos(MR_linspace(0.0f, static_cast<float>(l[d] - 1), n[d]));
        corner[d].resize(n[d]);
        fraction[d].resize(n[d]);
        split_positions(pos.get(), n[d], corner[d].data(), fraction[d].data());
    }
    const int *cx = corner[0].data(), *cy = corner[1].data(), *cz = corner[2].data();
    const float *tx = fraction[0].data(), *ty = fraction[1].data(), *tz = fraction[2].data();
    const int lx = l[0], plane = l[0] * l[1], block = plane * l[2];
    // Rows along x that are not resampled read their corners contiguously (vectorised).
    bool contiguous = true;
    for (int i = 0; i < n[0]; ++i) contiguous = contiguous && cx[i] == i;
    const auto lowRow = [&](int v, int j, int k, std::size_t, float* scratchRe, float* scratchIm,
                            const float*& lr, const float*& li) {
        const int rowBase = lx * cy[j] + plane * cz[k];
        const std::size_t base = static_cast<std::size_t>(v) * block;
        const auto row = [&](const float* from, float* to) {
            if (contiguous)
                interpolate_row<true>(from + base, rowBase, cx, tx, ty[j], tz[k], lx, plane, block,
                                      n[0], to);
            else
                interpolate_row<false>(from + base, rowBase, cx, tx, ty[j], tz[k], lx, plane, block,
                                       n[0], to);
        };
        row(lowRe, scratchRe);
        lr = scratchRe;
        if (lowComplex) {
            row(lowIm, scratchIm);
            li = scratchIm;
        }
    };
    remove_phase(re, im, lowComplex, true, lowRow, n, nvol, outRe, outIm);
}
