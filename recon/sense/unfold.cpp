// Unfolding of one folded multi-coil volume: per folded voxel, the factors of its aliased
// positions are interpolated from the factor grid and applied to the coil values, and the
// results are scattered to the aliased positions of the full field of view.
#include <atomic>
#include <cmath>
#include <complex>
#include <vector>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "recon/sense/corners.hpp"

namespace {

// Where one folded index samples the factor grid: the coordinate (never below 0), its nearest
// grid index for the signal mask, and its lower grid index and fraction for interpolation.
struct Sample {
    float coord;
    int nearest, lower;
    double fraction;
};

// Folded index i -> factor-grid coordinate, first to first and last to last; along y and z the
// coordinate is snapped to the factor grid's compartments, so the interpolation never blends
// factors of differently aliased voxels.
std::vector<Sample> samples(int folded, int grid, int fullSize, const float* gridBounds) {
    float imageBounds[2] = {-1.0f, -1.0f};
    if (gridBounds) get_compartments(fullSize, folded, imageBounds);
    const float step =
        folded > 1 ? static_cast<float>(grid - 1) / static_cast<float>(folded - 1) : 0.0f;
    std::vector<Sample> out(folded);
    for (int i = 0; i < folded; ++i) {
        float c = folded == 1 ? 0.0f : static_cast<float>(i) * step;
        if (gridBounds) c = static_cast<float>(pos2interpolate(c, i, imageBounds, gridBounds));
        if (c < 0) c = 0;
        const int lower = static_cast<int>(c);
        out[i] = {c, MR_round(c), lower, c - static_cast<float>(lower)};
    }
    return out;
}

// Aliased full positions of every folded index of one axis, `most` entries per index.
struct Aliases {
    int most;
    std::vector<int> count, position;
    Aliases(int fullSize, int folded)
        : most(static_cast<int>(ceilf(static_cast<float>(fullSize) / static_cast<float>(folded)))),
          count(folded),
          position(static_cast<size_t>(folded) * most) {
        Eigen::VectorXi list(most);
        for (int i = 0; i < folded; ++i) {
            count[i] = MR_get_unfolded_positions(fullSize, folded, i, list);
            std::copy(list.data(), list.data() + most, position.begin() + i * most);
        }
    }
    const int* of(int i) const { return position.data() + static_cast<size_t>(i) * most; }
};

}  // namespace

int unfold(const float* foldedRe, const float* foldedIm, const Eigen::VectorXi& foldedDims,
           const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
           const Eigen::VectorXi& /*sensDims*/, Eigen::VectorXi fullDims,
           const float* yCompartments, const float* zCompartments, float* outRe, float* outIm) {
    const int fd0 = foldedDims[0], fd1 = foldedDims[1], fd2 = foldedDims[2], fd3 = foldedDims[3];
    const int N0 = fullDims[0], N1 = fullDims[1], N2 = fullDims[2];
    const int F0 = factorDims[0], F1 = factorDims[1], F2 = factorDims[2];
    const int slab = fd0 * fd1, volume = slab * fd2, foldedTotal = foldedDims.prod();
    const int plane = F0 * F1, V = plane * F2;
    const int outPlane = N0 * N1, outTotal = outPlane * N2;

    const std::vector<Sample> xs = samples(fd0, F0, N0, nullptr);
    const std::vector<Sample> ys = samples(fd1, F1, N1, yCompartments);
    const std::vector<Sample> zs = samples(fd2, F2, N2, zCompartments);
    const Aliases yAlias(N1, fd1), zAlias(N2, fd2);

    std::atomic<int> status{1};
    mrkit::parallel_blocks(fd0, [&](int begin, int end) {
        if (begin >= end) return;
        const int slots = yAlias.most * zAlias.most;
        std::vector<int> mask(slots);
        Eigen::MatrixXcf M = Eigen::MatrixXcf::Zero(slots, fd3);
        Eigen::VectorXcf v(fd3), u(slots);

        // x innermost, so the factors, the folded data and the output are walked along rows.
        for (int y = 0; y < fd1; ++y) {
            const int ny = yAlias.count[y];
            const int* yList = yAlias.of(y);
            for (int z = 0; z < fd2; ++z) {
                const int nz = zAlias.count[z];
                const int* zList = zAlias.of(z);
                const int n = ny * nz;
                const Sample &sy = ys[y], &sz = zs[z];
                for (int x = begin; x < end; ++x) {
                    const Sample& sx = xs[x];

                    // Coil 0's factor at the nearest grid voxel says which positions carry
                    // signal; outside the object this is the only work done.
                    const int r = sz.nearest * plane + sy.nearest * F0 + sx.nearest;
                    int nValid = 0;
                    for (int m = 0; m < n; ++m) {
                        const std::complex<double> f = factors[r + m * V];
                        mask[m] = (f.real() != 0.0 || f.imag() != 0.0) ? 1 : 0;
                        nValid += mask[m];
                    }
                    if (nValid == 0) continue;

                    // Same corners and weights for every block: the block bound (block + 1) * V
                    // leaves b + offset < V as the test.
                    const int b = sx.lower + sy.lower * F0 + sz.lower * plane;
                    const mrkit::Corners<double> at(b, F0, plane, V, sx.fraction, sy.fraction,
                                                    sz.fraction);
                    for (int c = 0; c < fd3; ++c) {
                        int row = 0;
                        for (int m = 0; m < n; ++m) {
                            if (!mask[m]) continue;
                            const std::complex<double>* block = factors.data() + (c * n + m) * V;
                            const std::complex<double> f = at.apply(block);
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
