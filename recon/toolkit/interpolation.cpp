// Trilinear interpolation on a flat column-major block. Only the flat end of the block is
// guarded: a corner past the end of a row reads the next row, and corners at or beyond N drop
// out without renormalising the remaining weights, so values fade toward zero at the end.
#include "recon/recon.hpp"

namespace {

// How many of the corners, in the order b, b+1, b+nx, b+nx+1 and the same plus the plane
// offset, may be read. The tests run in this order; the first that holds decides.
int readable_corners(int b, int nx, int plane, int N) {
    if (b + nx + 1 + plane < N) return 8;
    if (b + nx + plane < N) return 7;
    if (b + 1 + plane < N) return 6;
    if (b + plane < N) return 5;
    if (b + nx + 1 < N) return 4;
    if (b + nx < N) return 3;
    if (b + 1 < N) return 2;
    if (b < N) return 1;
    return 0;
}

// Sum over the readable corners of value * (w1 * w2 * w3), corners in the order above.
template <class Value, class Weight, class Read>
Value blend(Read read, int b, int nx, int plane, int N, Weight t1, Weight t2, Weight t3) {
    const Weight one = 1;
    const int offsets[8] = {0, 1, nx, nx + 1, plane, 1 + plane, nx + plane, nx + 1 + plane};
    const int count = readable_corners(b, nx, plane, N);
    auto term = [&](int c) {
        const Weight w1 = (c & 1) ? t1 : one - t1;
        const Weight w2 = (c & 2) ? t2 : one - t2;
        const Weight w3 = (c & 4) ? t3 : one - t3;
        return read(b + offsets[c]) * (w1 * w2 * w3);
    };
    if (count == 0) return Value(0);
    Value sum = term(0);
    // With one row per plane (+nx == +plane) the lower-plane corner b+nx+1 can pass the end
    // while b+plane does not; it contributes zero like every corner past the end.
    for (int c = 1; c < count; ++c)
        if (b + offsets[c] < N) sum += term(c);
    return sum;
}

template <class Read>
float interpolate_float(Read read, float c2, float c1, float c3, int nx, int ny, int nz) {
    const int ix = static_cast<int>(c1), iy = static_cast<int>(c2), iz = static_cast<int>(c3);
    const float t1 = c1 - static_cast<float>(ix);
    const float t2 = c2 - static_cast<float>(iy);
    const float t3 = c3 - static_cast<float>(iz);
    const int plane = nx * ny;
    const int b = nx * iy + ix + plane * iz;
    return blend<float>(read, b, nx, plane, nz * plane, t1, t2, t3);
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
    return blend<std::complex<double>>([&data](int i) { return data[i]; }, base, dims[0], plane, N,
                                       f1, f2, f3);
}
