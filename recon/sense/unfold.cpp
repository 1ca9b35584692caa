// Unfolding of one folded multi-coil volume: per folded voxel, the factors of its aliased
// positions are interpolated from the factor grid and applied to the coil values, and the
// results are scattered to the aliased positions of the full field of view.
#include <atomic>
#include <cmath>
#include <complex>
#include <vector>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {

// Folded index i -> factor-grid coordinate, first to first and last to last.
std::vector<float> grid_coords(int folded, int grid) {
    std::vector<float> c(folded, 0.0f);
    if (folded == 1) return c;
    const float step = static_cast<float>(grid - 1) / static_cast<float>(folded - 1);
    for (int i = 0; i < folded; ++i) c[i] = static_cast<float>(i) * step;
    return c;
}

}  // namespace

int unfold(const float* foldedRe, const float* foldedIm, const Eigen::VectorXi& foldedDims,
           const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
           const Eigen::VectorXi& /*sensDims*/, Eigen::VectorXi fullDims,
           const float* yCompartments, const float* zCompartments, float* outRe, float* outIm) {
    const int fd0 = foldedDims[0], fd1 = foldedDims[1], fd2 = foldedDims[2], fd3 = foldedDims[3];
    const int N0 = fullDims[0], N1 = fullDims[1], N2 = fullDims[2];
    const int F0 = factorDims[0], F1 = factorDims[1], F2 = factorDims[2];
    const int maxY = static_cast<int>(ceilf(static_cast<float>(N1) / static_cast<float>(fd1)));
    const int maxZ = static_cast<int>(ceilf(static_cast<float>(N2) / static_cast<float>(fd2)));
    const int slab = fd0 * fd1, volume = slab * fd2, foldedTotal = foldedDims.prod();
    const int plane = F0 * F1, V = plane * F2;
    const int outPlane = N0 * N1, outTotal = outPlane * N2;

    float yImageBounds[2] = {-1.0f, -1.0f}, zImageBounds[2] = {-1.0f, -1.0f};
    get_compartments(N1, fd1, yImageBounds);
    get_compartments(N2, fd2, zImageBounds);
    const std::vector<float> xCoords = grid_coords(fd0, F0);
    const std::vector<float> yCoords = grid_coords(fd1, F1);
    const std::vector<float> zCoords = grid_coords(fd2, F2);

    std::atomic<int> status{1};
    mrkit::parallel_blocks(fd0, [&](int begin, int end) {
        if (begin >= end) return;
        const int slots = maxY * maxZ;
        std::vector<int> mask(slots);
        Eigen::VectorXi yList(maxY), zList(maxZ);
        Eigen::MatrixXcf M = Eigen::MatrixXcf::Zero(slots, fd3);
        Eigen::VectorXcf v(fd3), u(slots);

        for (int x = begin; x < end; ++x) {
            for (int y = 0; y < fd1; ++y) {
                const int ny = MR_get_unfolded_positions(N1, fd1, y, yList);
                for (int z = 0; z < fd2; ++z) {
                    const int nz = MR_get_unfolded_positions(N2, fd2, z, zList);
                    const int n = ny * nz;

                    // Snapped to the factor grid's own compartments, so the interpolation
                    // never blends factors of differently aliased voxels.
                    float cx = xCoords[x];
                    float cy = static_cast<float>(
                        pos2interpolate(yCoords[y], y, yImageBounds, yCompartments));
                    float cz = static_cast<float>(
                        pos2interpolate(zCoords[z], z, zImageBounds, zCompartments));
                    if (cy < 0) cy = 0;
                    if (cx < 0) cx = 0;
                    if (cz < 0) cz = 0;

                    // Coil 0's factor at the nearest grid voxel says which positions carry
                    // signal; outside the object this is the only work done.
                    const int r = MR_round(cz) * plane + MR_round(cy) * F0 + MR_round(cx);
                    int nValid = 0;
                    for (int m = 0; m < n; ++m) {
                        const std::complex<double> f = factors[r + m * V];
                        mask[m] = (f.real() != 0.0 || f.imag() != 0.0) ? 1 : 0;
                        nValid += mask[m];
                    }
                    if (nValid == 0) continue;

                    // The interpolation corner is truncated, unlike the rounded mask voxel.
                    const int tx = static_cast<int>(cx), ty = static_cast<int>(cy),
                              tz = static_cast<int>(cz);
                    const int b = tx + ty * F0 + tz * plane;
                    const double fy = cy - static_cast<float>(ty);
                    const double fx = cx - static_cast<float>(tx);
                    const double fz = cz - static_cast<float>(tz);
                    for (int c = 0; c < fd3; ++c) {
                        int row = 0;
                        for (int m = 0; m < n; ++m) {
                            if (!mask[m]) continue;
                            const int block = c * n + m;
                            // Bounded by the end of this block: no reads into the next one.
                            const std::complex<double> f =
                                MR_linear_interpolation(factors, factorDims, b + block * V, fy, fx,
                                                        fz, plane, (block + 1) * V);
                            M(row++, c) = std::complex<float>(static_cast<float>(f.real()),
                                                              static_cast<float>(f.imag()));
                        }
                    }

                    const int f = y * fd0 + x + z * slab;
                    if (f >= foldedTotal) {
                        status.store(-1, std::memory_order_relaxed);
                        continue;
                    }
                    for (int c = 0; c < fd3; ++c)
                        v[c] = std::complex<float>(foldedRe[f + c * volume],
                                                   foldedIm ? foldedIm[f + c * volume] : 0.0f);
                    u.head(nValid).noalias() = M.topRows(nValid) * v;

                    // Aliased positions in factor order (y outer, z inner). One outside the output
                    // advances neither counter, so the rest of the voxel pairs with the mask one
                    // step behind; that pairing is kept as it is.
                    int k = 0, j = 0;
                    for (int iy = 0; iy < ny; ++iy) {
                        for (int iz = 0; iz < nz; ++iz) {
                            if (!mask[k]) {
                                ++k;
                                continue;
                            }
                            const int o = yList[iy] * N0 + x + zList[iz] * outPlane;
                            if (o >= outTotal) {
                                status.store(-1, std::memory_order_relaxed);
                                continue;
                            }
                            outRe[o] = u[j].real();
                            outIm[o] = u[j].imag();
                            ++j;
                            ++k;
                        }
                    }
                }
            }
        }
    });
    return status.load();
}
