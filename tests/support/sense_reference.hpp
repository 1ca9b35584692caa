// A literal SENSE: combination factors, unfolding and the driver written out step by step, one
// voxel at a time, sequentially, with plain Eigen expressions and nothing reused between voxels.
// The library's fast paths must give its bits (a NaN may stand for another NaN), so this code
// stays as plain as the rules it follows: change a rule here and in the library together.
#pragma once

#include <Eigen/Dense>

#include <cmath>
#include <complex>
#include <utility>
#include <vector>

#include "recon/recon.hpp"

namespace sense_reference {

// Inverse from partial-pivoting LU: permutation applied to the identity, unit-lower solve,
// upper solve.
inline Eigen::MatrixXcd lu_inverse(const Eigen::MatrixXcd& a) {
    const Eigen::PartialPivLU<Eigen::MatrixXcd> lu(a);
    Eigen::MatrixXcd inv = lu.permutationP() * Eigen::MatrixXcd::Identity(a.rows(), a.rows());
    lu.matrixLU().triangularView<Eigen::UnitLower>().solveInPlace(inv);
    lu.matrixLU().triangularView<Eigen::Upper>().solveInPlace(inv);
    return inv;
}

// Aliased positions of one folded line: full-grid positions, their map coordinates and lines.
struct Line {
    int count = 0;
    Eigen::VectorXi full;
    Eigen::VectorXf coord;
    Eigen::VectorXi map;
};

inline Line line_positions(int index, const Eigen::VectorXf& toFolded,
                           const Eigen::VectorXf& toMap, int fullSize, int foldedSize) {
    Line l;
    l.full.resize(fullSize);
    l.count = MR_get_unfolded_positions(fullSize, foldedSize, MR_round(toFolded[index]), l.full);
    l.coord = Eigen::VectorXf::Zero(fullSize);
    l.map = Eigen::VectorXi::Zero(fullSize);
    for (int i = 0; i < l.count; ++i) {
        l.coord[i] = toMap[l.full[i]];
        l.map[i] = MR_round(l.coord[i]);
    }
    return l;
}

// Stores folded line index - 1 as the next compartment bound where the positions jump.
inline void edge(const Line& current, const Line& previous, int index, int gridSize,
                 float* bounds, int& recorded) {
    if (index == 0 || recorded >= 2) return;
    if (find_edges(current.coord, previous.coord, current.count, previous.count, gridSize) == 1)
        bounds[recorded++] = static_cast<float>(index - 1);
}

// Which aliased positions of a voxel take part. Sticky: a slot flagged once in an x column
// stays flagged for the column's later voxels, and only the first coil's real map decides.
// PerVoxel: judged afresh for each voxel, valid where any coil's map is non-zero.
enum class Validity { Sticky, PerVoxel };

inline int factors(const float* sensRe, const float* sensIm, const Eigen::VectorXi& sensDims,
                   const Eigen::MatrixXcd& noiseCov, const Eigen::Vector3f& R, double lambda,
                   const Eigen::VectorXf& regImage, Eigen::VectorXcd& out,
                   const Eigen::VectorXi& foldedDims, const Eigen::VectorXi& fullDims,
                   float* yBounds, float* zBounds, Validity validity = Validity::Sticky) {
    const int nx = sensDims[0], ny = sensDims[1], nz = sensDims[2], coils = sensDims[3];
    const int nYf = static_cast<int>(ceilf(static_cast<float>(ny) / R[1]));
    const int nZf = static_cast<int>(ceilf(static_cast<float>(nz) / R[2]));
    const int P = static_cast<int>(ceilf(R[1])) * static_cast<int>(ceilf(R[2]));
    const int nvox = nx * ny * nz, ntot = sensDims.prod();
    const int mapDims[3] = {nx, ny, nz};
    const Eigen::VectorXf Ly =
        Eigen::VectorXf::LinSpaced(nYf, 0.f, static_cast<float>(foldedDims[1] - 1));
    const Eigen::VectorXf Lz =
        Eigen::VectorXf::LinSpaced(nZf, 0.f, static_cast<float>(foldedDims[2] - 1));
    const Eigen::VectorXf My =
        Eigen::VectorXf::LinSpaced(fullDims[1], 0.f, static_cast<float>(ny - 1));
    const Eigen::VectorXf Mz =
        Eigen::VectorXf::LinSpaced(fullDims[2], 0.f, static_cast<float>(nz - 1));
    const Eigen::MatrixXcd psiInv = lu_inverse(noiseCov);

    int status = 1, yRecorded = 0, zRecorded = 0;
    for (int x = 0; x < nx; ++x) {
        Eigen::VectorXi flags = Eigen::VectorXi::Zero(P);
        Eigen::MatrixXcd D = Eigen::MatrixXcd::Zero(P, P);
        Line previousY;
        previousY.count = -1;
        for (int yf = 0; yf < nYf; ++yf) {
            const Line ys = line_positions(yf, Ly, My, fullDims[1], foldedDims[1]);
            if (x == 0) edge(ys, previousY, yf, nYf, yBounds, yRecorded);
            previousY = ys;
            Line previousZ;
            previousZ.count = -1;
            for (int zf = 0; zf < nZf; ++zf) {
                const Line zs = line_positions(zf, Lz, Mz, fullDims[2], foldedDims[2]);
                if (x == 0 && yf == 0) edge(zs, previousZ, zf, nZf, zBounds, zRecorded);
                previousZ = zs;

                // The valid positions' map columns and priors, slots y outer, z inner.
                if (validity == Validity::PerVoxel) flags.setZero();
                std::vector<Eigen::VectorXcd> columns;
                std::vector<double> priors;
                int j = 0;
                for (int iy = 0; iy < ys.count; ++iy) {
                    for (int iz = 0; iz < zs.count; ++iz) {
                        const int i = x + nx * (ys.map[iy] + ny * zs.map[iz]);
                        if (i >= ntot) {
                            status = -1;
                            continue;
                        }
                        if (validity == Validity::Sticky) {
                            if (sensIm && sensRe[i] != 0.f) flags[j] = 1;
                        } else {
                            for (int c = 0; c < coils; ++c)
                                if (sensRe[i + c * nvox] != 0.f ||
                                    (sensIm && sensIm[i + c * nvox] != 0.f))
                                    flags[j] = 1;
                        }
                        if (flags[j] == 0) {
                            ++j;
                            continue;
                        }
                        if (lambda != 0)
                            priors.push_back(i < regImage.size() ? regImage[i] : 0.0);
                        Eigen::VectorXcd s(coils);
                        for (int c = 0; c < coils; ++c) {
                            const float re = MR_linear_interpolation(
                                sensRe + c * nvox, ys.coord[iy], static_cast<float>(x),
                                zs.coord[iz], mapDims);
                            const float im = sensIm ? MR_linear_interpolation(
                                                          sensIm + c * nvox, ys.coord[iy],
                                                          static_cast<float>(x), zs.coord[iz],
                                                          mapDims)
                                                    : 0.f;
                            s[c] = std::complex<double>(re, im);
                        }
                        columns.push_back(s);
                        ++j;
                    }
                }

                const int n = ys.count * zs.count, K = static_cast<int>(columns.size());
                const auto at = [&](int slot, int c) {
                    return x + nx * (yf + nYf * (zf + nZf * (slot + c * n)));
                };
                if (K == 0) {
                    for (int c = 0; c < coils; ++c)
                        for (int slot = 0; slot < n; ++slot) out[at(slot, c)] = 0.0;
                    continue;
                }
                Eigen::MatrixXcd S(coils, K);
                for (int k = 0; k < K; ++k) S.col(k) = columns[k];
                if (lambda != 0)
                    for (int k = 0; k < K; ++k)
                        D(k, k) = priors[k] == 0 ? 0.0 : 1.0 / (std::pow(priors[k], 2.0) * lambda);
                const Eigen::MatrixXcd T = S.adjoint() * psiInv;
                const Eigen::MatrixXcd A = T * S + D.topLeftCorner(K, K);
                const Eigen::MatrixXcd Ainv = lu_inverse(A);
                const Eigen::MatrixXcd U = (Ainv * S.adjoint()) * psiInv;
                for (int c = 0; c < coils; ++c) {
                    int m = 0;
                    for (int slot = 0; slot < n; ++slot)
                        out[at(slot, c)] = flags[slot] ? U(m++, c) : std::complex<double>(0.0);
                }
            }
        }
    }
    if (yBounds[1] < yBounds[0]) std::swap(yBounds[0], yBounds[1]);
    if (zBounds[1] < zBounds[0]) std::swap(zBounds[0], zBounds[1]);
    return status;
}

inline int unfold(const float* foldedRe, const float* foldedIm, const Eigen::VectorXi& foldedDims,
                  const Eigen::VectorXcd& factors, const Eigen::VectorXi& factorDims,
                  const Eigen::VectorXi& fullDims, const float* yBounds, const float* zBounds,
                  float* outRe, float* outIm) {
    const int fd0 = foldedDims[0], fd1 = foldedDims[1], fd2 = foldedDims[2], fd3 = foldedDims[3];
    const int F0 = factorDims[0], F1 = factorDims[1], F2 = factorDims[2];
    const int N0 = fullDims[0], N1 = fullDims[1], N2 = fullDims[2];
    const int V = F0 * F1 * F2;
    const int maxY = static_cast<int>(ceilf(static_cast<float>(N1) / static_cast<float>(fd1)));
    const int maxZ = static_cast<int>(ceilf(static_cast<float>(N2) / static_cast<float>(fd2)));
    float yImage[2] = {-1.f, -1.f}, zImage[2] = {-1.f, -1.f};
    get_compartments(N1, fd1, yImage);
    get_compartments(N2, fd2, zImage);
    const auto coords = [](int folded, int grid) {
        std::vector<float> v(folded, 0.f);
        if (folded > 1)
            for (int i = 0; i < folded; ++i)
                v[i] = static_cast<float>(i) *
                       (static_cast<float>(grid - 1) / static_cast<float>(folded - 1));
        return v;
    };
    const std::vector<float> xc = coords(fd0, F0), yc = coords(fd1, F1), zc = coords(fd2, F2);

    int status = 1;
    for (int x = 0; x < fd0; ++x) {
        for (int y = 0; y < fd1; ++y) {
            Eigen::VectorXi yList(maxY), zList(maxZ);
            const int ny = MR_get_unfolded_positions(N1, fd1, y, yList);
            for (int z = 0; z < fd2; ++z) {
                const int nz = MR_get_unfolded_positions(N2, fd2, z, zList);
                const int n = ny * nz;
                float cx = xc[x];
                float cy = static_cast<float>(pos2interpolate(yc[y], y, yImage, yBounds));
                float cz = static_cast<float>(pos2interpolate(zc[z], z, zImage, zBounds));
                if (cx < 0) cx = 0;
                if (cy < 0) cy = 0;
                if (cz < 0) cz = 0;

                const int r = MR_round(cz) * F0 * F1 + MR_round(cy) * F0 + MR_round(cx);
                std::vector<int> mask(n);
                int valid = 0;
                for (int m = 0; m < n; ++m) {
                    mask[m] = factors[r + m * V] != std::complex<double>(0.0) ? 1 : 0;
                    valid += mask[m];
                }
                if (valid == 0) continue;

                const int b = static_cast<int>(cx) + static_cast<int>(cy) * F0 +
                              static_cast<int>(cz) * F0 * F1;
                const float fy = cy - static_cast<int>(cy), fx = cx - static_cast<int>(cx),
                            fz = cz - static_cast<int>(cz);
                Eigen::MatrixXcf M(valid, fd3);
                for (int c = 0; c < fd3; ++c) {
                    int row = 0;
                    for (int m = 0; m < n; ++m)
                        if (mask[m])
                            M(row++, c) = std::complex<float>(MR_linear_interpolation(
                                factors, factorDims, b + (c * n + m) * V, fy, fx, fz, F0 * F1,
                                (c * n + m + 1) * V));
                }

                const int f = y * fd0 + x + z * fd0 * fd1;
                if (f >= fd0 * fd1 * fd2 * fd3) {
                    status = -1;
                    continue;
                }
                Eigen::VectorXcf v(fd3);
                for (int c = 0; c < fd3; ++c) {
                    const int i = f + c * fd0 * fd1 * fd2;
                    v[c] = std::complex<float>(foldedRe[i], foldedIm ? foldedIm[i] : 0.f);
                }
                const Eigen::VectorXcf u = M * v;

                int k = 0, j = 0;
                for (int iy = 0; iy < ny; ++iy) {
                    for (int iz = 0; iz < nz; ++iz) {
                        if (!mask[k]) {
                            ++k;
                            continue;
                        }
                        const int o = yList[iy] * N0 + x + zList[iz] * N0 * N1;
                        if (o >= N0 * N1 * N2) {
                            status = -1;
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
    return status;
}

// The driver, with the library's signature; the factor vector starts zeroed.
inline int recon(const float* foldedRe, const float* foldedIm, int nFoldedDims,
                 const int* foldedDims, const float* sensRe, const float* sensIm, int nSensDims,
                 const int* sensDims, const float* noiseRe, const float* noiseIm,
                 const int* noiseDims, const int* fullDims, const float* refRe, const float* refIm,
                 int nRefDims, const int* refDims, const float* regRe, const float* regIm,
                 int nRegDims, const int* regDims, double regScale, float* outRe, float* outIm,
                 const int* outDims, Validity validity = Validity::Sticky) {
    const auto pad13 = [](const int* d, int count) {
        Eigen::VectorXi v = Eigen::VectorXi::Ones(13);
        for (int i = 0; i < count && i < 13; ++i) v[i] = d[i];
        return v;
    };
    Eigen::MatrixXcd noiseCov = Eigen::MatrixXcd::Identity(noiseDims[0], noiseDims[1]);
    if (noiseRe)
        for (int c = 0, i = 0; c < noiseDims[1]; ++c)
            for (int r = 0; r < noiseDims[0]; ++r, ++i) noiseCov(r, c) = {noiseRe[i], noiseIm[i]};
    const Eigen::VectorXi fd13 = pad13(foldedDims, nFoldedDims), sd13 = pad13(sensDims, nSensDims),
                          od13 = pad13(outDims, nFoldedDims);
    Eigen::Vector3f R;
    R[0] = static_cast<float>(fullDims[0]) / static_cast<float>(fd13[0]);
    R[1] = static_cast<float>(fullDims[1]) / static_cast<float>(fd13[1]);
    R[2] = nFoldedDims > 2 ? static_cast<float>(fullDims[2]) / static_cast<float>(fd13[2]) : 1.0f;

    const bool regularise = refRe && regRe;
    double lambda = 0.0;
    Eigen::VectorXi rd13 = Eigen::VectorXi::Ones(13);
    if (regularise) {
        rd13 = pad13(regDims, nRegDims);
        const double rTot = (static_cast<double>(fullDims[0]) / fd13[0]) *
                            (static_cast<double>(fullDims[1]) / fd13[1]) *
                            (static_cast<double>(fullDims[2]) / fd13[2]);
        const double a = MR_SA(foldedRe, foldedIm, fd13.prod());
        const double b = MR_SA(refRe, refIm, pad13(refDims, nRefDims).prod());
        lambda = (1.0 / rTot) * (((1.0 / regScale) * a / b) * ((1.0 / regScale) * a / b));
    }

    Eigen::VectorXi factorDims(4);
    factorDims << sd13[0], static_cast<int>(ceilf(static_cast<float>(sd13[1]) / R[1])),
        static_cast<int>(ceilf(static_cast<float>(sd13[2]) / R[2])),
        static_cast<int>(ceilf(R[1])) * static_cast<int>(ceilf(R[2])) * sd13[3];
    Eigen::VectorXcd factorVec = Eigen::VectorXcd::Zero(factorDims.prod());
    Eigen::VectorXi fd7(7), od7(7);
    fd7 << fd13[0], fd13[1], fd13[2], fd13[3], fd13.segment(4, 3).prod(), fd13[7],
        fd13.tail(5).prod();
    od7 << od13[0], od13[1], od13[2], od13[3], fd7[4], fd7[5], fd7[6];
    const Eigen::VectorXi folded4 = fd13.head(4), sens4 = sd13.head(4);
    Eigen::VectorXi full3(3);
    full3 << fullDims[0], fullDims[1], fullDims[2];
    const int regBlock = regularise ? rd13[0] * rd13[1] * rd13[2] : 0;
    Eigen::VectorXf regImage(regBlock);

    for (int l = 0; l < fd13[7]; ++l) {
        for (int i = 0; i < regBlock; ++i) {
            const float re = regRe[l * regBlock + i];
            regImage[i] = regIm ? sqrtf(re * re + regIm[l * regBlock + i] * regIm[l * regBlock + i])
                                : sqrtf(re * re);
        }
        float yBounds[2] = {-1.f, -1.f}, zBounds[2] = {-1.f, -1.f};
        const int s = l * sd13[0] * sd13[1] * sd13[2] * sd13[3];
        factors(sensRe + s, sensIm ? sensIm + s : nullptr, sens4, noiseCov, R, lambda, regImage,
                factorVec, folded4, full3, yBounds, zBounds, validity);
        for (int j = 0; j < fd7[4]; ++j) {
            for (int k = 0; k < fd7[6]; ++k) {
                Eigen::VectorXi sub(7);
                sub << 0, 0, 0, 0, j, l, k;
                const int fo = MR_sub2ind(fd7, sub), oo = MR_sub2ind(od7, sub);
                if (oo >= od13.prod() || fo >= fd13.prod()) return -1;
                unfold(foldedRe + fo, foldedIm ? foldedIm + fo : nullptr, folded4, factorVec,
                       factorDims, full3, yBounds, zBounds, outRe + oo, outIm + oo);
            }
        }
    }
    return 1;
}

}  // namespace sense_reference
