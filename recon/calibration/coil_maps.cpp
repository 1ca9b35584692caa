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

#include <Eigen/Dense>

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

// What both methods take from the calibration block: its low-resolution coil images (Hann
// tapered), their magnitude over the coils with the mask threshold, and the virtual coil.
struct Calibration {
    int nx, ny, nz, coils, cx, cy, cz, x0, y0, z0;
    int64_t nVox;
    const float* kRe;
    const float* kIm;
    std::vector<std::complex<float>> low;
    std::vector<float> magnitude;
    float floor = 0.0f;
    std::vector<cd> virt;

    cd at(int kx, int ky, int kz, int c) const {
        const int64_t i = (x0 + kx) + nx * ((y0 + ky) + static_cast<int64_t>(ny) *
                                                            ((z0 + kz) + static_cast<int64_t>(nz) * c));
        return cd(kRe[i], kIm ? kIm[i] : 0.0f);
    }
    bool keep(int64_t i) const { return magnitude[i] > 0.0f && magnitude[i] >= floor; }
};

Calibration calibrate(const float* kRe, const float* kIm, const int* dims, const int* calibSize,
                      float threshold) {
    Calibration k;
    k.nx = dims[0], k.ny = dims[1], k.nz = dims[2], k.coils = dims[3];
    k.cx = calibSize[0], k.cy = calibSize[1], k.cz = calibSize[2];
    k.nVox = static_cast<int64_t>(k.nx) * k.ny * k.nz;
    k.x0 = k.nx / 2 - k.cx / 2, k.y0 = k.ny / 2 - k.cy / 2, k.z0 = k.nz / 2 - k.cz / 2;
    k.kRe = kRe, k.kIm = kIm;
    const int nx = k.nx, ny = k.ny, nz = k.nz, cx = k.cx, cy = k.cy, cz = k.cz, coils = k.coils;
    const int64_t nVox = k.nVox;

    // Low-resolution coil images: the calibration block alone, transformed axis by axis.
    const std::vector<cd> ex = twiddles(nx, cx), ey = twiddles(ny, cy), ez = twiddles(nz, cz);
    k.low.resize(static_cast<size_t>(nVox) * coils);
    mrkit::parallel_blocks(coils, [&](int begin, int end) {
        std::vector<cd> a(static_cast<size_t>(nx) * cy * cz), b(static_cast<size_t>(nx) * ny * cz);
        for (int c = begin; c < end; ++c) {
            std::fill(a.begin(), a.end(), 0.0);
            std::fill(b.begin(), b.end(), 0.0);
            for (int kz = 0; kz < cz; ++kz)
                for (int ky = 0; ky < cy; ++ky)
                    for (int kx = 0; kx < cx; ++kx) {
                        const cd v = k.at(kx, ky, kz, c);
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
            std::complex<float>* out = k.low.data() + static_cast<size_t>(nVox) * c;
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
                    const cd vc = std::conj(k.at(kx, ky, kz, c));
                    for (int r = 0; r < coils; ++r)
                        G[r + static_cast<size_t>(coils) * c] += k.at(kx, ky, kz, r) * vc;
                }
    k.virt.assign(coils, 1.0 / std::sqrt(static_cast<double>(coils)));
    std::vector<cd> scratch(coils);
    dominant(G, coils, k.virt, scratch);

    // Support: the low-resolution magnitude against its largest value.
    k.magnitude.resize(static_cast<size_t>(nVox));
    float largest = 0.0f;
    for (int64_t i = 0; i < nVox; ++i) {
        double s = 0.0;
        for (int c = 0; c < coils; ++c) s += std::norm(k.low[i + nVox * c]);
        k.magnitude[i] = static_cast<float>(std::sqrt(s));
        largest = std::max(largest, k.magnitude[i]);
    }
    k.floor = threshold * largest;
    return k;
}

// The voxel's own low-resolution coil vector, unit norm: a start close to the answer.
void start_vector(const Calibration& k, int64_t i, std::vector<cd>& u) {
    for (int c = 0; c < k.coils; ++c)
        u[c] = cd(k.low[i + k.nVox * c]) / static_cast<double>(k.magnitude[i]);
}

// Turns u so that the virtual coil sees it real and positive, and stores it as voxel i's maps.
void store(const Calibration& k, int64_t i, std::vector<cd>& u, float* mapsRe, float* mapsIm) {
    cd phase = 0.0;
    for (int c = 0; c < k.coils; ++c) phase += std::conj(k.virt[c]) * u[c];
    const double p = std::abs(phase);
    const cd turn = p > 0.0 ? std::conj(phase) / p : cd(1.0);
    for (int c = 0; c < k.coils; ++c) {
        u[c] *= turn;
        mapsRe[i + k.nVox * c] = static_cast<float>(u[c].real());
        mapsIm[i + k.nVox * c] = static_cast<float>(u[c].imag());
    }
}

void clear(const Calibration& k, int64_t i, float* mapsRe, float* mapsIm) {
    for (int c = 0; c < k.coils; ++c) mapsRe[i + k.nVox * c] = mapsIm[i + k.nVox * c] = 0.0f;
}

}  // namespace

int MR_coil_maps(const float* kRe, const float* kIm, const int* dims, const int* calibSize,
                 const int* window, float threshold, float* mapsRe, float* mapsIm) {
    const Calibration k = calibrate(kRe, kIm, dims, calibSize, threshold);
    const int nx = k.nx, ny = k.ny, nz = k.nz, coils = k.coils;
    const int64_t nVox = k.nVox;
    const int hx = window[0] / 2, hy = window[1] / 2, hz = window[2] / 2;
    std::atomic<int> inside{0};
    const int lines = ny * nz;
    mrkit::parallel_blocks(lines, [&](int begin, int end) {
        std::vector<cd> A(static_cast<size_t>(coils) * coils), u(coils), v(coils), s(coils);
        int count = 0;
        for (int line = begin; line < end && !mrkit::interrupted(); ++line) {
            const int y = line % ny, z = line / ny;
            for (int x = 0; x < nx; ++x) {
                const int64_t i = x + nx * (y + static_cast<int64_t>(ny) * z);
                if (!k.keep(i)) {
                    clear(k, i, mapsRe, mapsIm);
                    continue;
                }
                std::fill(A.begin(), A.end(), 0.0);
                for (int zz = std::max(0, z - hz); zz <= std::min(nz - 1, z + hz); ++zz)
                    for (int yy = std::max(0, y - hy); yy <= std::min(ny - 1, y + hy); ++yy)
                        for (int xx = std::max(0, x - hx); xx <= std::min(nx - 1, x + hx); ++xx) {
                            const int64_t j = xx + nx * (yy + static_cast<int64_t>(ny) * zz);
                            for (int c = 0; c < coils; ++c) s[c] = k.low[j + nVox * c];
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
                start_vector(k, i, u);
                dominant(A, coils, u, v);
                store(k, i, u, mapsRe, mapsIm);
                ++count;
            }
        }
        inside += count;
    });
    return inside.load();
}

// ---------------------------------------------------------------------------------------------
// Coil maps from calibration kernels. Every k x k (x k) patch of the block, all coils side by
// side, is one row of the calibration matrix A. Smooth maps make the rows lie in a subspace of
// small dimension (the signal subspace, spanned by V); its projector V V^H reproduces every
// patch, which read as convolutions in image space says m(x) = G(x) m(x) for the coil vector m
// of every voxel, where G(x) = (1/M) sum over the kernel offsets q, q' of
// P[(q, b), (q', a)] e^{+2 pi i (q' - q) x / n} (M kernel positions, P = V V^H). The true maps
// are G's eigenvector of eigenvalue 1 wherever the object has signal, edges included: no
// low-resolution image is involved, so nothing of the block's blur reaches them.
namespace {

constexpr int kMaxBlock = 32;        // patches per axis beyond this add cost, not subspace
constexpr double kSubspace = 0.02;   // singular values above this fraction of the largest

struct Kernel {
    int k[3];                 // kernel size per axis
    int K;                    // columns of A: kernel positions times coils
    int span[3];              // 2 k - 1: offsets q' - q per axis
    std::vector<cd> g;        // [(a, b) pair][dz][dy][dx]: sums of P over equal offsets
};

// The signal subspace's projector summed over equal kernel offsets, scaled by 1/M.
Kernel kernel_operator(const Calibration& c, const int* kernel) {
    Kernel s;
    int block[3], start[3], rows = 1, M = 1;
    const int calib[3] = {c.cx, c.cy, c.cz};
    for (int d = 0; d < 3; ++d) {
        block[d] = std::min(calib[d], kMaxBlock);
        start[d] = calib[d] / 2 - block[d] / 2;
        s.k[d] = std::min(kernel[d], block[d]);
        s.span[d] = 2 * s.k[d] - 1;
        rows *= block[d] - s.k[d] + 1;
        M *= s.k[d];
    }
    const int coils = c.coils;
    s.K = M * coils;
    const int K = s.K;
    // A: row p (a patch position), column q + M c (kernel offset q, coil c).
    Eigen::MatrixXcd A(rows, K);
    const int px = block[0] - s.k[0] + 1, py = block[1] - s.k[1] + 1;
    for (int row = 0; row < rows; ++row) {
        const int ax = row % px, ay = (row / px) % py, az = row / (px * py);
        for (int ch = 0; ch < coils; ++ch)
            for (int q = 0; q < M; ++q) {
                const int qx = q % s.k[0], qy = (q / s.k[0]) % s.k[1], qz = q / (s.k[0] * s.k[1]);
                A(row, q + M * ch) = c.at(start[0] + ax + qx, start[1] + ay + qy,
                                          start[2] + az + qz, ch);
            }
    }
    // Eigen's products split over threads by the thread count and would change the bits with
    // it; run from inside a region they stay on the calling thread.
    Eigen::MatrixXcd P;
    mrkit::parallel_blocks(1, [&](int begin, int end) {
        if (begin == end) return;
        Eigen::MatrixXcd V;
        if (rows < K) {
            // The smaller Gram: A A^H = U S^2 U^H, and V = A^H U / S.
            const Eigen::MatrixXcd B = A * A.adjoint();
            Eigen::SelfAdjointEigenSolver<Eigen::MatrixXcd> eig(B);
            const Eigen::VectorXd& l = eig.eigenvalues();
            int r = 0;
            while (r < rows && l[rows - 1 - r] > kSubspace * kSubspace * l[rows - 1]) ++r;
            V = A.adjoint() * eig.eigenvectors().rightCols(r);
            for (int j = 0; j < r; ++j) V.col(j) /= std::sqrt(l[rows - r + j]);
        } else {
            const Eigen::MatrixXcd B = A.adjoint() * A;
            Eigen::SelfAdjointEigenSolver<Eigen::MatrixXcd> eig(B);
            const Eigen::VectorXd& l = eig.eigenvalues();
            int r = 0;
            while (r < K && l[K - 1 - r] > kSubspace * kSubspace * l[K - 1]) ++r;
            V = eig.eigenvectors().rightCols(r);
        }
        P = V * V.adjoint();
    });
    const int n3 = s.span[0] * s.span[1] * s.span[2];
    s.g.assign(static_cast<size_t>(coils) * coils * n3, 0.0);
    mrkit::parallel_blocks(coils, [&](int begin, int end) {
        for (int a = begin; a < end; ++a)
            for (int b = 0; b < coils; ++b) {
                cd* to = &s.g[static_cast<size_t>(n3) * (a + static_cast<size_t>(coils) * b)];
                for (int q = 0; q < M; ++q) {
                    const int qx = q % s.k[0], qy = (q / s.k[0]) % s.k[1], qz = q / (s.k[0] * s.k[1]);
                    for (int q2 = 0; q2 < M; ++q2) {
                        const int dx = q2 % s.k[0] - qx + s.k[0] - 1,
                                  dy = (q2 / s.k[0]) % s.k[1] - qy + s.k[1] - 1,
                                  dz = q2 / (s.k[0] * s.k[1]) - qz + s.k[2] - 1;
                        to[dx + s.span[0] * (dy + s.span[1] * dz)] += P(q + M * b, q2 + M * a);
                    }
                }
                for (int j = 0; j < n3; ++j) to[j] /= static_cast<double>(M);
            }
    });
    return s;
}

// e^{+2 pi i d (x - n/2) / n} for offsets d = -(k-1) .. k-1 (index d + k - 1) and x < n.
std::vector<cd> offsets(int n, int k) {
    std::vector<cd> w(static_cast<size_t>(n) * (2 * k - 1));
    for (int j = 0; j < 2 * k - 1; ++j)
        for (int x = 0; x < n; ++x) {
            const int64_t p = static_cast<int64_t>(j - (k - 1)) * (x - n / 2);
            w[x + static_cast<size_t>(n) * j] =
                std::polar(1.0, 2.0 * kPi * static_cast<double>(((p % n) + n) % n) / n);
        }
    return w;
}

// Power iteration as dominant(), on a Hermitian matrix held as real and imaginary parts
// (column-major, m x m): the per-voxel work of the kernel method, kept free of complex
// arithmetic's overflow checks so that it vectorises.
void dominant_split(const double* Gr, const double* Gi, int m, double* ur, double* ui, double* vr,
                    double* vi) {
    for (int it = 0; it < 100; ++it) {
        for (int r = 0; r < m; ++r) vr[r] = vi[r] = 0.0;
        for (int c = 0; c < m; ++c) {
            const double a = ur[c], b = ui[c];
            const double* gr = Gr + static_cast<size_t>(m) * c;
            const double* gi = Gi + static_cast<size_t>(m) * c;
            for (int r = 0; r < m; ++r) {
                vr[r] += gr[r] * a - gi[r] * b;
                vi[r] += gr[r] * b + gi[r] * a;
            }
        }
        double norm = 0.0;
        for (int r = 0; r < m; ++r) norm += vr[r] * vr[r] + vi[r] * vi[r];
        norm = std::sqrt(norm);
        if (norm == 0.0) return;
        double change = 0.0;
        for (int r = 0; r < m; ++r) {
            const double a = vr[r] / norm, b = vi[r] / norm;
            change += (a - ur[r]) * (a - ur[r]) + (b - ui[r]) * (b - ui[r]);
            ur[r] = a;
            ui[r] = b;
        }
        if (change < 1e-14) return;
    }
}

}  // namespace

int MR_coil_maps_kernel(const float* kRe, const float* kIm, const int* dims,
                        const int* calibSize, const int* kernel, float threshold, float* mapsRe,
                        float* mapsIm) {
    const Calibration c = calibrate(kRe, kIm, dims, calibSize, threshold);
    const Kernel s = kernel_operator(c, kernel);
    const int nx = c.nx, ny = c.ny, coils = c.coils, pairs = coils * coils;
    const int sx = s.span[0], sy = s.span[1], sz = s.span[2];
    const std::vector<cd> ex = offsets(nx, s.k[0]), ey = offsets(ny, s.k[1]),
                          ez = offsets(c.nz, s.k[2]);
    std::vector<double> exr(ex.size()), exi(ex.size());
    for (size_t j = 0; j < ex.size(); ++j) exr[j] = ex[j].real(), exi[j] = ex[j].imag();
    std::atomic<int> inside{0};
    mrkit::parallel_blocks(ny * c.nz, [&](int begin, int end) {
        std::vector<double> hr(static_cast<size_t>(pairs) * sx), hi(hr.size()), Gr(pairs),
            Gi(pairs), ur(coils), ui(coils), vr(coils), vi(coils);
        std::vector<cd> u(coils);
        int count = 0;
        for (int line = begin; line < end && !mrkit::interrupted(); ++line) {
            const int y = line % ny, z = line / ny;
            // The operator's y and z offsets summed for this line, x offsets left: h[dx][pair],
            // so that a voxel's sum over dx runs along contiguous pairs.
            for (int p = 0; p < pairs; ++p) {
                const cd* g = &s.g[static_cast<size_t>(p) * sx * sy * sz];
                for (int dx = 0; dx < sx; ++dx) {
                    cd sum = 0.0;
                    for (int dz = 0; dz < sz; ++dz)
                        for (int dy = 0; dy < sy; ++dy)
                            sum += ey[y + static_cast<size_t>(ny) * dy] *
                                   ez[z + static_cast<size_t>(c.nz) * dz] *
                                   g[dx + sx * (dy + static_cast<size_t>(sy) * dz)];
                    hr[static_cast<size_t>(pairs) * dx + p] = sum.real();
                    hi[static_cast<size_t>(pairs) * dx + p] = sum.imag();
                }
            }
            // Neighbours along the line have nearly the same eigenvector: each voxel starts
            // from the last one's (the first of a line from its low-resolution coil vector).
            bool warm = false;
            for (int x = 0; x < nx; ++x) {
                const int64_t i = x + nx * static_cast<int64_t>(line);
                if (!c.keep(i)) {
                    clear(c, i, mapsRe, mapsIm);
                    continue;
                }
                // The upper triangle (rows a <= b of column b, contiguous), then its mirror.
                std::fill(Gr.begin(), Gr.end(), 0.0);
                std::fill(Gi.begin(), Gi.end(), 0.0);
                for (int dx = 0; dx < sx; ++dx) {
                    const double wr = exr[x + static_cast<size_t>(nx) * dx],
                                 wi = exi[x + static_cast<size_t>(nx) * dx];
                    for (int b = 0; b < coils; ++b) {
                        const size_t col = static_cast<size_t>(coils) * b;
                        const double* r = &hr[static_cast<size_t>(pairs) * dx + col];
                        const double* m = &hi[static_cast<size_t>(pairs) * dx + col];
                        double* gr = &Gr[col];
                        double* gi = &Gi[col];
                        for (int a = 0; a <= b; ++a) {
                            gr[a] += r[a] * wr - m[a] * wi;
                            gi[a] += r[a] * wi + m[a] * wr;
                        }
                    }
                }
                for (int b = 0; b < coils; ++b)
                    for (int a = 0; a < b; ++a) {
                        Gr[b + static_cast<size_t>(coils) * a] = Gr[a + static_cast<size_t>(coils) * b];
                        Gi[b + static_cast<size_t>(coils) * a] = -Gi[a + static_cast<size_t>(coils) * b];
                    }
                if (!warm) {
                    start_vector(c, i, u);
                    for (int j = 0; j < coils; ++j) ur[j] = u[j].real(), ui[j] = u[j].imag();
                }
                dominant_split(Gr.data(), Gi.data(), coils, ur.data(), ui.data(), vr.data(),
                               vi.data());
                for (int j = 0; j < coils; ++j) u[j] = cd(ur[j], ui[j]);
                store(c, i, u, mapsRe, mapsIm);
                warm = true;
                ++count;
            }
        }
        inside += count;
    });
    return inside.load();
}
