// SENSE reconstruction over all higher dimensions: the combination factors are computed once
// per sensitivity set (folded dimension 8) and applied to every folded volume of that set. Two
// entries share the walk: MR_sense_recon (the reference validity rule, skipped voxels count as
// success) and MR_sense_recon_voxelwise (each voxel's positions judged afresh, skips reported).
#include <cmath>
#include <cstdint>
#include <vector>

#include "recon/huge_pages.hpp"
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
using mrkit::sense::Volume;

// The sizes and derived quantities of one reconstruction, worked out once before the walk over the
// sensitivity sets. Size arrays are padded with ones to 13 entries; the volume offsets use the
// seven-entry view (x, y, z, coils, dims 5-7, sets, dims 9-13), the output's view taking its
// last three entries from the folded sizes.
struct Plan {
    Eigen::VectorXi folded13, sens13, out13, reg13;
    Eigen::VectorXi folded4, sens4, full3, factorDims;
    Eigen::VectorXi folded7, out7;
    Eigen::Vector3f R;              // reduction factors, full / folded per axis
    Eigen::MatrixXcd noiseCov;      // the identity when no covariance is given
    bool regularise;                // a reference and a prior image are given
    double lambda = 0.0;            // regularisation weight
    int sets, sensBlock, regBlock;  // sensitivity sets; elements of one set's maps, prior image
    int foldedTotal, outTotal;
    bool volumesApart;  // each unfolding writes within its own output volume

    Plan(const float* foldedRe, const float* foldedIm, int nFoldedDims, const int* foldedDims,
         int nSensDims, const int* sensDims, const float* noiseRe, const float* noiseIm,
         const int* noiseDims, const int* fullDims, const float* refRe, const float* refIm,
         int nRefDims, const int* refDims, const float* regRe, int nRegDims, const int* regDims,
         double regScale, const int* outDims)
        : folded13(pad13(foldedDims, nFoldedDims)),
          sens13(pad13(sensDims, nSensDims)),
          out13(pad13(outDims, nFoldedDims)),
          folded4(folded13.head(4)),
          sens4(sens13.head(4)),
          full3(3),
          factorDims(4),
          folded7(view7(folded13, folded13)),
          out7(view7(out13, folded13)),
          noiseCov(Eigen::MatrixXcd::Identity(noiseDims[0], noiseDims[1])),
          regularise(refRe && regRe) {
        if (noiseRe)
            for (int c = 0, i = 0; c < noiseCov.cols(); ++c)
                for (int r = 0; r < noiseCov.rows(); ++r, ++i)
                    noiseCov(r, c) = {noiseRe[i], noiseIm[i]};
        full3 << fullDims[0], fullDims[1], fullDims[2];
        R[0] = static_cast<float>(fullDims[0]) / static_cast<float>(folded13[0]);
        R[1] = static_cast<float>(fullDims[1]) / static_cast<float>(folded13[1]);
        R[2] = nFoldedDims > 2 ? static_cast<float>(fullDims[2]) / static_cast<float>(folded13[2])
                               : 1.0f;
        // The factor grid is the sensitivity grid folded by R, with room for every aliased copy.
        factorDims << sens13[0], static_cast<int>(ceilf(static_cast<float>(sens13[1]) / R[1])),
            static_cast<int>(ceilf(static_cast<float>(sens13[2]) / R[2])),
            static_cast<int>(ceilf(R[1])) * static_cast<int>(ceilf(R[2])) * sens13[3];
        // The prior enters only through the reference's RMS magnitude relative to the data's.
        if (regularise) {
            const Eigen::VectorXi ref13 = pad13(refDims, nRefDims);
            reg13 = pad13(regDims, nRegDims);
            const double rTot = (static_cast<double>(fullDims[0]) / folded13[0]) *
                                (static_cast<double>(fullDims[1]) / folded13[1]) *
                                (static_cast<double>(fullDims[2]) / folded13[2]);
            const double a = MR_SA(foldedRe, foldedIm, folded13.prod());
            const double b = MR_SA(refRe, refIm, ref13.prod());
            const double scaled = (1.0 / regScale) * a / b;
            lambda = (1.0 / rTot) * (scaled * scaled);
        }
        sets = folded13[7];
        sensBlock = sens13[0] * sens13[1] * sens13[2] * sens13[3];
        regBlock = regularise ? reg13[0] * reg13[1] * reg13[2] : 0;
        foldedTotal = folded13.prod();
        outTotal = out13.prod();
        volumesApart = static_cast<int64_t>(out13[0]) * out13[1] * out13[2] * out13[3] >=
                       static_cast<int64_t>(fullDims[0]) * fullDims[1] * fullDims[2];
    }
};

// Magnitude of set l's prior image.
void prior_magnitude(const Plan& plan, int l, const float* regRe, const float* regIm,
                     Eigen::VectorXf& out) {
    const float* re = regRe + l * plan.regBlock;
    const float* im = regIm ? regIm + l * plan.regBlock : nullptr;
    for (int i = 0; i < plan.regBlock; ++i)
        out[i] = im ? sqrtf(re[i] * re[i] + im[i] * im[i]) : sqrtf(re[i] * re[i]);
}

// The volumes of set l up to the first whose offset lies outside the arrays; `outside` says
// whether one did.
std::vector<Volume> volumes_of_set(const Plan& plan, int l, const float* foldedRe,
                                   const float* foldedIm, float* outRe, float* outIm,
                                   bool& outside) {
    std::vector<Volume> volumes;
    Eigen::VectorXi sub = Eigen::VectorXi::Zero(7);
    sub[5] = l;
    outside = false;
    for (int j = 0; j < plan.folded7[4]; ++j)
        for (int k = 0; k < plan.folded7[6]; ++k) {
            sub[4] = j;
            sub[6] = k;
            const int fo = MR_sub2ind(plan.folded7, sub), oo = MR_sub2ind(plan.out7, sub);
            if (oo >= plan.outTotal || fo >= plan.foldedTotal) {
                outside = true;
                return volumes;
            }
            volumes.push_back(
                {foldedRe + fo, foldedIm ? foldedIm + fo : nullptr, outRe + oo, outIm + oo});
        }
    return volumes;
}

// Unfolds the volumes with the factors of their set; whether some voxel was skipped. One pass over
// the folded voxels serves all volumes when no two of them write the same output sample;
// otherwise one after the other, so that the later volume's values stay.
bool unfold_set(const Plan& plan, const std::vector<Volume>& volumes,
                const Eigen::VectorXcd& factors, const float* yCompartments,
                const float* zCompartments) {
    const auto unfold = [&](const std::vector<Volume>& some) {
        return mrkit::sense::unfold_volumes(some, plan.folded4, factors, plan.factorDims,
                                            plan.full3, yCompartments, zCompartments) == -1;
    };
    if (volumes.size() <= 1 || plan.volumesApart) return unfold(volumes);
    bool skipped = false;
    for (const Volume& v : volumes) skipped |= unfold({v});
    return skipped;
}

// The factor vector, zeroed (the factor interpolation can reach entries no voxel of the current
// set wrote) by all threads, each its own block, on huge pages where the system offers them.
Eigen::VectorXcd zeroed_factors(Eigen::Index size) {
    Eigen::VectorXcd factors(size);
    mrkit::advise_huge_pages(factors.data(), static_cast<size_t>(size) * sizeof(factors[0]));
    mrkit::parallel_blocks(static_cast<int>(size), [&](int begin, int end) {
        if (begin < end) factors.segment(begin, end - begin).setZero();
    });
    return factors;
}

template <Validity Rule>
int sense_recon(const float* foldedRe, const float* foldedIm, int nFoldedDims,
                const int* foldedDims, const float* sensRe, const float* sensIm, int nSensDims,
                const int* sensDims, const float* noiseRe, const float* noiseIm,
                const int* noiseDims, const int* fullDims, const float* refRe, const float* refIm,
                int nRefDims, const int* refDims, const float* regRe, const float* regIm,
                int nRegDims, const int* regDims, double regScale, float* outRe, float* outIm,
                const int* outDims) {
    const Plan plan(foldedRe, foldedIm, nFoldedDims, foldedDims, nSensDims, sensDims, noiseRe,
                    noiseIm, noiseDims, fullDims, refRe, refIm, nRefDims, refDims, regRe, nRegDims,
                    regDims, regScale, outDims);
    Eigen::VectorXcd factors = zeroed_factors(plan.factorDims.prod());
    Eigen::VectorXf prior(plan.regBlock);
    Eigen::VectorXi folded4 = plan.folded4;  // the factors' interface takes it mutable
    bool skipped = false;
    for (int l = 0; l < plan.sets; ++l) {
        if (plan.regularise) prior_magnitude(plan, l, regRe, regIm, prior);
        float yCompartments[2] = {-1.0f, -1.0f}, zCompartments[2] = {-1.0f, -1.0f};
        const int s = l * plan.sensBlock;
        const int factorStatus = mrkit::sense::combination_factors<Rule>(
            sensRe + s, sensIm ? sensIm + s : nullptr, plan.sens4, plan.noiseCov, plan.R,
            plan.lambda, prior, factors, folded4, plan.full3, yCompartments, zCompartments);
        if (factorStatus == 0) return -1;
        skipped |= factorStatus == -1;
        // A volume offset outside the arrays ends the reconstruction after those before it.
        bool outside;
        const std::vector<Volume> volumes =
            volumes_of_set(plan, l, foldedRe, foldedIm, outRe, outIm, outside);
        skipped |= unfold_set(plan, volumes, factors, yCompartments, zCompartments);
        if (outside) return -1;
    }
    // The reference rule reports a skipped voxel or map position as success.
    return Rule == Validity::Voxel && skipped ? -1 : 1;
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
                             const float* regIm, int nRegDims, const int* regDims, double regScale,
                             float* outRe, float* outIm, const int* outDims) {
    return sense_recon<Validity::Voxel>(foldedRe, foldedIm, nFoldedDims, foldedDims, sensRe, sensIm,
                                        nSensDims, sensDims, noiseRe, noiseIm, noiseDims, fullDims,
                                        refRe, refIm, nRefDims, refDims, regRe, regIm, nRegDims,
                                        regDims, regScale, outRe, outIm, outDims);
}
