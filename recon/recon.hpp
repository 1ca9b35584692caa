// mrkit reconstruction library: free functions on caller-owned single-precision arrays.
//
// Complex data is split: a real block and an imaginary block of floats, column-major (first
// dimension fastest). Dimensions 1-3 are the axes an operation works on; every dimension from
// the fourth on counts as an independent volume. Sizes, counts and pointers are trusted: the
// library checks almost nothing, so callers validate at their own boundary.
#pragma once

#include <complex>
#include <cstdint>
#include <string>
#include <vector>

#include <Eigen/Dense>

// ---------------------------------------------------------------------------------------------
// Toolkit: numeric helpers

// Rounds half up for x >= 0, but always toward zero for x < 0 (-2.5 -> -2, -2.7 -> -2).
int MR_round(double x);
int MR_round(float x);

// n evenly spaced floats from start, accumulated by repeated addition of the step.
// The caller releases the result with delete[].
float* MR_linspace(float start, float end, int n);

// Index of the first element equal to key, -1 when there is none.
int MR_find(const uint16_t* values, uint16_t key, int n);
int MR_find(const int16_t* values, int16_t key, int n);
int MR_find(const int32_t* values, int32_t key, int n);
int MR_find(const uint32_t* values, uint32_t key, int n);

// Column-major linear index of 0-based subscripts.
int MR_sub2ind(const Eigen::VectorXi& dims, const Eigen::VectorXi& sub);

// Root-mean-square magnitude of n samples, summed in double; im may be null.
double MR_SA(const float* re, const float* im, int n);

// ---------------------------------------------------------------------------------------------
// Toolkit: trilinear interpolation on a flat column-major grid (nx, ny, nz).
// Note the coordinate order: c2 runs along the second dimension, c1 along the first.
// Corners at or past the end of the block contribute zero; weights are not renormalised.

float MR_linear_interpolation(const float* data, float c2, float c1, float c3, const int* dims);
float MR_linear_interpolation(const float* data, float c2, float c1, float c3,
                              const Eigen::VectorXi& dims);
float MR_linear_interpolation(const Eigen::VectorXf& data, float c2, float c1, float c3,
                              const Eigen::VectorXi& dims);
// Complex form with a precomputed lower corner `base`; f2 weights the +nx pair, f1 the +1
// pair, f3 the +plane corners; corners at index N or beyond are dropped.
std::complex<double> MR_linear_interpolation(const Eigen::VectorXcd& data,
                                             const Eigen::VectorXi& dims, int base, double f2,
                                             double f1, double f3, int plane, int N);

// ---------------------------------------------------------------------------------------------
// Toolkit: in-place centre shifts along dimension `dim` (1-based; other values do nothing).

void MR_fftshift(float* re, float* im, const int* dims, int ndims, int dim);
void MR_ifftshift(float* re, float* im, const int* dims, int ndims, int dim);
void MR_fftshift_dim1(float* re, float* im, const int* dims, int ndims, int dim);
void MR_fftshift_dim2(float* re, float* im, const int* dims, int ndims, int dim);
void MR_fftshift_dim3(float* re, float* im, const int* dims, int ndims, int dim);
void MR_ifftshift_dim1(float* re, float* im, const int* dims, int ndims, int dim);
void MR_ifftshift_dim2(float* re, float* im, const int* dims, int ndims, int dim);
void MR_ifftshift_dim3(float* re, float* im, const int* dims, int ndims, int dim);

// ---------------------------------------------------------------------------------------------
// Toolkit: zero padding of the first three dimensions to M0 x M1 x M2, data centred with the
// extra zero at the low end. The output must be zero-filled by the caller; outIm may be null.

void MR_zero_pad(const float* re, const float* im, int ndims, const int* dims, double M0, double M1,
                 double M2, float* outRe, float* outIm);

// ---------------------------------------------------------------------------------------------
// Toolkit: separable Hamming-shape apodisation in place, cut to `width` samples per dimension.

void MR_ringing_filter(float* re, float* im, int ndims, const int* dims, const double* strength,
                       const int* width);

// ---------------------------------------------------------------------------------------------
// Toolkit: coil combination along the 1-based dimension coilDim. outDims are the input sizes
// with the coil dimension set to 1. MR_perform_sos accumulates into `out`, which must be zero;
// MR_perform_pcsos needs at least ten entries in dims (it averages along the tenth).

void MR_perform_sos(const float* re, const float* im, int nOutDims, const int* dims, int coilDim,
                    float* out, const int* outDims);
void MR_perform_pcsos(const float* re, const float* im, int nOutDims, const int* dims, int coilDim,
                      float* outRe, float* outIm, const int* outDims);

// ---------------------------------------------------------------------------------------------
// Geometry: spherical-harmonic basis.

// Associated Legendre function with the Condon-Shortley sign. Ends the process with status 1
// when m < 0, m > l or |x| > 1.
float plgndr(int l, int m, float x);
// table[(s * nOrders + m) * nDegrees + l] = P_l^m(s * step - 1), step = 2 / (nSamples - 1).
void create_plgndr_lookup(int nDegrees, int nOrders, int nSamples, float* table);
// out = (r, theta from +z in [0, pi], phi from +x toward +y in [0, 2 pi]).
void getRadiusThetaPhi(float x, float y, float z, float* out);
float radialFactor(float r, float r0, int n);
float funcYS(int n, int m, float r, float phi, float r0, float P);
float funcYC(int n, int m, float r, float phi, float r0, float P);

// ---------------------------------------------------------------------------------------------
// Geometry: gradient non-linearity. Coefficient matrices are row-major, rows by degree.

void realign_corr_coeffs(float* packedCos, float* packedSin, float* packedZ, int nOrders,
                         int nDegreesXY, int nDegreesZ, const float (*firstMatrix)[12],
                         const float (*secondMatrix)[12], const float (*zMatrix)[1]);
// Positions encoded at (x, y, z) by gradients with the given expansions (reference radius r0).
void MR_geometry_correction(const float* x, const float* y, const float* z, float* xOut,
                            float* yOut, float* zOut, int nPoints, const float (*coefSin)[12],
                            const float (*coefCos)[12], const float (*coefZ)[1], float r0);

// ---------------------------------------------------------------------------------------------
// Geometry: unwarping whole volumes.
//
// The input is a volume as the scanner reconstructed it (x-y-z, any further dimensions sharing
// the geometry; im may be null) with its voxel-to-scanner affine: 4x4 row-major doubles taking
// 0-based voxel indices (i, j, k, 1) to scanner coordinates in the unit of r0. For the output
// voxel at true position p the encoded position e = MR_geometry_correction(p) is mapped back to
// the input's voxel grid and sampled there; samples outside the volume count as 0. The output
// lies on the input's grid. The series' linear part is taken out as MR_geometry_correction
// itself tabulates it, so the displacement carries the higher terms only and the identity set
// moves nothing. Positions are computed once per call for all further dimensions.
//
// interp: MR_UNWARP_LINEAR (trilinear) or MR_UNWARP_CUBIC (Catmull-Rom, 4x4x4 taps).
// jacobian: scales every sample by |det| of the Jacobian of the mapping, from central
//   differences of the sampling positions between neighbouring output voxels (one-sided at the
//   faces), so that the intensity integral is kept.
// warp: the opposite direction, true image to distorted: each output voxel is an encoded
//   position whose true position is found by fixed-point iteration on the series, to 1e-4 of
//   a voxel. Voxels where it does not converge are 0 (NaN in the displacement).
// displacement: null, or 3 blocks of nx*ny*nz floats (x, y, z) with the scanner-space vector
//   from each output voxel's position to the position it was sampled at.
// Returns the number of voxels without a source position (always 0 when unwarping).
constexpr int MR_UNWARP_LINEAR = 0;
constexpr int MR_UNWARP_CUBIC = 1;
int MR_unwarp(const float* re, const float* im, int ndims, const int* dims, const double* affine,
              const float (*coefSin)[12], const float (*coefCos)[12], const float (*coefZ)[1],
              float r0, int interp, bool jacobian, bool warp, float* outRe, float* outIm,
              float* displacement);

// Coefficient files as gradient vendors ship them: comment lines from '#', a line
// "<r0> m = R0" and one line per term, "<no> A( n, m) <value> <axis>" (cosine) or B (sine),
// axis x, y or z. The series takes the x coil's A terms (order >= 1) into coefCos, the y coil's
// B terms (order >= 1) into coefSin and the z coil's A(n, 0) into coefZ; every other non-zero
// term is listed in `dropped`. An axis without a linear term gets 1 there (its coefficients
// are then read as already relative to it). Lines that start with a word and hold no term are
// header settings and are skipped. r0 is returned as the file gives it (metres).
// Returns false with `error` naming the file and line for a malformed line, a term beyond the
// series (x, y: degree <= 13, order <= 11; z: degree <= 16), a repeated term, or no R0 line.
struct MR_gradient_term {
    int line;    // 1-based
    char kind;   // 'A' or 'B'
    int degree;  // n
    int order;   // m
    char axis;   // 'x', 'y' or 'z'
    double value;
};
bool MR_read_gradient_file(const char* path, float (*coefSin)[12], float (*coefCos)[12],
                           float (*coefZ)[1], float* r0, std::vector<MR_gradient_term>* dropped,
                           std::string* error);

// ---------------------------------------------------------------------------------------------
// SENSE: fold geometry of one axis (0-based indices).

int MR_folded_pos(int pos, int fullSize, int foldedSize);
// Preset bounds to {-1, -1}; afterwards they hold the last index of each run of folded
// positions with the same number and order of aliased copies.
void get_compartments(int fullSize, int foldedSize, float* bounds);
// Aliased full positions of folded index pos: lower copies nearest-first, centre, upper copies.
int MR_get_unfolded_positions(int fullSize, int foldedSize, int pos, Eigen::VectorXi& positions);
// Keeps a sampling coordinate on a second grid from crossing a compartment bound.
double pos2interpolate(double coord, int index, const float* imageBounds, const float* gridBounds);

// ---------------------------------------------------------------------------------------------
// SENSE: combination factors, unfolding and the full reconstruction.

// Status: 1 on success, -1 when an aliased position fell outside the maps (it was skipped).
int get_combination_factors(const float* sensRe, const float* sensIm,
                            const Eigen::VectorXi& sensDims, const Eigen::MatrixXcd& noiseCov,
                            const Eigen::Vector3f& R, double lambda,
                            const Eigen::VectorXf& regImage, Eigen::VectorXcd& factors,
                            Eigen::VectorXi& foldedDims, Eigen::VectorXi fullDims,
                            float* yCompartments, float* zCompartments);
// The same factors, except that each folded voxel judges its aliased positions afresh: a
// position takes part when some coil's map (either part) is non-zero there. Maps without an
// imaginary part (sensIm null) are taken as real. Where every position of a voxel takes part
// under both rules, the factors are those of get_combination_factors, bit for bit.
int get_combination_factors_voxelwise(const float* sensRe, const float* sensIm,
                                      const Eigen::VectorXi& sensDims,
                                      const Eigen::MatrixXcd& noiseCov, const Eigen::Vector3f& R,
                                      double lambda, const Eigen::VectorXf& regImage,
                                      Eigen::VectorXcd& factors, Eigen::VectorXi& foldedDims,
                                      Eigen::VectorXi fullDims, float* yCompartments,
                                      float* zCompartments);
int find_edges(Eigen::VectorXf current, Eigen::VectorXf previous, int count, int prevCount,
               int foldedSize);
// Status: 1 on success, -1 when a voxel was skipped because an index fell outside its array.
int unfold(const float* foldedRe, const float* foldedIm, const Eigen::VectorXi& foldedDims,
           const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
           const Eigen::VectorXi& sensDims, Eigen::VectorXi fullDims, const float* yCompartments,
           const float* zCompartments, float* outRe, float* outIm);
// Status: 1 on success, -1 on failure. Output samples no folded voxel reaches keep their values.
int MR_sense_recon(const float* foldedRe, const float* foldedIm, int nFoldedDims,
                   const int* foldedDims, const float* sensRe, const float* sensIm, int nSensDims,
                   const int* sensDims, const float* noiseRe, const float* noiseIm, int nNoiseDims,
                   const int* noiseDims, const int* fullDims, const float* refRe,
                   const float* refIm, int nRefDims, const int* refDims, const float* regRe,
                   const float* regIm, int nRegDims, const int* regDims, double regScale,
                   float* outRe, float* outIm, const int* outDims);
// MR_sense_recon with the factors of get_combination_factors_voxelwise: masked maps (zero outside
// the object) unfold without singular systems. Same inputs and, where every aliased position of
// every voxel has signal in coil 0's real map, the same bits. Status: 1 on success, -1 on
// failure or when a voxel or map position was skipped (sizes that do not fit each other).
int MR_sense_recon_voxelwise(const float* foldedRe, const float* foldedIm, int nFoldedDims,
                             const int* foldedDims, const float* sensRe, const float* sensIm,
                             int nSensDims, const int* sensDims, const float* noiseRe,
                             const float* noiseIm, int nNoiseDims, const int* noiseDims,
                             const int* fullDims, const float* refRe, const float* refIm,
                             int nRefDims, const int* refDims, const float* regRe,
                             const float* regIm, int nRegDims, const int* regDims,
                             double regScale, float* outRe, float* outIm, const int* outDims);

// ---------------------------------------------------------------------------------------------
// Calibration: what SENSE needs, estimated from the data.

// Coil sensitivity maps (nx, ny, nz, coils; dims) from centred multi-coil k-space of that size,
// fully sampled in the centred block of calibSize[0..2] samples (the k-space centre at index n/2
// of each axis). Walsh's method on the block's low-resolution images: the dominant eigenvector
// of the coil covariance over window[0..2] voxels around each voxel, its phase set so that one
// virtual coil of all is real, unit norm over the coils. Voxels whose low-resolution magnitude
// is below threshold times the largest get zero maps (threshold 0 keeps every voxel with any
// signal). kIm may be null. Returns the number of voxels with maps.
int MR_coil_maps(const float* kRe, const float* kIm, const int* dims, const int* calibSize,
                 const int* window, float threshold, float* mapsRe, float* mapsIm);

// The same maps by calibration kernels: every kernel[0..2]-sized patch of the block (all coils)
// is a row of a calibration matrix; the rows' signal subspace (singular values above 2% of the
// largest) turned into image space gives each voxel a coils x coils operator whose dominant
// eigenvector is the map, exact for maps smooth on the kernel's scale, also at the object's
// edges. Sizes, threshold, mask, phase and norm as MR_coil_maps; the block is used up to its
// centred 32 samples per axis. Returns the number of voxels with maps.
int MR_coil_maps_kernel(const float* kRe, const float* kIm, const int* dims,
                        const int* calibSize, const int* kernel, float threshold, float* mapsRe,
                        float* mapsIm);

// Coil noise covariance psi(r, c) = mean of x_r conj(x_c) over all noise samples, the coils along
// the 1-based dimension coilDim of the ndims sizes in dims; im may be null. psi is coils x coils,
// column-major, in the units of the samples squared; the mean is not removed (noise has none).
void MR_noise_covariance(const float* re, const float* im, int ndims, const int* dims, int coilDim,
                         float* psiRe, float* psiIm);
