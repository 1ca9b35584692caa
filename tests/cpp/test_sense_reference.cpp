// SENSE against the literal reference in tests/support: randomised cases covering 2-D and 3-D,
// reduction factors from 1 to 5 (non-integer too), 2 x 2, map grids coarser than and equal to
// the image, images wider than a tile, correlated noise, a prior, extra dimensions and sensitivity sets, masked maps, NaN
// in maps and data, folded rows longer than the output, and 1 to 64 coils. Every case must give
// the reference's bits for 1, 2 and 3 threads (any NaN standing for any NaN).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/bits.hpp"
#include "support/sense_phantom.hpp"
#include "support/sense_reference.hpp"
#include "support/threads.hpp"

namespace {

using sense_phantom::cf;
using sense_phantom::Split;

struct Case {
    std::array<int, 3> full;
    std::vector<int> folded;  // x, y, z, coils, then higher dimensions
    std::vector<int> maps;    // x, y, z, coils of one set
    int sets = 1;
    bool noise = false, prior = false, nanMap = false, nanData = false, mask = false;
    bool realMaps = false;
    double regScale = 1.0;

    std::string describe() const {
        std::ostringstream s;
        s << "full " << full[0] << "x" << full[1] << "x" << full[2] << ", folded";
        for (int d : folded) s << " " << d;
        s << ", maps " << maps[0] << "x" << maps[1] << "x" << maps[2] << ", sets " << sets
          << (noise ? ", noise" : "") << (prior ? ", prior" : "") << (mask ? ", masked" : "")
          << (nanMap ? ", NaN map" : "") << (nanData ? ", NaN data" : "")
          << (realMaps ? ", real maps" : "");
        return s.str();
    }
};

int pick(std::mt19937& g, int lo, int hi) {
    return std::uniform_int_distribution<int>(lo, hi)(g);
}
bool chance(std::mt19937& g, double p) {
    return std::uniform_real_distribution<double>(0, 1)(g) < p;
}

// Folded size for a reduction factor drawn from [1, rMax]: non-integer factors are the rule.
int folded_size(std::mt19937& g, int full, double rMax) {
    const double r = std::uniform_real_distribution<double>(1.0, rMax)(g);
    return std::max(1, static_cast<int>(std::lround(full / r)));
}

Case random_case(std::mt19937& g) {
    static const int kCoils[] = {1, 2, 3, 4, 5, 8, 12, 16, 20, 32, 48, 64};
    Case c;
    const bool threeD = chance(g, 0.4);
    // Now and then wider than one tile of factor columns or one strip of the unfolding, so that
    // threads split inside and across them.
    const int nx = chance(g, 0.15) ? pick(g, 33, 90) : pick(g, 3, 14);
    c.full = {nx, pick(g, 6, 34), threeD ? pick(g, 2, 10) : 1};
    const int fy = folded_size(g, c.full[1], 5.0);
    const int fz = threeD ? folded_size(g, c.full[2], 2.5) : 1;
    // Mostly enough coils for the aliased positions; now and then too few (singular systems).
    const int positions = ((c.full[1] + fy - 1) / fy) * ((c.full[2] + fz - 1) / fz);
    int coils = kCoils[pick(g, 0, 11)];
    while (coils < positions && !chance(g, 0.1)) coils = kCoils[pick(g, 0, 11)];
    // Folded rows longer than the output reach past it: skipped, never written out of range.
    const int fx = chance(g, 0.1) ? c.full[0] + 2 : c.full[0];
    c.folded = {fx, fy, fz, coils};
    if (chance(g, 0.35)) {  // higher dimensions, sets along the eighth
        c.sets = pick(g, 1, 2);
        c.folded.insert(c.folded.end(), {pick(g, 1, 2), 1, 1, c.sets, pick(g, 1, 2)});
    }
    // Maps on the full grid (the factor grid then has the folded image's size) or coarser.
    c.maps = chance(g, 0.4)
                 ? std::vector<int>{c.full[0], c.full[1], c.full[2], coils}
                 : std::vector<int>{pick(g, 2, c.full[0]), pick(g, 3, c.full[1]),
                                    threeD ? pick(g, 1, c.full[2]) : 1, coils};
    c.noise = chance(g, 0.5);
    c.prior = chance(g, 0.4);
    c.regScale = c.prior ? std::uniform_real_distribution<double>(0.3, 3.0)(g) : 1.0;
    c.mask = chance(g, 0.5);
    c.nanMap = chance(g, 0.15);
    c.nanData = chance(g, 0.15);
    c.realMaps = chance(g, 0.05);
    return c;
}

// Inputs of one case: smooth maps (masked to an ellipse where asked), data of arbitrary scale,
// a Hermitian positive definite covariance with correlations.
struct Inputs {
    Split folded, maps, noise, ref, reg;
};

Inputs make_inputs(const Case& c, std::mt19937& g) {
    Inputs in;
    const int coils = c.maps[3];
    const int mx = c.maps[0], my = c.maps[1], mz = c.maps[2];
    in.maps = Split({mx, my, mz, coils * c.sets});
    in.maps.dims = c.maps;
    for (int s = 0; s < c.sets; ++s)
        for (int k = 0; k < coils; ++k)
            for (int z = 0; z < mz; ++z)
                for (int y = 0; y < my; ++y)
                    for (int x = 0; x < mx; ++x) {
                        const double u = sense_phantom::unit(x, mx) - 0.5,
                                     v = sense_phantom::unit(y, my) - 0.5;
                        cf value = sense_phantom::coil(k, coils, u + 0.5, v + 0.5,
                                                       sense_phantom::unit(z, mz), s);
                        if (c.mask && u * u / 0.12 + v * v / 0.18 > 1.0) value = 0;
                        const size_t i = x + mx * (y + my * (z + mz * (k + coils * s)));
                        in.maps.set(i, value);
                    }
    if (c.realMaps) std::fill(in.maps.im.begin(), in.maps.im.end(), 0.f);
    if (c.nanMap) in.maps.re[pick(g, 0, static_cast<int>(in.maps.size()) - 1)] = NAN;

    const float scale = std::pow(10.f, static_cast<float>(pick(g, -3, 4)));
    std::normal_distribution<float> normal(0.f, scale);
    in.folded = Split(c.folded);
    for (size_t i = 0; i < in.folded.size(); ++i) in.folded.set(i, cf(normal(g), normal(g)));
    if (c.nanData) in.folded.im[pick(g, 0, static_cast<int>(in.folded.size()) - 1)] = NAN;

    if (c.noise) {
        std::vector<cf> L(coils * coils, 0.f);
        for (int r = 0; r < coils; ++r)
            for (int k = 0; k <= r; ++k)
                L[r + coils * k] = r == k ? cf(1.f + 0.1f * r, 0.f)
                                          : cf(0.3f * normal(g) / scale, 0.3f * normal(g) / scale);
        in.noise = Split({coils, coils});
        for (int r = 0; r < coils; ++r)
            for (int k = 0; k < coils; ++k) {
                cf sum = 0;
                for (int m = 0; m < coils; ++m) sum += L[r + coils * m] * std::conj(L[k + coils * m]);
                in.noise.set(r + coils * k, sum * scale * scale);
            }
    }
    if (c.prior) {
        in.ref = Split({c.full[0], c.full[1], c.full[2]});
        for (size_t i = 0; i < in.ref.size(); ++i) in.ref.set(i, cf(normal(g), 0.f));
        // A prior shorter than the map grid leaves the positions past its end unregularised.
        const int ry = chance(g, 0.3) ? pick(g, 1, my) : my;
        in.reg = Split({mx, ry, mz, c.sets});
        for (size_t i = 0; i < in.reg.size(); ++i)
            in.reg.set(i, chance(g, 0.1) ? cf(0.f) : cf(std::fabs(normal(g)), normal(g)));
    }
    return in;
}

struct Outcome {
    int status;
    Split out;
};

// One reconstruction, by the library or by the reference, into an output preset to -7 so that
// samples nothing reaches are compared too.
template <class Recon>
Outcome run(const Case& c, const Inputs& in, Recon recon) {
    std::vector<int> outDims(c.folded);
    std::copy(c.full.begin(), c.full.end(), outDims.begin());
    outDims[3] = 1;
    Outcome o{0, Split(outDims)};
    std::fill(o.out.re.begin(), o.out.re.end(), -7.f);
    std::fill(o.out.im.begin(), o.out.im.end(), -7.f);
    const int coils = c.maps[3];
    const int eye[2] = {coils, coils};
    const int nd = static_cast<int>(c.folded.size());
    const bool reg = c.prior;
    o.status = recon(in.folded.re.data(), in.folded.im.data(), nd, c.folded.data(),
                     in.maps.re.data(), c.realMaps ? nullptr : in.maps.im.data(), 4,
                     c.maps.data(), c.noise ? in.noise.re.data() : nullptr,
                     c.noise ? in.noise.im.data() : nullptr, c.noise ? in.noise.dims.data() : eye,
                     c.full.data(), reg ? in.ref.re.data() : nullptr,
                     reg ? in.ref.im.data() : nullptr, reg ? 3 : 0,
                     reg ? in.ref.dims.data() : nullptr, reg ? in.reg.re.data() : nullptr,
                     reg ? in.reg.im.data() : nullptr, reg ? 4 : 0,
                     reg ? in.reg.dims.data() : nullptr, c.regScale, o.out.re.data(),
                     o.out.im.data(), outDims.data());
    return o;
}

Outcome library(const Case& c, const Inputs& in, bool perVoxel = false) {
    return run(c, in,
               [perVoxel](const float* fRe, const float* fIm, int nd, const int* fd, const float* sRe,
                  const float* sIm, int ns, const int* sd, const float* nRe, const float* nIm,
                  const int* nDims, const int* full, const float* rRe, const float* rIm, int nr,
                  const int* rd, const float* gRe, const float* gIm, int ng, const int* gd,
                  double scale, float* oRe, float* oIm, const int* od) {
                   return (perVoxel ? MR_sense_recon_voxelwise : MR_sense_recon)(
                       fRe, fIm, nd, fd, sRe, sIm, ns, sd, nRe, nIm, 2, nDims, full, rRe, rIm, nr,
                       rd, gRe, gIm, ng, gd, scale, oRe, oIm, od);
               });
}

Outcome reference(const Case& c, const Inputs& in,
                  sense_reference::Validity validity = sense_reference::Validity::Sticky) {
    return run(c, in,
               [validity](const float* fRe, const float* fIm, int nd, const int* fd, const float* sRe,
                  const float* sIm, int ns, const int* sd, const float* nRe, const float* nIm,
                  const int* nDims, const int* full, const float* rRe, const float* rIm, int nr,
                  const int* rd, const float* gRe, const float* gIm, int ng, const int* gd,
                  double scale, float* oRe, float* oIm, const int* od) {
                   return sense_reference::recon(fRe, fIm, nd, fd, sRe, sIm, ns, sd, nRe, nIm,
                                                 nDims, full, rRe, rIm, nr, rd, gRe, gIm, ng, gd,
                                                 scale, oRe, oIm, od, validity);
               });
}

// The randomised differential test, on whichever instruction-set path this run takes (ctest
// runs the suite once as it is and once with the baseline path forced).
TEST(SenseReference, RandomCasesGiveTheReferenceBits) {
    std::mt19937 g(20261124);
    int unfoldedSomething = 0;
    for (int i = 0; i < 120; ++i) {
        const Case c = random_case(g);
        const Inputs in = make_inputs(c, g);
        SCOPED_TRACE("case " + std::to_string(i) + ": " + c.describe());
        const Outcome want = reference(c, in);
        // Folded rows longer than the output make several x write the same samples: only one
        // thread has a defined order there.
        const std::vector<int> teams =
            c.folded[0] > c.full[0] ? std::vector<int>{1} : std::vector<int>{1, 2, 3};
        for (int threads : teams) {
            const Outcome got = with_threads(threads, [&] { return library(c, in); });
            ASSERT_EQ(got.status, want.status) << threads << " threads";
            ASSERT_TRUE(same_values(got.out.re, want.out.re)) << threads << " threads";
            ASSERT_TRUE(same_values(got.out.im, want.out.im)) << threads << " threads";
        }
        unfoldedSomething += std::any_of(want.out.re.begin(), want.out.re.end(),
                                         [](float v) { return v != -7.f && v == v; });
    }
    // The cases must exercise the unfolding, not just leave outputs alone.
    EXPECT_GT(unfoldedSomething, 90);
}

// The per-voxel entry against the reference's per-voxel rule, on the same random cases. Its
// status also reports skipped positions (-1) where the reference driver counts them as success.
TEST(SenseReference, RandomCasesPerVoxelGiveTheReferenceBits) {
    std::mt19937 g(20261125);
    for (int i = 0; i < 120; ++i) {
        const Case c = random_case(g);
        const Inputs in = make_inputs(c, g);
        SCOPED_TRACE("case " + std::to_string(i) + ": " + c.describe());
        const Outcome want = reference(c, in, sense_reference::Validity::PerVoxel);
        const std::vector<int> teams =
            c.folded[0] > c.full[0] ? std::vector<int>{1} : std::vector<int>{1, 2, 3};
        for (int threads : teams) {
            const Outcome got = with_threads(threads, [&] { return library(c, in, true); });
            if (want.status == -1) {
                ASSERT_EQ(got.status, -1) << threads << " threads";
            }
            ASSERT_TRUE(same_values(got.out.re, want.out.re)) << threads << " threads";
            ASSERT_TRUE(same_values(got.out.im, want.out.im)) << threads << " threads";
        }
    }
}

// The reference itself reconstructs: noise-free folded data of a smooth object come back from
// maps on the image grid (a wrong reference would make the differential test meaningless).
TEST(SenseReference, ReferenceUnfoldsAPhantom) {
    for (const auto& [fy, fz] : std::vector<std::pair<int, int>>{{16, 1}, {13, 4}}) {
        const std::array<int, 3> full{10, 32, fz == 1 ? 1 : 8};
        const int coils = 8;
        const Split img = sense_phantom::make_object(full[0], full[1], full[2]);
        const Split data = sense_phantom::fold(img, coils, fy, fz);
        const Split maps = sense_phantom::make_maps(full[0], full[1], full[2], coils);
        Case c;
        c.full = full;
        c.folded = data.dims;
        c.maps = maps.dims;
        const Inputs in{data, maps, {}, {}, {}};
        const Outcome o = reference(c, in);
        EXPECT_EQ(o.status, 1);
        EXPECT_LT(sense_phantom::nrmse(o.out, img), 1e-4) << fy << " " << fz;
    }
}

}  // namespace
