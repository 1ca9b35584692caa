// Homodyne processing of partial-Fourier k-space: the numeric cores of the MEX commands "filter"
// and "multiply", callable from any C++ program without a MATLAB or Octave host.
//
// Arrays are split-complex float blocks, column-major; dimensions 1-3 are the k-space or image
// axes and every dimension from the fourth on counts as an independent volume. A null imaginary
// pointer means real data. Every core reads its input blocks and writes separate output blocks:
// passing the input blocks as outputs gives the in-place behaviour of the MEX commands. Sizes
// and pointers are trusted; callers validate at their own boundary.
#pragma once

#include <cstddef>

// One-dimensional homodyne weighting of n centred k-space samples whose first and last sampled
// coordinates are range[0] and range[1]: 0 up to the first sampled coordinate a, 1 - (k/a)^2
// up to the centre, 1 + (k/a)^2 up to the mirror -a, 2 from there on. Returns 1 and writes
// filter[0..n-1] and edges = (index of a, index of -a); returns 0 and touches nothing when the
// range is rejected (its missing part is not on the low side, or it is nearly symmetric).
// A null filter gives the edges alone.
int calculate_filter(int n, const double* range, float* filter, int* edges);

// The first three sizes of an ndims-dimensional array (1 where it has fewer) into n[3]; returns
// the number of volumes, the product of the sizes from the fourth on.
int homodyne_volume_sizes(int ndims, const int* dims, int* n);

// Weights and symmetric band of the three k-space axes for the sizes n[3]. ranges[d] is null
// when that axis has no range. weights receives n[0] + n[1] + n[2] floats (x, then y, then z),
// edges[d] the first and last index of the band. Returns how many axes were filtered. For
// data without elements weights may be null (homodyne_weight_count): the edges are found
// without them.
int homodyne_filter_setup(const int* n, const double* const* ranges, float* weights,
                          int (*edges)[2]);

// Floats homodyne_filter_setup writes: n[0] + n[1] + n[2], or none when the data holds no
// elements (an empty array may have one huge dimension).
std::size_t homodyne_weight_count(const int* n);

// Sizes of the band block: the band length for each of the first three dimensions, the data's
// sizes from the fourth on.
void homodyne_band_dims(int ndims, const int* dims, const int (*edges)[2], int* bandDims);

// Copies the unweighted band of every volume into the band block (sizes from homodyne_band_dims).
// outIm is left as it is when the input is real (im null).
void homodyne_crop(const float* re, const float* im, const int* n, int nvol, const int (*edges)[2],
                   float* outRe, float* outIm);

// Multiplies every sample by the geometric mean of its per-axis weights:
// out = in * powf((fx * fy) * fz, 1 / count). Parallel over volumes.
void homodyne_weight(const float* re, const float* im, const int* n, int nvol, const float* weights,
                     int count, float* outRe, float* outIm);

// Removes the phase of the low-resolution image from the image and keeps the real part:
// out = Re(d * conj(l)) / |l|. A low-resolution image of other size is linearly interpolated
// onto the image grid first. outIm, when not null, is zeroed (the in-place form on complex
// data). Parallel over volumes.
void homodyne_multiply(const float* re, const float* im, const float* lowRe, const float* lowIm,
                       int ndims, const int* dims, const int* lowDims, float* outRe, float* outIm);

// True when homodyne_multiply can read a low-resolution image of these sizes for the data:
// equal sizes, or no empty dimension among the first three and the data's sizes from the
// fourth on.
bool homodyne_low_res_fits(int ndims, const int* dims, const int* lowDims);
