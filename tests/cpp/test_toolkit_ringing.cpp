// Ringing filter: window values, the strength clamp, the support cut, how the three tables
// combine, and that exact zeros are never touched.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/split_complex.hpp"

using namespace mrkit_test;

namespace {

// The window of dimension `dim` (0-based), read back by filtering ones; the other dimensions
// have size 1 and width 1 and contribute a factor of 1.
std::vector<float> window(int dim, int size, double strength, int width) {
    int dims[3] = {1, 1, 1}, w[3] = {1, 1, 1};
    double s[3] = {0, 0, 0};
    dims[dim] = size;
    s[dim] = strength;
    w[dim] = width;
    std::vector<float> ones(size, 1.f);
    MR_ringing_filter(ones.data(), nullptr, 3, dims, s, w);
    return ones;
}

}  // namespace

TEST(RingingFilter, WindowValuesClampAndSupport) {
    std::vector<float> six(16, 0.f), five(16, 0.f);  // offsets -3..2 and -2..2 around index 8
    for (int i = 5; i <= 10; ++i) six[i] = five[i] = 1.f;
    five[5] = 0.f;
    for (int dim = 0; dim < 3; ++dim) {
        SCOPED_TRACE(dim);
        const auto w = window(dim, 8, 0.5, 8);
        EXPECT_EQ(w[0], 0.49999997f);
        EXPECT_EQ(w[4], 1.0f);
        EXPECT_EQ(w[7], 0.68792748f);
        // Strengths above 0.915 are clamped to an edge value of 0.085; negative means 1.
        const auto clamped = window(dim, 8, 1.0, 8);
        EXPECT_NEAR(clamped[0], 0.085f, 1e-6f);
        EXPECT_TRUE(same_bits(window(dim, 8, 50.0, 8), clamped));
        EXPECT_NEAR(window(dim, 8, 0.9, 8)[0], 0.1f, 1e-6f);
        EXPECT_EQ(window(dim, 8, -0.3, 8), std::vector<float>(8, 1.f));
        // Strength 0 still cuts to the support.
        EXPECT_EQ(window(dim, 16, 0.0, 6), six);
        EXPECT_EQ(window(dim, 16, 0.0, 5), five);
        EXPECT_EQ(window(dim, 16, 0.0, 0), std::vector<float>(16, 0.f));
    }
}

TEST(RingingFilter, SeparableFactorRoundedBeforeScaling) {
    // Sample (i, j, k) of every volume is scaled by w2[k] * (w1[j] * w0[i]) in float; exact
    // zeros in both parts keep their sign.
    const std::vector<int> dims = {7, 6, 5, 3};
    const double s[3] = {0.3, 0.7, 1.2};
    const int w[3] = {5, 6, 3};
    const auto w0 = window(0, 7, s[0], w[0]), w1 = window(1, 6, s[1], w[1]),
               w2 = window(2, 5, s[2], w[2]);
    SplitComplex x = random_complex(element_count(dims), 12);
    for (std::size_t n = 0; n < x.re.size(); n += 5) {
        x.re[n] = n % 2 ? -0.f : 0.f;
        if (n % 3 == 0) x.im[n] = n % 4 ? -0.f : 0.f;
    }
    SplitComplex want = x;
    for (std::size_t n = 0; n < x.re.size(); ++n) {
        if (x.re[n] == 0.f && x.im[n] == 0.f) continue;
        const float f = w2[n / 42 % 5] * (w1[n / 7 % 6] * w0[n % 7]);
        want.re[n] *= f;
        want.im[n] *= f;
    }
    MR_ringing_filter(x.re.data(), x.im.data(), 4, dims.data(), s, w);
    EXPECT_TRUE(same_bits(x.re, want.re));
    EXPECT_TRUE(same_bits(x.im, want.im));
}

TEST(RingingFilter, TwoDimensionalDataNeedsThirdWidth) {
    const std::vector<int> dims = {5, 4};
    const SplitComplex x = random_complex(element_count(dims), 13);
    const double s[3] = {0, 0, 0.5};
    const int keep[3] = {5, 4, 1}, clear[3] = {5, 4, 0};
    SplitComplex y = x;
    MR_ringing_filter(y.re.data(), y.im.data(), 2, dims.data(), s, keep);
    EXPECT_TRUE(same_bits(y.re, x.re));  // full width, no taper: unchanged
    EXPECT_TRUE(same_bits(y.im, x.im));
    MR_ringing_filter(y.re.data(), y.im.data(), 2, dims.data(), s, clear);
    EXPECT_EQ(y.re, std::vector<float>(20, 0.f));
    EXPECT_EQ(y.im, std::vector<float>(20, 0.f));
}

TEST(RingingFilter, ZeroSamplesSurviveANotANumberWindow) {
    const int dims[] = {4, 1, 1}, w[] = {4, 1, 1};
    const double s[] = {std::nan(""), 0, 0};
    std::vector<float> re = {0.f, -0.f, 0.f, 2.f}, im = {-0.f, 0.f, 1.f, 0.f};
    MR_ringing_filter(re.data(), im.data(), 3, dims, s, w);
    EXPECT_TRUE(same_bits(re[0], 0.f) && same_bits(im[0], -0.f));
    EXPECT_TRUE(same_bits(re[1], -0.f) && same_bits(im[1], 0.f));
    EXPECT_TRUE(std::isnan(re[2]) && std::isnan(im[2]) && std::isnan(re[3]));
    // Without an imaginary block a zero real part alone decides.
    std::vector<float> real = {-0.f, 3.f, 0.f, 1.f};
    MR_ringing_filter(real.data(), nullptr, 3, dims, s, w);
    EXPECT_TRUE(same_bits(real[0], -0.f) && same_bits(real[2], 0.f));
    EXPECT_TRUE(std::isnan(real[1]) && std::isnan(real[3]));
}
