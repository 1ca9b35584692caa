// The two stages of MR_unwarp, callable apart so that the benchmark can time them separately.
//
// Data model: an output voxel v (0-based indices) takes the input volume at v + t(v), in voxel
// units of the same grid. The sampling offsets t are three blocks of n = nx*ny*nz floats (x
// offsets, then y, then z), NaN where no source position was found. Both directions reduce to
// such a field, and the intensity correction is the Jacobian determinant of v -> v + t(v).
#pragma once

#include <cstdint>

namespace mrkit::geometry {

struct GradientSet {
    const float (*coefSin)[12];
    const float (*coefCos)[12];
    const float (*coefZ)[1];
    float r0;
};

// Fills t for the grid dims[0..2] with voxel-to-scanner affine (row-major 4x4). Returns how many
// voxels have no source (warp only: the inverse of the mapping did not converge).
int64_t sampling_offsets(const int* dims, const double* affine, const GradientSet& g, bool warp,
                         float* t);

// |det| of the Jacobian of v -> v + t(v) from central differences of t between neighbouring
// voxels (one-sided at the faces and next to a voxel without source), into J (n floats).
void offset_jacobian(const int* dims, const float* t, float* J);

// out[v] = J[v] * input sampled at v + t(v) for each of nVolumes volumes; J may be null (no
// intensity correction), im and outIm may be null (real data). Samples outside the volume
// count as 0. cubic: Catmull-Rom instead of trilinear weights.
void resample(const float* re, const float* im, int64_t nVolumes, const int* dims, const float* t,
              const float* J, bool cubic, float* outRe, float* outIm);

}  // namespace mrkit::geometry
