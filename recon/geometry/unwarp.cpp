// Unwarping whole volumes: every output voxel's true position goes through the gradient series
// once (for all further dimensions), then the input is resampled there and scaled by the
// Jacobian determinant of the mapping.
#include "recon/geometry/unwarp.hpp"

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#include "recon/geometry/legendre_block.hpp"
#include "recon/huge_pages.hpp"
#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {

using namespace mrkit::geometry;

constexpr int kChunk = 1 << 20;  // points per series call: the table build is then 1-2 %
constexpr int kMaxIterations = 40;
constexpr double kTolerance = 1e-4;  // voxels, for the inverse in the warp direction
constexpr int kSettle = 8;
constexpr double kSettled = 0.05;

// Voxel indices to scanner coordinates and back (linear part only: offsets are differences).
struct Frame {
    Eigen::Matrix3d linear, inverse;
    Eigen::Vector3d offset;

    explicit Frame(const double* a) {
        for (int r = 0; r < 3; ++r) {
            for (int c = 0; c < 3; ++c) linear(r, c) = a[4 * r + c];
            offset[r] = a[4 * r + 3];
        }
        inverse = linear.inverse();
    }
};

// The linear part of the series as MR_geometry_correction evaluates it at (x, y, z). Its
// P_1^1 and P_1^0 come from the table row at or below cos(theta) (directly near the poles), so
// it returns the point moved along its meridian to that row's polar angle: up to 4e-4 r, in
// steps. Subtracting this rather than the point itself leaves the displacement of the higher
// terms without those steps, and the identity set moves nothing.
Eigen::Vector3d tabulated_linear_part(float x, float y, float z) {
    float sph[3];
    getRadiusThetaPhi(x, y, z, sph);
    const float c = std::cos(sph[1]);
    const float arg = table_is_direct(c) ? c : table_argument(table_row(c));
    const double r = sph[0], rho = std::hypot(static_cast<double>(x), static_cast<double>(y));
    const double f = rho > 0 ? r * sqrt_one_minus_square(arg) / rho : 0.0;
    return {x * f, y * f, r * arg};
}

// Offsets s(q) = inverse * (e - p) in voxel units of the encoded positions e of the points
// p = A q, for voxel positions q given by index (q = voxel + t, t null for 0): voxels[k], or
// first + k when voxels is null. Scratch grows to one chunk.
class Encoder {
  public:
    Encoder(const int* dims, const double* affine, const GradientSet& g)
        : nx_(dims[0]), ny_(dims[1]), frame_(affine), g_(g) {}

    void offsets(const int* voxels, int first, int count, const float* const* t, float* const* s) {
        p_.resize(3 * static_cast<size_t>(count));
        e_.resize(3 * static_cast<size_t>(count));
        float* p[3] = {p_.data(), p_.data() + count, p_.data() + 2 * count};
        float* e[3] = {e_.data(), e_.data() + count, e_.data() + 2 * count};
        mrkit::parallel_blocks(count, [&](int begin, int end) {
            for (int k = begin; k < end; ++k) {
                const Eigen::Vector3d q = position(voxels ? voxels[k] : first + k, t);
                const Eigen::Vector3d x = frame_.linear * q + frame_.offset;
                for (int a = 0; a < 3; ++a) p[a][k] = static_cast<float>(x[a]);
            }
        });
        MR_geometry_correction(p[0], p[1], p[2], e[0], e[1], e[2], count, g_.coefSin, g_.coefCos,
                               g_.coefZ, g_.r0);
        mrkit::parallel_blocks(count, [&](int begin, int end) {
            for (int k = begin; k < end; ++k) {
                const Eigen::Vector3d lin = tabulated_linear_part(p[0][k], p[1][k], p[2][k]);
                const Eigen::Vector3d d(e[0][k] - lin[0], e[1][k] - lin[1], e[2][k] - lin[2]);
                const Eigen::Vector3d v = frame_.inverse * d;
                for (int a = 0; a < 3; ++a) s[a][k] = static_cast<float>(v[a]);
            }
        });
    }

  private:
    Eigen::Vector3d position(int i, const float* const* t) const {
        const int ix = i % nx_, iy = (i / nx_) % ny_, iz = i / nx_ / ny_;
        Eigen::Vector3d q(ix, iy, iz);
        if (t)
            for (int a = 0; a < 3; ++a) q[a] += t[a][i];
        return q;
    }

    int nx_, ny_;
    Frame frame_;
    GradientSet g_;
    std::vector<float> p_, e_;
};

// Unwarp: t(v) = s(v), the offset of the encoded position of the voxel's true position.
void unwarp_offsets(Encoder& enc, int n, float* t) {
    for (int c0 = 0; c0 < n; c0 += kChunk) {
        float* s[3] = {t + c0, t + n + c0, t + 2 * static_cast<int64_t>(n) + c0};
        enc.offsets(nullptr, c0, std::min(kChunk, n - c0), nullptr, s);
    }
}

// Warp: the output voxel v is an encoded position; its source q solves q + s(q) = v. Fixed
// point q <- v - s(q) from q = v (the mapping's departure from the identity is a contraction
// wherever the series is a usable model), each voxel until its offset changes by less than
// kTolerance. The higher terms' table sampling makes s a staircase with steps of some 0.02 mm,
// across which the iteration can swing between two neighbours of the solution; after
// kSettle iterations a change below kSettled voxels ends it too. Voxels still moving after
// kMaxIterations get NaN.
int64_t warp_offsets(Encoder& enc, int n, float* t) {
    float* tt[3] = {t, t + n, t + 2 * static_cast<int64_t>(n)};
    for (int a = 0; a < 3; ++a) std::fill(tt[a], tt[a] + n, 0.0f);
    std::vector<int> active(n);
    for (int i = 0; i < n; ++i) active[i] = i;
    std::vector<float> buf(3 * static_cast<size_t>(std::min(n, kChunk)));
    const size_t stride = buf.size() / 3;
    float* s[3] = {buf.data(), buf.data() + stride, buf.data() + 2 * stride};
    for (int it = 0; it < kMaxIterations && !active.empty(); ++it) {
        size_t kept = 0;
        for (size_t c0 = 0; c0 < active.size(); c0 += kChunk) {
            const int count = static_cast<int>(std::min<size_t>(kChunk, active.size() - c0));
            const int* voxels = active.data() + c0;
            enc.offsets(voxels, 0, count, tt, s);
            for (int k = 0; k < count; ++k) {
                const int i = voxels[k];
                double change = 0;
                for (int a = 0; a < 3; ++a) {
                    const float next = -s[a][k];
                    change = std::max(change, std::fabs(static_cast<double>(next) - tt[a][i]));
                    tt[a][i] = next;
                }
                const double tolerance = it < kSettle ? kTolerance : kSettled;
                if (!(change < tolerance)) active[kept++] = i;  // NaN keeps going, then fails
            }
        }
        active.resize(kept);
    }
    for (int i : active)
        for (int a = 0; a < 3; ++a) tt[a][i] = std::numeric_limits<float>::quiet_NaN();
    return static_cast<int64_t>(active.size());
}

// Taps of one axis for a sample at u: K weights from index first on; weights of taps outside
// 0 .. size-1 are zero and their offsets point at a valid element. False when no tap is inside.
template <int K>
struct Axis {
    int64_t offset[K] = {};
    float weight[K] = {};

    bool set(float u, int size, int64_t stride) {
        if (!(u > -3.0f && u < static_cast<float>(size) + 2.0f)) return false;  // also NaN
        const float f = std::floor(u);
        const float x = u - f;
        const int first = static_cast<int>(f) - (K / 2 - 1);
        if (K == 2) {
            weight[0] = 1.0f - x;
            weight[1] = x;
        } else {  // Catmull-Rom: interpolating, C1, exact for quadratics
            weight[0] = 0.5f * (((2.0f - x) * x - 1.0f) * x);
            weight[1] = 0.5f * ((3.0f * x - 5.0f) * x * x + 2.0f);
            weight[2] = 0.5f * (((4.0f - 3.0f * x) * x + 1.0f) * x);
            weight[3] = 0.5f * ((x - 1.0f) * x * x);
        }
        bool any = false;
        for (int k = 0; k < K; ++k) {
            const int i = first + k;
            const bool inside = i >= 0 && i < size;
            any = any || inside;
            if (!inside) weight[k] = 0.0f;
            offset[k] = (inside ? i : 0) * stride;
        }
        return any;
    }
};

template <int K>
void resample_with(const float* re, const float* im, int64_t nVolumes, const int* dims,
                   const float* t, const float* J, float* outRe, float* outIm) {
    const int nx = dims[0], ny = dims[1], nz = dims[2];
    const int64_t plane = static_cast<int64_t>(nx) * ny, n = plane * nz;
    const float* tt[3] = {t, t + n, t + 2 * n};
    mrkit::parallel_blocks(static_cast<int>(n), [&](int begin, int end) {
        Axis<K> ax, ay, az;
        for (int i = begin; i < end; ++i) {
            const int ix = i % nx, iy = (i / nx) % ny, iz = static_cast<int>(i / plane);
            const float scale = J ? J[i] : 1.0f;
            const bool inside = ax.set(static_cast<float>(ix) + tt[0][i], nx, 1) &&
                                ay.set(static_cast<float>(iy) + tt[1][i], ny, nx) &&
                                az.set(static_cast<float>(iz) + tt[2][i], nz, plane);
            for (int64_t v = 0; v < nVolumes; ++v) {
                const int64_t at = v * n + i;
                if (!inside) {
                    outRe[at] = 0.0f;
                    if (outIm) outIm[at] = 0.0f;
                    continue;
                }
                auto sample = [&](const float* f) {
                    float sum = 0.0f;
                    for (int c = 0; c < K; ++c) {
                        float sy = 0.0f;
                        for (int b = 0; b < K; ++b) {
                            const float* row = f + az.offset[c] + ay.offset[b];
                            float sx = 0.0f;
                            for (int a = 0; a < K; ++a) sx += ax.weight[a] * row[ax.offset[a]];
                            sy += ay.weight[b] * sx;
                        }
                        sum += az.weight[c] * sy;
                    }
                    return sum * scale;
                };
                outRe[at] = sample(re + v * n);
                if (outIm) outIm[at] = im ? sample(im + v * n) : 0.0f;
            }
        }
    });
}

// Derivative of one offset component along an axis: central where both neighbours have a
// source, one-sided where one has, 0 on an axis of one voxel.
double derivative(const float* tx, const float* ta, int64_t i, int pos, int size, int64_t stride) {
    const bool lo = pos > 0 && !std::isnan(tx[i - stride]);
    const bool hi = pos + 1 < size && !std::isnan(tx[i + stride]);
    if (lo && hi) return 0.5 * (static_cast<double>(ta[i + stride]) - ta[i - stride]);
    if (hi) return static_cast<double>(ta[i + stride]) - ta[i];
    if (lo) return static_cast<double>(ta[i]) - ta[i - stride];
    return 0.0;
}

struct Free {
    void operator()(float* p) const { std::free(p); }
};
using Buffer = std::unique_ptr<float[], Free>;

// n floats, uninitialised. The per-call fields are hundreds of MB for a 256^3 volume; in
// 2 MB pages their first touch costs a few hundred page faults instead of some 65000.
Buffer big_buffer(size_t n) {
    const size_t bytes =
        (n * sizeof(float) + mrkit::kHugePage - 1) / mrkit::kHugePage * mrkit::kHugePage;
    void* p = nullptr;
    if (posix_memalign(&p, mrkit::kHugePage, bytes) != 0) throw std::bad_alloc();
    mrkit::advise_huge_pages(p, bytes);
    return Buffer(static_cast<float*>(p));
}

}  // namespace

namespace mrkit::geometry {

int64_t sampling_offsets(const int* dims, const double* affine, const GradientSet& g, bool warp,
                         float* t) {
    const int n = dims[0] * dims[1] * dims[2];
    if (n == 0) return 0;
    Encoder enc(dims, affine, g);
    if (warp) return warp_offsets(enc, n, t);
    unwarp_offsets(enc, n, t);
    return 0;
}

void offset_jacobian(const int* dims, const float* t, float* J) {
    const int nx = dims[0], ny = dims[1], nz = dims[2];
    const int64_t plane = static_cast<int64_t>(nx) * ny, n = plane * nz;
    const float* tt[3] = {t, t + n, t + 2 * n};
    mrkit::parallel_blocks(static_cast<int>(n), [&](int begin, int end) {
        for (int i = begin; i < end; ++i) {
            if (std::isnan(tt[0][i])) {
                J[i] = 0.0f;
                continue;
            }
            const int pos[3] = {i % nx, (i / nx) % ny, static_cast<int>(i / plane)};
            const int size[3] = {nx, ny, nz};
            const int64_t stride[3] = {1, nx, plane};
            Eigen::Matrix3d D = Eigen::Matrix3d::Identity();
            for (int a = 0; a < 3; ++a)
                for (int b = 0; b < 3; ++b)
                    D(a, b) += derivative(tt[0], tt[a], i, pos[b], size[b], stride[b]);
            J[i] = static_cast<float>(std::fabs(D.determinant()));
        }
    });
}

void resample(const float* re, const float* im, int64_t nVolumes, const int* dims, const float* t,
              const float* J, bool cubic, float* outRe, float* outIm) {
    if (cubic)
        resample_with<4>(re, im, nVolumes, dims, t, J, outRe, outIm);
    else
        resample_with<2>(re, im, nVolumes, dims, t, J, outRe, outIm);
}

}  // namespace mrkit::geometry

int MR_unwarp(const float* re, const float* im, int ndims, const int* dims, const double* affine,
              const float (*coefSin)[12], const float (*coefCos)[12], const float (*coefZ)[1],
              float r0, int interp, bool jacobian, bool warp, float* outRe, float* outIm,
              float* displacement) {
    const int grid[3] = {ndims > 0 ? dims[0] : 1, ndims > 1 ? dims[1] : 1, ndims > 2 ? dims[2] : 1};
    const int64_t n = static_cast<int64_t>(grid[0]) * grid[1] * grid[2];
    int64_t volumes = 1;
    for (int d = 3; d < ndims; ++d) volumes *= dims[d];
    if (n == 0) return 0;

    const Buffer t = big_buffer(3 * static_cast<size_t>(n));  // every entry is written
    const mrkit::geometry::GradientSet g{coefSin, coefCos, coefZ, r0};
    const int64_t lost = mrkit::geometry::sampling_offsets(grid, affine, g, warp, t.get());
    const Buffer J = jacobian ? big_buffer(static_cast<size_t>(n)) : Buffer();
    if (jacobian) mrkit::geometry::offset_jacobian(grid, t.get(), J.get());
    if (volumes > 0)
        mrkit::geometry::resample(re, im, volumes, grid, t.get(), J.get(),
                                  interp == MR_UNWARP_CUBIC, outRe, outIm);
    if (displacement) {
        // Scanner units: the linear part of the affine applied to the voxel offsets.
        Eigen::Matrix3d L;
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c) L(r, c) = affine[4 * r + c];
        mrkit::parallel_blocks(static_cast<int>(n), [&](int begin, int end) {
            for (int i = begin; i < end; ++i) {
                const Eigen::Vector3d v = L * Eigen::Vector3d(t[i], t[n + i], t[2 * n + i]);
                for (int a = 0; a < 3; ++a) displacement[a * n + i] = static_cast<float>(v[a]);
            }
        });
    }
    return static_cast<int>(lost);
}
