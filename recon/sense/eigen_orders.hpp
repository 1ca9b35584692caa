// Whether this build's Eigen takes the product orders the SENSE kernels repeat: Eigen 3.4 with
// SSE2 packets (one complex<double>, two complex<float> each). The configure step refuses other
// builds unless told to accept them; there the library keeps Eigen's own expressions (and the
// unfolding does not pair voxels).
#pragma once

#include <Eigen/Core>

namespace mrkit {

constexpr bool kEigenOrders =
#if defined(EIGEN_VECTORIZE_SSE2) && !defined(EIGEN_VECTORIZE_AVX) &&    \
    !defined(EIGEN_DONT_VECTORIZE) && EIGEN_VERSION_AT_LEAST(3, 4, 0) && \
    !EIGEN_VERSION_AT_LEAST(3, 4, 90)
    true;
#else
    false;
#endif

}  // namespace mrkit
