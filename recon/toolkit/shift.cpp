// In-place centre shifts along one of the first three dimensions.
//
// A shift is a left rotation of contiguous runs (a column, a plane or a whole volume): the tail
// of b samples is parked in a per-thread scratch buffer, the head of a samples slides up by
// b with one overlap-safe move, and the parked tail goes to the front: three block copies per
// run, never a loop over samples.
#include <cstddef>
#include <cstring>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {

using Index = std::ptrdiff_t;

struct Geometry {
    Index nx, ny, nz;
    int nvol;
};

Geometry geometry(const int* dims, int ndims) {
    Geometry g{dims[0], dims[1], ndims >= 3 ? dims[2] : 1, 1};
    for (int d = 3; d < ndims; ++d) g.nvol *= dims[d];
    return g;
}

// Rotates every run of one block left by a samples. Runs of a volume lie `step` apart; b
// samples of each run are parked, so one buffer of exactly b floats per thread serves them all
// (up to half a volume: allocated before the region).
void rotate_runs(float* data, int nvol, Index volStride, Index runsPerVol, Index step, Index a,
                 Index b) {
    const mrkit::ThreadScratch<float> scratch(nvol, static_cast<std::size_t>(b));
    mrkit::parallel_blocks(nvol, [&](int begin, int end) {
        if (begin >= end) return;
        float* const parked = scratch.get();
        for (int v = begin; v < end && !mrkit::interrupted(); ++v) {
            float* p = data + v * volStride;
            for (Index r = 0; r < runsPerVol; ++r, p += step) {
                std::memcpy(parked, p + a, b * sizeof(float));
                std::memmove(p + b, p, a * sizeof(float));
                std::memcpy(p, parked, b * sizeof(float));
            }
        }
    });
}

// axis: 0, 1 or 2 for the function's own dimension; `forward` picks the ceil(n/2) rotation.
void shift(float* re, float* im, const int* dims, int ndims, int dim, int axis, bool forward) {
    const Geometry g = geometry(dims, ndims);
    // An array without elements has nothing to move, however long its other dimensions.
    if (g.nx <= 0 || g.ny <= 0 || g.nz <= 0 || g.nvol <= 0) return;
    const Index n = dims[dim - 1];
    const Index unit = axis == 0 ? 1 : axis == 1 ? g.nx : g.nx * g.ny;
    const Index step = axis == 0 ? g.nx : axis == 1 ? g.nx * g.ny : g.nx * g.ny * g.nz;
    const Index runsPerVol = axis == 0 ? g.ny * g.nz : axis == 1 ? g.nz : 1;
    const Index a = (forward ? (n + 1) / 2 : n / 2) * unit;
    const Index b = n * unit - a;
    const Index volStride = g.nx * g.ny * g.nz;
    rotate_runs(re, g.nvol, volStride, runsPerVol, step, a, b);
    if (im) rotate_runs(im, g.nvol, volStride, runsPerVol, step, a, b);
}

}  // namespace

void MR_fftshift_dim1(float* re, float* im, const int* dims, int ndims, int dim) {
    shift(re, im, dims, ndims, dim, 0, true);
}
void MR_fftshift_dim2(float* re, float* im, const int* dims, int ndims, int dim) {
    shift(re, im, dims, ndims, dim, 1, true);
}
void MR_fftshift_dim3(float* re, float* im, const int* dims, int ndims, int dim) {
    shift(re, im, dims, ndims, dim, 2, true);
}
void MR_ifftshift_dim1(float* re, float* im, const int* dims, int ndims, int dim) {
    shift(re, im, dims, ndims, dim, 0, false);
}
void MR_ifftshift_dim2(float* re, float* im, const int* dims, int ndims, int dim) {
    shift(re, im, dims, ndims, dim, 1, false);
}
void MR_ifftshift_dim3(float* re, float* im, const int* dims, int ndims, int dim) {
    shift(re, im, dims, ndims, dim, 2, false);
}

namespace {
using ShiftFn = void (*)(float*, float*, const int*, int, int);

// Any dim outside 1..3 is ignored: there is nothing to shift along it.
void dispatch(const ShiftFn (&perDim)[3], float* re, float* im, const int* dims, int ndims,
              int dim) {
    if (dim >= 1 && dim <= 3) perDim[dim - 1](re, im, dims, ndims, dim);
}
}  // namespace

void MR_fftshift(float* re, float* im, const int* dims, int ndims, int dim) {
    static constexpr ShiftFn perDim[3] = {MR_fftshift_dim1, MR_fftshift_dim2, MR_fftshift_dim3};
    dispatch(perDim, re, im, dims, ndims, dim);
}

void MR_ifftshift(float* re, float* im, const int* dims, int ndims, int dim) {
    static constexpr ShiftFn perDim[3] = {MR_ifftshift_dim1, MR_ifftshift_dim2, MR_ifftshift_dim3};
    dispatch(perDim, re, im, dims, ndims, dim);
}
