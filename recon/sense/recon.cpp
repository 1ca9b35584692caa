// SENSE reconstruction over all higher dimensions: the combination factors are computed once
// per sensitivity set (folded dimension 8) and applied to every folded volume of that set. Two
// entries share the walk: MR_sense_recon (the reference validity rule, skipped voxels count as
// success) and MR_sense_recon_voxelwise (each voxel's positions judged afresh, skips reported).
#include <cmath>
#include <cstdint>
#include <vector>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"
#include "recon/sense/unfold_volumes.hpp"
#include "recon/sense/validity.hpp"

namespace {

// Size array padded with ones to 13 entries; entries past the 13th are ignored.
Eigen::VectorXi pad13(const int* dims, int count) {
    Eigen::VectorXi v = Eigen::VectorXi::Ones(13);
    for (int i = 0; i < count && i < 13; ++i) v[i] = dims[i];
    return v;
}

// (x, y, z, coils, dims 5-7 merged, sets, dims 9-13 merged): the view the volume offsets use.
Eigen::VectorXi view7(const Eigen::VectorXi& head, const Eigen::VectorXi& folded13) {
    Eigen::VectorXi v(7);
    v << head[0], head[1], head[2], head[3], folded13.segment(4, 3).prod(), folded13[7],
        folded13.tail(5).prod();
    return v;
}

using mrkit::sense::Validity;

template <Validity Rule>
int sense_recon(const float* foldedRe, const float* foldedIm, int nFoldedDims,
                const int* foldedDims, const float* sensRe, const float* sensIm, int nSensDims,
                const int* sensDims, const float* noiseRe, const float* noiseIm,
                const int* noiseDims, const int* fullDims, const float* refRe, const float* refIm,
                int nRefDims, const int* refDims, const float* regRe, const float* regIm,
                int nRegDims, const int* regDims, double regScale, float* outRe, float* outIm,
                const int* outDims) {
    // The reference walk reports a skipped voxel or map position as success.
    constexpr bool reportSkips = Rule == Validity::Voxel;
    int skipped = 0;
    const int rows = noiseDims[0], cols = noiseDims[1];
    Eigen::MatrixXcd noiseCov = Eigen::MatrixXcd::Identity(rows, cols);
    if (noiseRe)
        for (int c = 0, i = 0; c < cols; ++c)
            for (int r = 0; r < rows; ++r, ++i) noiseCov(r, c) = {noiseRe[i], noiseIm[i]};

    const Eigen::VectorXi fd13 = pad13(foldedDims, nFoldedDims);
    const Eigen::VectorXi sd13 = pad13(sensDims, nSensDims);
    const Eigen::VectorXi od13 = pad13(outDims, nFoldedDims);

    Eigen::Vector3f R;
    R[0] = static_cast<float>(fullDims[0]) / static_cast<float>(fd13[0]);
    R[1] = static_cast<float>(fullDims[1]) / static_cast<float>(fd13[1]);
    R[2] = nFoldedDims > 2 ? static_cast<float>(fullDims[2]) / static_cast<float>(fd13[2]) : 1.0f;

    // The prior enters only through the reference's RMS magnitude relative to the data's.
    const bool regularise = refRe && regRe;
    double lambda = 0.0;
    Eigen::VectorXi rd13;
    if (regularise) {
        const Eigen::VectorXi ref13 = pad13(refDims, nRefDims);
        rd13 = pad13(regDims, nRegDims);
        const double rTot = (static_cast<double>(fullDims[0]) / fd13[0]) *
                            (static_cast<double>(fullDims[1]) / fd13[1]) *
                            (static_cast<double>(fullDims[2]) / fd13[2]);
        const double a = MR_SA(foldedRe, foldedIm, fd13.prod());
        const double b = MR_SA(refRe, refIm, ref13.prod());
        const double scaled = (1.0 / regScale) * a / b;
        lambda = (1.0 / rTot) * (scaled * scaled);
    }

    Eigen::VectorXi factorDims(4);
    factorDims << sd13[0], static_cast<int>(ceilf(static_cast<float>(sd13[1]) / R[1])),
        static_cast<int>(ceilf(static_cast<float>(sd13[2]) / R[2])),
        static_cast<int>(ceilf(R[1])) * static_cast<int>(ceilf(R[2])) * sd13[3];
    // Zeroed: the factor interpolation can reach entries no voxel of the current set wrote. By
    // all threads, each its own block.
    Eigen::VectorXcd factors(factorDims.prod());
    mrkit::parallel_blocks(static_cast<int>(factors.size()), [&](int begin, int end) {
        if (begin < end) factors.segment(begin, end - begin).setZero();
    });

    const Eigen::VectorXi fd7 = view7(fd13, fd13), od7 = view7(od13, fd13);
    Eigen::VectorXi foldedDims4 = fd13.head(4);
    const Eigen::VectorXi sensDims4 = sd13.head(4);
    Eigen::VectorXi full3(3);
    full3 << fullDims[0], fullDims[1], fullDims[2];

    const int regBlock = regularise ? rd13[0] * rd13[1] * rd13[2] : 0;
    Eigen::VectorXf regImage(regBlock);

    if (fd13[7] < 1) return 1;
    const int sensBlock = sd13[0] * sd13[1] * sd13[2] * sd13[3];
    const int outer = fd7[4], inner = fd7[6];
    const int foldedTotal = fd13.prod(), outTotal = od13.prod();
    // Output volumes lie volumeStride apart; each unfolding writes within fullVolume samples.
    const int64_t volumeStride = static_cast<int64_t>(od13[0]) * od13[1] * od13[2] * od13[3];
    const int64_t fullVolume = static_cast<int64_t>(fullDims[0]) * fullDims[1] * fullDims[2];
    Eigen::VectorXi sub = Eigen::VectorXi::Zero(7);
    for (int l = 0; l < fd13[7]; ++l) {
        if (regularise) {
            const float* re = regRe + l * regBlock;
            const float* im = regIm ? regIm + l * regBlock : nullptr;
            for (int i = 0; i < regBlock; ++i)
                regImage[i] = im ? sqrtf(re[i] * re[i] + im[i] * im[i]) : sqrtf(re[i] * re[i]);
        }
        float yCompartments[2] = {-1.0f, -1.0f}, zCompartments[2] = {-1.0f, -1.0f};
        const int s = l * sensBlock;
        const int factorStatus = mrkit::sense::combination_factors<Rule>(
            sensRe + s, sensIm ? sensIm + s : nullptr, sensDims4, noiseCov, R, lambda, regImage,
            factors, foldedDims4, full3, yCompartments, zCompartments);
        if (factorStatus == 0) return -1;
        skipped |= factorStatus == -1;

        // The volumes of this set up to the first offset outside the arrays, which ends the
        // reconstruction after those before it are unfolded.
        std::vector<mrkit::sense::Volume> volumes;
        bool outside = false;
        for (int j = 0; j < outer && !outside; ++j) {
            for (int k = 0; k < inner; ++k) {
                sub[4] = j;
                sub[5] = l;
                sub[6] = k;
                const int fo = MR_sub2ind(fd7, sub), oo = MR_sub2ind(od7, sub);
                if (oo >= outTotal || fo >= foldedTotal) {
                    outside = true;
                    break;
                }
                volumes.push_back(
                    {foldedRe + fo, foldedIm ? foldedIm + fo : nullptr, outRe + oo, outIm + oo});
            }
        }
        // One pass over the folded voxels serves all volumes when no two of them write the same
        // output sample; otherwise one after the other, so that the later volume's values stay.
        // Skipped voxels (-1) still count as success.
        if (volumes.size() <= 1 || volumeStride >= fullVolume) {
            skipped |= mrkit::sense::unfold_volumes(volumes, foldedDims4, factors, factorDims,
                                                    full3, yCompartments, zCompartments) == -1;
        } else {
            for (const mrkit::sense::Volume& v : volumes)
                skipped |= mrkit::sense::unfold_volumes({v}, foldedDims4, factors, factorDims,
                                                        full3, yCompartments, zCompartments) == -1;
        }
        if (outside) return -1;
    }
    return reportSkips && skipped ? -1 : 1;
}

}  // namespace

int MR_sense_recon(const float* foldedRe, const float* foldedIm, int nFoldedDims,
                   const int* foldedDims, const float* sensRe, const float* sensIm, int nSensDims,
                   const int* sensDims, const float* noiseRe, const float* noiseIm,
                   int /*nNoiseDims*/, const int* noiseDims, const int* fullDims,
                   const float* refRe, const float* refIm, int nRefDims, const int* refDims,
                   const float* regRe, const float* regIm, int nRegDims, const int* regDims,
                   double regScale, float* outRe, float* outIm, const int* outDims) {
    return sense_recon<Validity::Column>(foldedRe, foldedIm, nFoldedDims, foldedDims, sensRe,
                                         sensIm, nSensDims, sensDims, noiseRe, noiseIm, noiseDims,
                                         fullDims, refRe, refIm, nRefDims, refDims, regRe, regIm,
                                         nRegDims, regDims, regScale, outRe, outIm, outDims);
}

int MR_sense_recon_voxelwise(const float* foldedRe, const float* foldedIm, int nFoldedDims,
                             const int* foldedDims, const float* sensRe, const float* sensIm,
                             int nSensDims, const int* sensDims, const float* noiseRe,
                             const float* noiseIm, int /*nNoiseDims*/, const int* noiseDims,
                             const int* fullDims, const float* refRe, const float* refIm,
                             int nRefDims, const int* refDims, const float* regRe,
                             const float* regIm, int nRegDims, const int* regDims,
                             double regScale, float* outRe, float* outIm, const int* outDims) {
    return sense_recon<Validity::Voxel>(foldedRe, foldedIm, nFoldedDims, foldedDims, sensRe,
                                        sensIm, nSensDims, sensDims, noiseRe, noiseIm, noiseDims,
                                        fullDims, refRe, refIm, nRefDims, refDims, regRe, regIm,
                                        nRegDims, regDims, regScale, outRe, outIm, outDims);
}
