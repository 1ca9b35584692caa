// Trilinear interpolation on a flat column-major block, by the corner rule of corners.hpp.
#include "recon/recon.hpp"
#include "recon/toolkit/corners.hpp"

namespace {

// Positions c1 (first dimension), c2 (second), c3 (third) truncate to the lower corner.
template <class Read>
float interpolate_float(Read read, float c2, float c1, float c3, int nx, int ny, int nz) {
    const int ix = static_cast<int>(c1), iy = static_cast<int>(c2), iz = static_cast<int>(c3);
    const float t1 = c1 - static_cast<float>(ix);
    const float t2 = c2 - static_cast<float>(iy);
    const float t3 = c3 - static_cast<float>(iz);
    const int plane = nx * ny;
    const int b = nx * iy + ix + plane * iz;
    return mrkit::Corners<float>(b, nx, plane, nz * plane, t1, t2, t3).apply<float>(read);
}

}  // namespace

float MR_linear_interpolation(const float* data, float c2, float c1, float c3, const int* dims) {
    return interpolate_float([data](int i) { return data[i]; }, c2, c1, c3, dims[0], dims[1],
                             dims[2]);
}

float MR_linear_interpolation(const float* data, float c2, float c1, float c3,
                              const Eigen::VectorXi& dims) {
    return interpolate_float([data](int i) { return data[i]; }, c2, c1, c3, dims[0], dims[1],
                             dims[2]);
}

float MR_linear_interpolation(const Eigen::VectorXf& data, float c2, float c1, float c3,
                              const Eigen::VectorXi& dims) {
    return interpolate_float([&data](int i) { return data[i]; }, c2, c1, c3, dims[0], dims[1],
                             dims[2]);
}

std::complex<double> MR_linear_interpolation(const Eigen::VectorXcd& data,
                                             const Eigen::VectorXi& dims, int base, double f2,
                                             double f1, double f3, int plane, int N) {
    return mrkit::Corners<double>(base, dims[0], plane, N, f1, f2, f3).apply(data.data());
}
