// Coil combination: root sum of squares against a direct evaluation by coordinates, with the
// coil dimension first, in the middle and last; the phase-corrected form against the
// magnitude-weighted coil sum averaged along the tenth dimension.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "recon/recon.hpp"
#include "support/split_complex.hpp"

using mrkit_test::element_count;
using mrkit_test::first_difference;
using mrkit_test::random_complex;
using mrkit_test::SplitComplex;

namespace {

// Walks the input sample of output sample i with the coil coordinate set to c (and, when
// `tenth` >= 0, the tenth coordinate set to it), by decomposing i over the output sizes.
struct Coordinates {
    std::vector<int> dims;
    int coilDim;

    std::vector<int> output_dims() const {
        std::vector<int> o = dims;
        o[coilDim - 1] = 1;
        return o;
    }
    std::size_t input_index(std::size_t i, int c, int tenth = -1) const {
        const std::vector<int> o = output_dims();
        std::size_t index = 0, stride = 1;
        for (std::size_t d = 0; d < dims.size(); ++d) {
            std::size_t x = i % o[d];
            i /= o[d];
            if (static_cast<int>(d) == coilDim - 1) x = c;
            if (d == 9 && tenth >= 0) x = tenth;
            index += x * stride;
            stride *= dims[d];
        }
        return index;
    }
};

struct SosCase {
    std::vector<int> dims;
    int coilDim;
};

// Coil dimension first, small strides, long strides crossing run and tile ends, last.
const SosCase kSosCases[] = {{{4, 3, 5, 6}, 1},   {{4, 3, 5, 6}, 2}, {{4, 3, 5, 6}, 4},
                             {{17, 6, 70}, 2},    {{40, 30, 8}, 3},  {{8, 33, 40, 3}, 3},
                             {{1, 1, 3, 1, 5}, 3}};

}  // namespace

TEST(SumOfSquares, MatchesDirectEvaluationWithCoilsAnywhere) {
    unsigned seed = 20;
    for (const auto& tc : kSosCases) {
        for (bool complex : {true, false}) {
            SCOPED_TRACE(::testing::Message() << ::testing::PrintToString(tc.dims) << " coil dim "
                                              << tc.coilDim << (complex ? "" : " real"));
            const Coordinates at{tc.dims, tc.coilDim};
            const auto outDims = at.output_dims();
            const SplitComplex x = random_complex(element_count(tc.dims), seed++);
            const float* im = complex ? x.im.data() : nullptr;
            const std::size_t P = element_count(outDims);
            const int C = tc.dims[tc.coilDim - 1];

            std::vector<float> out(P, 0.f), inOrder(P);
            MR_perform_sos(x.re.data(), im, static_cast<int>(outDims.size()), tc.dims.data(),
                           tc.coilDim, out.data(), outDims.data());
            for (std::size_t i = 0; i < P; ++i) {
                double sum = 0.0;
                float acc = 0.f;  // the float accumulation order the result is fixed to
                for (int c = 0; c < C; ++c) {
                    const std::size_t n = at.input_index(i, c);
                    sum += double(x.re[n]) * x.re[n];
                    acc += x.re[n] * x.re[n];
                    if (im) {
                        sum += double(im[n]) * im[n];
                        acc += im[n] * im[n];
                    }
                }
                inOrder[i] = std::sqrt(acc);
                EXPECT_NEAR(out[i], std::sqrt(sum), 2e-6 * std::sqrt(sum)) << i;
            }
            EXPECT_EQ(first_difference(out, inOrder), -1);
        }
    }
}

TEST(SumOfSquares, AccumulatesOntoTheCallersOutput) {
    for (const auto& tc : {kSosCases[0], kSosCases[4]}) {
        const Coordinates at{tc.dims, tc.coilDim};
        const auto outDims = at.output_dims();
        const std::size_t P = element_count(outDims);
        const SplitComplex x = random_complex(element_count(tc.dims), 30);
        std::vector<float> fresh(P, 0.f), seeded(P, 9.f);
        MR_perform_sos(x.re.data(), x.im.data(), static_cast<int>(outDims.size()), tc.dims.data(),
                       tc.coilDim, fresh.data(), outDims.data());
        MR_perform_sos(x.re.data(), x.im.data(), static_cast<int>(outDims.size()), tc.dims.data(),
                       tc.coilDim, seeded.data(), outDims.data());
        for (std::size_t i = 0; i < P; ++i)
            EXPECT_NEAR(seeded[i], std::sqrt(9.f + fresh[i] * fresh[i]), 1e-5f) << i;
    }
}

namespace {

struct PcCase {
    std::vector<int> dims;  // ten entries
    int coilDim;
};

void pcsos(const SplitComplex& x, bool complex, const PcCase& tc, std::vector<float>& re,
           std::vector<float>& im) {
    const auto outDims = Coordinates{tc.dims, tc.coilDim}.output_dims();
    re.assign(element_count(outDims), -5.f);
    im.assign(re.size(), -5.f);
    MR_perform_pcsos(x.re.data(), complex ? x.im.data() : nullptr, 10, tc.dims.data(), tc.coilDim,
                     re.data(), im.data(), outDims.data());
}

}  // namespace

TEST(PhaseCorrectedSos, SosMagnitudeAndWeightedCoilPhase) {
    const PcCase cases[] = {{{3, 4, 1, 1, 1, 1, 1, 1, 1, 3}, 2},
                            {{4, 2, 3, 1, 1, 1, 1, 1, 1, 2}, 1},
                            {{2, 3, 1, 2, 1, 1, 1, 1, 1, 3}, 4}};
    unsigned seed = 40;
    for (const auto& tc : cases) {
        SCOPED_TRACE(::testing::PrintToString(tc.dims) + " coil dim " + std::to_string(tc.coilDim));
        const Coordinates at{tc.dims, tc.coilDim};
        const auto outDims = at.output_dims();
        const SplitComplex x = random_complex(element_count(tc.dims), seed++);
        std::vector<float> re, im, sos(element_count(outDims), 0.f);
        pcsos(x, true, tc, re, im);
        MR_perform_sos(x.re.data(), x.im.data(), 10, tc.dims.data(), tc.coilDim, sos.data(),
                       outDims.data());

        const int C = tc.dims[tc.coilDim - 1], E = tc.dims[9];
        for (std::size_t i = 0; i < re.size(); ++i) {
            std::complex<double> weighted = 0.0;
            for (int c = 0; c < C; ++c) {
                double mean = 0.0;
                for (int k = 0; k < E; ++k) {
                    const std::size_t n = at.input_index(i, c, k);
                    mean += std::hypot(double(x.re[n]), double(x.im[n])) / E;
                }
                const std::size_t n = at.input_index(i, c);
                weighted += mean * std::complex<double>(x.re[n], x.im[n]);
            }
            const std::complex<float> z(re[i], im[i]);
            EXPECT_NEAR(std::abs(z), sos[i], 2e-6f * sos[i]) << i;
            EXPECT_NEAR(std::abs(std::arg(z * std::complex<float>(std::conj(weighted)))), 0.0, 2e-6)
                << i;
        }
    }
}

TEST(PhaseCorrectedSos, SingleCoilRealDataAndZeros) {
    const PcCase single{{3, 2, 1, 1, 1, 1, 1, 1, 1, 2}, 3};
    const SplitComplex x = random_complex(12, 50);
    std::vector<float> re, im;
    pcsos(x, true, single, re, im);
    for (std::size_t i = 0; i < 12; ++i) {
        EXPECT_NEAR(re[i], x.re[i], 1e-6f) << i;
        EXPECT_NEAR(im[i], x.im[i], 1e-6f) << i;
    }
    // Real data keeps its sign: phase 0 or pi.
    pcsos(x, false, single, re, im);
    for (std::size_t i = 0; i < 12; ++i) {
        EXPECT_NEAR(re[i], x.re[i], 1e-6f) << i;
        EXPECT_NEAR(im[i], 0.f, 1e-6f) << i;
    }
    // All-zero input and an empty coil dimension both write exact zeros.
    const SplitComplex zero{std::vector<float>(12, 0.f), std::vector<float>(12, 0.f)};
    pcsos(zero, true, single, re, im);
    EXPECT_EQ(re, std::vector<float>(12, 0.f));
    EXPECT_EQ(im, std::vector<float>(12, 0.f));
    pcsos(zero, true, PcCase{{3, 0, 1, 1, 1, 1, 1, 1, 1, 1}, 2}, re, im);
    EXPECT_EQ(re, std::vector<float>(3, 0.f));
    EXPECT_EQ(im, std::vector<float>(3, 0.f));
}
