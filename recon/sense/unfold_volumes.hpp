// Unfolding of several folded volumes that share one set of combination factors. The factor
// matrix of a folded voxel depends only on the factors, so it is interpolated once and applied
// to every volume; each volume's result is exactly that of unfolding it alone.
#pragma once

#include <vector>

#include "recon/recon.hpp"

namespace mrkit::sense {

// One folded volume (imaginary part may be null) and the output volume it unfolds into.
struct Volume {
    const float *foldedRe, *foldedIm;
    float *outRe, *outIm;
};

// unfold() for each volume in turn, in one pass over the folded voxels. No output sample may be
// written by two volumes. Returns 1, or -1 when some voxel was skipped (the same voxels in every
// volume).
int unfold_volumes(const std::vector<Volume>& volumes, const Eigen::VectorXi& foldedDims,
                   const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
                   const Eigen::VectorXi& fullDims, const float* yCompartments,
                   const float* zCompartments);

}  // namespace mrkit::sense
