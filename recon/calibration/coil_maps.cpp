// Coil sensitivity maps from the fully sampled centre of multi-coil k-space, by Walsh's method:
// at every voxel the map is the dominant eigenvector of the coils' covariance over a small window
// of the low-resolution coil images. A single coil vector there is signal times the coils'
// sensitivities plus noise; the window's covariance is close to rank one and its dominant
// eigenvector is the sensitivity direction, whatever the object's intensity, with the noise
// averaged down. The eigenvector's phase is free: it is fixed against one virtual coil (the
// dominant eigenvector of the whole calibration data's covariance), which sees signal
// everywhere, so the combined image carries that coil's smooth phase.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstdint>
#include <vector>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {

using cd = std::complex<double>;
constexpr double kPi = 3.14159265358979323846;

// Hann window over the calibration samples of a truncated axis. Cut off sharply, the block's
// images ring across the whole field of view and carry the sensitivities of far edges into every
// voxel; tapered, they are a little blurrier but local, which is what the maps need (of the
// flat-topped windows tried on the demo's phantom, the full raised cosine came closest to the
// true maps through SENSE).
double taper(int k, int c) {
    return 0.5 * (1.0 + std::cos(kPi * std::min(1.0, std::abs(static_cast<double>(k)) / (c / 2.0))));
}

// Centred inverse DFT weights of one axis: entry (k, x) takes calibration sample k (coordinate
// k - c/2 around the k-space centre at n/2) to image index x (coordinate x - n/2), tapered when
// the block does not cover the axis.
std::vector<cd> twiddles(int n, int c) {
    std::vector<cd> w(static_cast<size_t>(n) * c);
    for (int k = 0; k < c; ++k) {
        const double weight = c < n ? taper(k - c / 2, c) : 1.0;
        for (int x = 0; x < n; ++x) {
            const int64_t p = static_cast<int64_t>(k - c / 2) * (x - n / 2);
            const double angle = 2.0 * kPi * static_cast<double>(((p % n) + n) % n) / n;
            w[x + static_cast<size_t>(n) * k] = std::polar(weight, angle);
        }
    }
    return w;
}

// Dominant eigenvector of the Hermitian matrix A (m x m, column-major) by power iteration from
// u (unit norm on entry and exit). Low-resolution coil data are close to rank one, so a few
// steps suffice; the iteration stops when the vector no longer moves.
void dominant(const std::vector<cd>& A, int m, std::vector<cd>& u, std::vector<cd>& v) {
    for (int it = 0; it < 100; ++it) {
        for (int r = 0; r < m; ++r) v[r] = 0.0;
        for (int c = 0; c < m; ++c)
            for (int r = 0; r < m; ++r) v[r] += A[r + static_cast<size_t>(m) * c] * u[c];
        double norm = 0.0;
        for (int r = 0; r < m; ++r) norm += std::norm(v[r]);
        norm = std::sqrt(norm);
        if (norm == 0.0) return;
        double change = 0.0;
        for (int r = 0; r < m; ++r) {
            v[r] /= norm;
            change += std::norm(v[r] - u[r]);
            u[r] = v[r];
        }
        if (change < 1e-14) return;
    }
}

}  // namespace

int MR_coil_maps(const float* kRe, const float* kIm, const int* dims, const int* calibSize,
                 const int* window, float threshold, float* mapsRe, float* mapsIm) {
    const int nx = dims[0], ny = dims[1], nz = dims[2], coils = dims[3];
    const int cx = calibSize[0], cy = calibSize[1], cz = calibSize[2];
    const int64_t nVox = static_cast<int64_t>(nx) * ny * nz;
    const int x0 = nx / 2 - cx / 2, y0 = ny / 2 - cy / 2, z0 = nz / 2 - cz / 2;
    const auto kAt = [&](int kx, int ky, int kz, int c) {
        const int64_t i = (x0 + kx) + nx * ((y0 + ky) + static_cast<int64_t>(ny) *
                                                            ((z0 + kz) + static_cast<int64_t>(nz) * c));
        return cd(kRe[i], kIm ? kIm[i] : 0.0f);
    };

    // Low-resolution coil images: the calibration block alone, transformed axis by axis.
    const std::vector<cd> ex = twiddles(nx, cx), ey = twiddles(ny, cy), ez = twiddles(nz, cz);
    std::vector<std::complex<float>> low(static_cast<size_t>(nVox) * coils);
    mrkit::parallel_blocks(coils, [&](int begin, int end) {
        std::vector<cd> a(static_cast<size_t>(nx) * cy * cz), b(static_cast<size_t>(nx) * ny * cz);
        for (int c = begin; c < end; ++c) {
            std::fill(a.begin(), a.end(), 0.0);
            std::fill(b.begin(), b.end(), 0.0);
            for (int kz = 0; kz < cz; ++kz)
                for (int ky = 0; ky < cy; ++ky)
                    for (int kx = 0; kx < cx; ++kx) {
                        const cd v = kAt(kx, ky, kz, c);
                        cd* to = &a[static_cast<size_t>(nx) * (ky + static_cast<size_t>(cy) * kz)];
                        const cd* w = &ex[static_cast<size_t>(nx) * kx];
                        for (int x = 0; x < nx; ++x) to[x] += v * w[x];
                    }
            for (int kz = 0; kz < cz; ++kz)
                for (int ky = 0; ky < cy; ++ky)
                    for (int y = 0; y < ny; ++y) {
                        const cd w = ey[y + static_cast<size_t>(ny) * ky];
                        const cd* from = &a[static_cast<size_t>(nx) * (ky + static_cast<size_t>(cy) * kz)];
                        cd* to = &b[static_cast<size_t>(nx) * (y + static_cast<size_t>(ny) * kz)];
                        for (int x = 0; x < nx; ++x) to[x] += from[x] * w;
                    }
            std::complex<float>* out = low.data() + static_cast<size_t>(nVox) * c;
            for (int z = 0; z < nz; ++z) {
                std::vector<cd> plane(static_cast<size_t>(nx) * ny, 0.0);
                for (int kz = 0; kz < cz; ++kz) {
                    const cd w = ez[z + static_cast<size_t>(nz) * kz];
                    const cd* from = &b[static_cast<size_t>(nx) * ny * kz];
                    for (size_t i = 0; i < plane.size(); ++i) plane[i] += from[i] * w;
                }
                for (size_t i = 0; i < plane.size(); ++i)
                    out[i + plane.size() * z] = std::complex<float>(plane[i]);
            }
        }
    });

    // The virtual coil: dominant eigenvector of the calibration data's coil covariance.
    std::vector<cd> G(static_cast<size_t>(coils) * coils, 0.0);
    for (int kz = 0; kz < cz; ++kz)
        for (int ky = 0; ky < cy; ++ky)
            for (int kx = 0; kx < cx; ++kx)
                for (int c = 0; c < coils; ++c) {
                    const cd vc = std::conj(kAt(kx, ky, kz, c));
                    for (int r = 0; r < coils; ++r)
                        G[r + static_cast<size_t>(coils) * c] += kAt(kx, ky, kz, r) * vc;
                }
    std::vector<cd> virt(coils, 1.0 / std::sqrt(static_cast<double>(coils))), scratch(coils);
    dominant(G, coils, virt, scratch);

    // Support: the low-resolution magnitude against its largest value.
    std::vector<float> magnitude(static_cast<size_t>(nVox));
    float largest = 0.0f;
    for (int64_t i = 0; i < nVox; ++i) {
        double s = 0.0;
        for (int c = 0; c < coils; ++c) s += std::norm(low[i + nVox * c]);
        magnitude[i] = static_cast<float>(std::sqrt(s));
        largest = std::max(largest, magnitude[i]);
    }
    const float floor = threshold * largest;

    const int hx = window[0] / 2, hy = window[1] / 2, hz = window[2] / 2;
    std::atomic<int> inside{0};
    const int lines = ny * nz;
    mrkit::parallel_blocks(lines, [&](int begin, int end) {
        std::vector<cd> A(static_cast<size_t>(coils) * coils), u(coils), v(coils), s(coils);
        int count = 0;
        for (int line = begin; line < end; ++line) {
            const int y = line % ny, z = line / ny;
            for (int x = 0; x < nx; ++x) {
                const int64_t i = x + nx * (y + static_cast<int64_t>(ny) * z);
                const bool keep = magnitude[i] > 0.0f && magnitude[i] >= floor;
                if (keep) {
                    std::fill(A.begin(), A.end(), 0.0);
                    for (int zz = std::max(0, z - hz); zz <= std::min(nz - 1, z + hz); ++zz)
                        for (int yy = std::max(0, y - hy); yy <= std::min(ny - 1, y + hy); ++yy)
                            for (int xx = std::max(0, x - hx); xx <= std::min(nx - 1, x + hx);
                                 ++xx) {
                                const int64_t j = xx + nx * (yy + static_cast<int64_t>(ny) * zz);
                                for (int c = 0; c < coils; ++c) s[c] = low[j + nVox * c];
                                for (int c = 0; c < coils; ++c) {
                                    const cd sc = std::conj(s[c]);
                                    cd* col = &A[static_cast<size_t>(coils) * c];
                                    for (int r = 0; r <= c; ++r) col[r] += s[r] * sc;
                                }
                            }
                    for (int c = 0; c < coils; ++c)
                        for (int r = c + 1; r < coils; ++r)
                            A[r + static_cast<size_t>(coils) * c] =
                                std::conj(A[c + static_cast<size_t>(coils) * r]);
                    // From the voxel's own coil vector, already close to the answer.
                    for (int c = 0; c < coils; ++c)
                        u[c] = cd(low[i + nVox * c]) / static_cast<double>(magnitude[i]);
                    dominant(A, coils, u, v);
                    cd phase = 0.0;
                    for (int c = 0; c < coils; ++c) phase += std::conj(virt[c]) * u[c];
                    const double p = std::abs(phase);
                    const cd turn = p > 0.0 ? std::conj(phase) / p : cd(1.0);
                    for (int c = 0; c < coils; ++c) u[c] *= turn;
                    ++count;
                }
                for (int c = 0; c < coils; ++c) {
                    mapsRe[i + nVox * c] = keep ? static_cast<float>(u[c].real()) : 0.0f;
                    mapsIm[i + nVox * c] = keep ? static_cast<float>(u[c].imag()) : 0.0f;
                }
            }
        }
        inside += count;
    });
    return inside.load();
}
