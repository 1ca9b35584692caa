// Coil combination against direct evaluations by coordinates, with the coil dimension first,
// in the middle and last; the phase-corrected form against the coil sum weighted by each
// coil's mean magnitude along the tenth dimension.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/split_complex.hpp"

using namespace mrkit_test;

namespace {

struct Layout {
    std::vector<int> dims;
    int coilDim;

    std::vector<int> out_dims() const {
        auto o = dims;
        o[coilDim - 1] = 1;
        return o;
    }
    int coils() const { return dims[coilDim - 1]; }
    // Input index of output sample i at coil c (and tenth coordinate t when t >= 0).
    std::size_t at(std::size_t i, int c, int t = -1) const {
        std::size_t index = 0, stride = 1;
        for (std::size_t d = 0; d < dims.size(); ++d) {
            std::size_t x = i % out_dims()[d];
            i /= out_dims()[d];
            if (int(d) == coilDim - 1) x = c;
            if (d == 9 && t >= 0) x = t;
            index += x * stride;
            stride *= dims[d];
        }
        return index;
    }
};

std::vector<float> sos(const SplitComplex& x, bool complex, const Layout& l, float start = 0.f) {
    const auto o = l.out_dims();
    std::vector<float> out(element_count(o), start);
    MR_perform_sos(x.re.data(), complex ? x.im.data() : nullptr, int(o.size()), l.dims.data(),
                   l.coilDim, out.data(), o.data());
    return out;
}

SplitComplex pcsos(const SplitComplex& x, bool complex, const Layout& l) {
    const auto o = l.out_dims();
    SplitComplex out{std::vector<float>(element_count(o), -5.f),
                     std::vector<float>(element_count(o), -5.f)};
    MR_perform_pcsos(x.re.data(), complex ? x.im.data() : nullptr, 10, l.dims.data(), l.coilDim,
                     out.re.data(), out.im.data(), o.data());
    return out;
}

}  // namespace

TEST(SumOfSquares, CoilsAnywhereInCoilOrderOntoTheCallersValue) {
    // Coils first, short and long strides (crossing run and tile ends), last.
    const Layout cases[] = {{{4, 3, 5, 6}, 1}, {{4, 3, 5, 6}, 2},   {{4, 3, 5, 6}, 4},
                            {{17, 6, 70}, 2},  {{40, 30, 8}, 3},    {{8, 33, 40, 3}, 3},
                            {{9, 5, 2}, 1},    {{1, 1, 3, 1, 5}, 3}};
    unsigned seed = 20;
    for (const auto& l : cases)
        for (bool complex : {true, false}) {
            SCOPED_TRACE(testing::PrintToString(l.dims) + " coil dim " + std::to_string(l.coilDim) +
                         (complex ? "" : " real"));
            const SplitComplex x = random_complex(element_count(l.dims), seed++);
            const auto out = sos(x, complex, l), onNine = sos(x, complex, l, 9.f);
            for (std::size_t i = 0; i < out.size(); ++i) {
                float inOrder = 0.f;  // the float summation order the result is fixed to
                for (int c = 0; c < l.coils(); ++c) {
                    const std::size_t n = l.at(i, c);
                    inOrder += x.re[n] * x.re[n];
                    if (complex) {
                        inOrder += x.im[n] * x.im[n];
                    }
                }
                ASSERT_TRUE(same_bits(out[i], std::sqrt(inOrder))) << i;
                ASSERT_NEAR(onNine[i], std::sqrt(9.f + inOrder), 1e-5) << i;
            }
        }
}

TEST(PhaseCorrectedSos, SosMagnitudeAndWeightedCoilPhase) {
    const Layout cases[] = {{{3, 4, 1, 1, 1, 1, 1, 1, 1, 3}, 2},
                            {{4, 2, 3, 1, 1, 1, 1, 1, 1, 2}, 1},
                            {{2, 3, 1, 2, 1, 1, 1, 1, 1, 3}, 4}};
    unsigned seed = 40;
    for (const auto& l : cases) {
        SCOPED_TRACE(testing::PrintToString(l.dims) + " coil dim " + std::to_string(l.coilDim));
        const SplitComplex x = random_complex(element_count(l.dims), seed++);
        const SplitComplex out = pcsos(x, true, l);
        const auto magnitude = sos(x, true, l);
        const int E = l.dims[9];
        for (std::size_t i = 0; i < out.re.size(); ++i) {
            std::complex<double> weighted = 0.0;
            for (int c = 0; c < l.coils(); ++c) {
                double mean = 0.0;
                for (int t = 0; t < E; ++t)
                    mean += std::hypot(x.re[l.at(i, c, t)], x.im[l.at(i, c, t)]) / E;
                weighted += mean * std::complex<double>(x.re[l.at(i, c)], x.im[l.at(i, c)]);
            }
            const std::complex<double> z(out.re[i], out.im[i]);
            EXPECT_NEAR(std::abs(z), magnitude[i], 2e-6 * magnitude[i]) << i;
            EXPECT_NEAR(std::arg(z * std::conj(weighted)), 0.0, 2e-6) << i;
        }
    }
}

TEST(PhaseCorrectedSos, SingleCoilRealDataAndZeros) {
    const Layout single{{3, 2, 1, 1, 1, 1, 1, 1, 1, 2}, 3};
    const SplitComplex x = random_complex(12, 50);
    const SplitComplex same = pcsos(x, true, single), real = pcsos(x, false, single);
    for (std::size_t i = 0; i < 12; ++i) {
        EXPECT_NEAR(same.re[i], x.re[i], 1e-6f) << i;
        EXPECT_NEAR(same.im[i], x.im[i], 1e-6f) << i;
        EXPECT_NEAR(real.re[i], x.re[i], 1e-6f) << i;  // phase 0 or pi keeps the sign
        EXPECT_NEAR(real.im[i], 0.f, 1e-6f) << i;
    }
    // All-zero input and an empty coil dimension write exact zeros.
    const SplitComplex zero{std::vector<float>(12, 0.f), std::vector<float>(12, 0.f)};
    for (const Layout& l : {single, Layout{{3, 0, 1, 1, 1, 1, 1, 1, 1, 1}, 2}}) {
        const SplitComplex out = pcsos(zero, true, l);
        EXPECT_EQ(out.re, std::vector<float>(out.re.size(), 0.f));
        EXPECT_EQ(out.im, std::vector<float>(out.re.size(), 0.f));
    }
}
