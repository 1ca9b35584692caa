// Regularised SENSE combination factors on the factor grid: the sensitivity maps' own x grid and
// their y and z lines folded by the reduction factors. Each folded voxel solves
//   U = (S^H Psi^-1 S + D)^-1 S^H Psi^-1
// for its valid aliased positions and stores U packed by the voxel's own slot count.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <utility>
#include <vector>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {

// Inverse from a partial-pivoting LU: the row permutation applied to the identity, then the
// unit-lower and the upper triangular solves in place. These steps fix the last bits.
void lu_inverse(const Eigen::PartialPivLU<Eigen::MatrixXcd>& lu, Eigen::MatrixXcd& inv) {
    const Eigen::Index n = lu.matrixLU().rows();
    inv.noalias() = lu.permutationP() * Eigen::MatrixXcd::Identity(n, n);
    lu.matrixLU().triangularView<Eigen::UnitLower>().solveInPlace(inv);
    lu.matrixLU().triangularView<Eigen::Upper>().solveInPlace(inv);
}

// Products and inverse for one count K of valid positions. Kept per K so a column whose voxels
// alternate between counts (non-integer reduction) never reallocates.
struct Solve {
    Eigen::MatrixXcd T, A, inv, W, U;
    Eigen::PartialPivLU<Eigen::MatrixXcd> lu;
    Solve(int K, int coils) : T(K, coils), A(K, K), inv(K, K), W(K, coils), U(K, coils), lu(K) {}
};

// Aliased positions of one folded line along y or z, on the full grid and on the map grid.
struct Line {
    Eigen::VectorXi full;   // from MR_get_unfolded_positions
    Eigen::VectorXf coord;  // map coordinate of each, for interpolation
    std::vector<int> line;  // nearest map line of each
    int count = 0;
    explicit Line(int capacity) : full(capacity), coord(capacity), line(capacity) {}

    // Folded grid line `index` -> nearest folded image line -> its aliased full positions.
    void fill(int index, const Eigen::VectorXf& lines, const Eigen::VectorXf& toMap, int fullSize,
              int foldedSize) {
        const int p = MR_round(lines[index]);
        count = MR_get_unfolded_positions(fullSize, foldedSize, p, full);
        for (int i = 0; i < count; ++i) {
            coord[i] = toMap[full[i]];
            line[i] = MR_round(coord[i]);
        }
    }
};

// Records folded line index - 1 as a compartment bound when the aliased positions jump.
struct EdgeTracker {
    Eigen::VectorXf previous;
    int previousCount = -1;
    int recorded = 0;
    explicit EdgeTracker(int capacity) : previous(capacity) {}

    void step(const Line& now, int index, int foldedGridSize, float* bounds) {
        if (index > 0 &&
            find_edges(now.coord, previous, now.count, previousCount, foldedGridSize) == 1 &&
            recorded < 2)
            bounds[recorded++] = static_cast<float>(index - 1);
        previous = now.coord;
        previousCount = now.count;
    }
};

int ceil_div(int a, int b) {
    return (a + b - 1) / b;
}

}  // namespace

int find_edges(Eigen::VectorXf current, Eigen::VectorXf previous, int count, int prevCount,
               int foldedSize) {
    if (count != prevCount) return 1;
    if (count < 1) return 0;
    const float limit = static_cast<float>(foldedSize / 2);
    for (int i = 0; i < count; ++i)
        if (std::fabs(current[i] - previous[i]) > limit) return 1;
    return 0;
}

int get_combination_factors(const float* sensRe, const float* sensIm,
                            const Eigen::VectorXi& sensDims, const Eigen::MatrixXcd& noiseCov,
                            const Eigen::Vector3f& R, double lambda,
                            const Eigen::VectorXf& regImage, Eigen::VectorXcd& factors,
                            Eigen::VectorXi& foldedDims, Eigen::VectorXi fullDims,
                            float* yCompartments, float* zCompartments) {
    const int nx = sensDims[0], ny = sensDims[1], nz = sensDims[2], coils = sensDims[3];
    const int nYf = static_cast<int>(ceilf(static_cast<float>(ny) / R[1]));
    const int nZf = static_cast<int>(ceilf(static_cast<float>(nz) / R[2]));
    const int nVox = nx * ny * nz;
    const int nTot = sensDims.prod();
    const int V = nx * nYf * nZf;  // one factor field over the grid

    // The lists hold ceil(R) entries; an image folded more strongly than R would overrun them,
    // so they are sized for that too.
    const int capY = std::max(static_cast<int>(ceilf(R[1])), ceil_div(fullDims[1], foldedDims[1]));
    const int capZ = std::max(static_cast<int>(ceilf(R[2])), ceil_div(fullDims[2], foldedDims[2]));
    const int slots = capY * capZ;

    const Eigen::VectorXf Ly =
        Eigen::VectorXf::LinSpaced(nYf, 0.f, static_cast<float>(foldedDims[1] - 1));
    const Eigen::VectorXf Lz =
        Eigen::VectorXf::LinSpaced(nZf, 0.f, static_cast<float>(foldedDims[2] - 1));
    const Eigen::VectorXf My = Eigen::VectorXf::LinSpaced(fullDims[1], 0.f, ny - 1.f);
    const Eigen::VectorXf Mz = Eigen::VectorXf::LinSpaced(fullDims[2], 0.f, nz - 1.f);
    Eigen::VectorXi mapDims(3);
    mapDims << nx, ny, nz;

    Eigen::MatrixXcd psiInv(coils, coils);
    {
        Eigen::PartialPivLU<Eigen::MatrixXcd> lu(noiseCov);
        lu_inverse(lu, psiInv);
    }

    std::atomic<int> status{1};
    mrkit::parallel_blocks(nx, [&](int begin, int end) {
        if (begin >= end) return;
        Line ys(capY), zs(capZ);
        EdgeTracker yEdges(capY), zEdges(capZ);
        std::vector<int> valid(slots);
        std::vector<double> prior(slots);
        Eigen::MatrixXcd S(coils, slots), D(slots, slots);
        std::vector<std::unique_ptr<Solve>> solves(slots + 1);

        for (int x = begin; x < end; ++x) {
            // A slot once valid stays valid for the rest of the column.
            std::fill(valid.begin(), valid.end(), 0);
            D.setZero();
            yEdges.previousCount = zEdges.previousCount = -1;
            const float fx = static_cast<float>(x);

            for (int yf = 0; yf < nYf; ++yf) {
                ys.fill(yf, Ly, My, fullDims[1], foldedDims[1]);
                if (x == 0) yEdges.step(ys, yf, nYf, yCompartments);

                for (int zf = 0; zf < nZf; ++zf) {
                    zs.fill(zf, Lz, Mz, fullDims[2], foldedDims[2]);
                    if (x == 0 && yf == 0) zEdges.step(zs, zf, nZf, zCompartments);

                    // Slots y outer, z inner; a position outside the maps takes no slot.
                    int j = 0, K = 0;
                    for (int iy = 0; iy < ys.count; ++iy) {
                        for (int iz = 0; iz < zs.count; ++iz) {
                            const int i = x + nx * (ys.line[iy] + ny * zs.line[iz]);
                            if (i >= nTot) {
                                status.store(-1, std::memory_order_relaxed);
                                continue;
                            }
                            if (sensIm && sensRe[i] != 0.0f) valid[j] = 1;
                            if (valid[j] == 0) {
                                ++j;
                                continue;
                            }
                            if (lambda != 0.0)
                                prior[K] =
                                    i < regImage.size() ? static_cast<double>(regImage[i]) : 0.0;
                            const float cy = ys.coord[iy], cz = zs.coord[iz];
                            for (int c = 0; c < coils; ++c) {
                                const float re =
                                    MR_linear_interpolation(sensRe + c * nVox, cy, fx, cz, mapDims);
                                const float im = sensIm
                                                     ? MR_linear_interpolation(sensIm + c * nVox,
                                                                               cy, fx, cz, mapDims)
                                                     : 0.0f;
                                S(c, K) = std::complex<double>(re, im);
                            }
                            ++K;
                            ++j;
                        }
                    }

                    const int n = ys.count * zs.count;
                    const int base = x + nx * (yf + nYf * zf);
                    if (K == 0) {
                        for (int c = 0; c < coils; ++c)
                            for (int s = 0; s < n; ++s) factors[base + V * (s + c * n)] = 0.0;
                        continue;
                    }

                    if (lambda != 0.0)
                        for (int k = 0; k < K; ++k)
                            D(k, k) =
                                prior[k] == 0.0 ? 0.0 : 1.0 / (std::pow(prior[k], 2.0) * lambda);
                    if (!solves[K]) solves[K] = std::make_unique<Solve>(K, coils);
                    Solve& m = *solves[K];
                    const auto Sk = S.leftCols(K);
                    m.T.noalias() = Sk.adjoint() * psiInv;
                    m.A.noalias() = m.T * Sk;
                    m.A += D.topLeftCorner(K, K);
                    m.lu.compute(m.A);
                    lu_inverse(m.lu, m.inv);
                    m.W.noalias() = m.inv * Sk.adjoint();
                    m.U.noalias() = m.W * psiInv;

                    // Packed by this voxel's own slot count n; flags left over from earlier
                    // voxels past the visited slots have no row and store 0.
                    for (int c = 0; c < coils; ++c) {
                        int row = 0;
                        for (int s = 0; s < n; ++s) {
                            std::complex<double> value = 0.0;
                            if (valid[s]) {
                                if (row < K) value = m.U(row, c);
                                ++row;
                            }
                            factors[base + V * (s + c * n)] = value;
                        }
                    }
                }
            }
        }
    });

    if (yCompartments[1] < yCompartments[0]) std::swap(yCompartments[0], yCompartments[1]);
    if (zCompartments[1] < zCompartments[0]) std::swap(zCompartments[0], zCompartments[1]);
    return status.load();
}
