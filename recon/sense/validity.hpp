// Which aliased positions of a folded voxel take part in its unfolding. The reference rule looks
// only at coil 0's real map and, once a slot of an x column was valid, keeps it valid for the
// rest of the column; with maps that are zero outside the object, a later voxel of the column
// then solves for a position without signal and its system is singular. The per-voxel rule asks
// every voxel afresh whether any coil sees the position.
#pragma once

#include <Eigen/Dense>

namespace mrkit::sense {

enum class Validity {
    Column,  // coil 0's real map non-zero, sticky along the x column; needs an imaginary map
    Voxel,   // some coil's map (either part) non-zero at this position, for this voxel only
};

// get_combination_factors with the given rule; Column is get_combination_factors itself.
template <Validity Rule>
int combination_factors(const float* sensRe, const float* sensIm, const Eigen::VectorXi& sensDims,
                        const Eigen::MatrixXcd& noiseCov, const Eigen::Vector3f& R, double lambda,
                        const Eigen::VectorXf& regImage, Eigen::VectorXcd& factors,
                        Eigen::VectorXi& foldedDims, Eigen::VectorXi fullDims,
                        float* yCompartments, float* zCompartments);

}  // namespace mrkit::sense
