# The library's results are fixed to the last bit, and its small-product kernels repeat the
# summation orders of Eigen 3.4's products with SSE2 packets (one complex<double>, two
# complex<float> per register). Another Eigen release, or flags that make Eigen use AVX packets,
# would change those orders and so the results: refuse such a configuration rather than build a
# library whose bits quietly differ.
option(MRKIT_ANY_EIGEN_KERNELS "Build with an Eigen other than 3.4.x, or with its AVX kernels (results differ in the last bit from the default build)" OFF)

set(_mrkit_eigen_problem "")
if(Eigen3_VERSION VERSION_LESS 3.4.0 OR NOT Eigen3_VERSION VERSION_LESS 3.4.90)
  set(_mrkit_eigen_problem "Eigen ${Eigen3_VERSION} was found; mrkit needs Eigen 3.4.x")
else()
  include(CheckCXXSourceCompiles)
  get_target_property(_mrkit_eigen_include Eigen3::Eigen INTERFACE_INCLUDE_DIRECTORIES)
  set(CMAKE_REQUIRED_INCLUDES ${_mrkit_eigen_include})
  set(CMAKE_REQUIRED_FLAGS "-ffp-contract=off")
  check_cxx_source_compiles([=[
#include <Eigen/Core>
#if !EIGEN_VERSION_AT_LEAST(3, 4, 0) || EIGEN_VERSION_AT_LEAST(3, 4, 90)
#error "not Eigen 3.4"
#endif
#if !defined(EIGEN_VECTORIZE_SSE2) || defined(EIGEN_VECTORIZE_AVX) || defined(EIGEN_DONT_VECTORIZE)
#error "not SSE2 packets"
#endif
int main() { return 0; }
]=] MRKIT_EIGEN_SSE2_PACKETS)
  unset(CMAKE_REQUIRED_INCLUDES)
  unset(CMAKE_REQUIRED_FLAGS)
  if(NOT MRKIT_EIGEN_SSE2_PACKETS)
    set(_mrkit_eigen_problem
        "Eigen 3.4 does not use SSE2 packets with these compiler flags (CXXFLAGS with -mavx or -march, or EIGEN_DONT_VECTORIZE?); mrkit's exact products assume them")
  endif()
endif()

if(_mrkit_eigen_problem)
  if(MRKIT_ANY_EIGEN_KERNELS)
    message(WARNING "${_mrkit_eigen_problem}. Building anyway (MRKIT_ANY_EIGEN_KERNELS): results may differ in the last bit from a standard build, and tests that compare against fixed bits may fail.")
  else()
    message(FATAL_ERROR "${_mrkit_eigen_problem}. Install Debian's libeigen3-dev 3.4, drop the flags, or configure with -DMRKIT_ANY_EIGEN_KERNELS=ON to build anyway with results that may differ in the last bit.")
  endif()
endif()
