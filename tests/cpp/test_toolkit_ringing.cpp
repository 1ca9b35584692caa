// Ringing filter: window values, the strength clamp, the support cut, how the three tables
// combine, and the rule that exact zeros are never touched.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "recon/recon.hpp"
#include "support/split_complex.hpp"

using mrkit_test::element_count;
using mrkit_test::first_difference;
using mrkit_test::random_complex;
using mrkit_test::same_bits;
using mrkit_test::SplitComplex;

namespace {

// The window of dimension `dim` (0-based), read back by filtering ones; the other dimensions
// have size 1 and width 1, so they contribute a factor of 1.
std::vector<float> window(int dim, int size, double strength, int width) {
    int dims[3] = {1, 1, 1};
    dims[dim] = size;
    double s[3] = {0, 0, 0};
    int w[3] = {1, 1, 1};
    s[dim] = strength;
    w[dim] = width;
    std::vector<float> ones(size, 1.f);
    MR_ringing_filter(ones.data(), nullptr, 3, dims, s, w);
    return ones;
}

std::vector<float> filtered(std::vector<float> v, std::vector<int> dims, double strength,
                            int width) {
    const double s[3] = {strength, strength, strength};
    const int w[3] = {width, width, width};
    MR_ringing_filter(v.data(), nullptr, static_cast<int>(dims.size()), dims.data(), s, w);
    return v;
}

}  // namespace

TEST(RingingFilter, HammingWindowValuesInEveryDimension) {
    // Strength 0.5: the window falls to 0.5 at offset -4 and is 1 at the centre (index 4).
    for (int dim = 0; dim < 3; ++dim) {
        const auto w = window(dim, 8, 0.5, 8);
        EXPECT_EQ(w[0], 0.49999997f) << dim;
        EXPECT_EQ(w[4], 1.0f) << dim;
        EXPECT_EQ(w[7], 0.68792748f) << dim;
        for (int i = 1; i < 4; ++i) EXPECT_LT(w[i - 1], w[i]) << dim;
    }
}

TEST(RingingFilter, StrengthIsClampedAndNegativeMeansNoTaper) {
    const auto clamped = window(0, 8, 1.0, 8);
    EXPECT_NEAR(clamped[0], 0.085f, 1e-6f);
    EXPECT_EQ(first_difference(window(0, 8, 0.92, 8), clamped), -1);
    EXPECT_EQ(first_difference(window(0, 8, 50.0, 8), clamped), -1);
    EXPECT_NEAR(window(0, 8, 0.9, 8)[0], 0.1f, 1e-6f);
    EXPECT_EQ(window(0, 8, -0.3, 8), std::vector<float>(8, 1.f));
    EXPECT_EQ(window(0, 8, 0.0, 8), std::vector<float>(8, 1.f));
}

TEST(RingingFilter, SupportCutAppliesEvenWithoutTaper) {
    // Width 6 in 16 samples: offsets -3 .. 2 around index 8; an odd width is centred.
    std::vector<float> six(16, 0.f), five(16, 0.f);
    for (int i = 5; i <= 10; ++i) six[i] = 1.f;
    for (int i = 6; i <= 10; ++i) five[i] = 1.f;
    for (int dim = 0; dim < 3; ++dim) {
        EXPECT_EQ(window(dim, 16, 0.0, 6), six) << dim;
        EXPECT_EQ(window(dim, 16, 0.0, 5), five) << dim;
        EXPECT_EQ(window(dim, 16, 0.0, 0), std::vector<float>(16, 0.f)) << dim;
        EXPECT_EQ(window(dim, 16, 0.0, -2), std::vector<float>(16, 0.f)) << dim;
    }
    // Full width and no taper leaves every volume exactly as it was.
    const std::vector<int> dims = {6, 5, 4, 3};
    const SplitComplex x = random_complex(element_count(dims), 11);
    const double s[3] = {0, 0, 0};
    const int w[3] = {6, 5, 4};
    SplitComplex y = x;
    MR_ringing_filter(y.re.data(), y.im.data(), 4, dims.data(), s, w);
    EXPECT_EQ(first_difference(y.re, x.re), -1);
    EXPECT_EQ(first_difference(y.im, x.im), -1);
}

TEST(RingingFilter, SeparableFactorFormedBeforeScaling) {
    // Each sample is scaled by w2[k] * (w1[j] * w0[i]), the factor rounded to float before it
    // multiplies the sample; exact zeros in both parts keep their sign.
    const std::vector<int> dims = {7, 6, 5, 3};
    const double s[3] = {0.3, 0.7, 1.2};
    const int w[3] = {5, 6, 3};
    const auto w0 = window(0, 7, s[0], w[0]);
    const auto w1 = window(1, 6, s[1], w[1]);
    const auto w2 = window(2, 5, s[2], w[2]);

    SplitComplex x = random_complex(element_count(dims), 12);
    for (std::size_t n = 0; n < x.re.size(); n += 5) {
        x.re[n] = (n % 2) ? -0.f : 0.f;
        if (n % 3 == 0) x.im[n] = (n % 4) ? -0.f : 0.f;
    }
    SplitComplex want = x;
    for (std::size_t n = 0; n < x.re.size(); ++n) {
        const std::size_t i = n % 7, j = (n / 7) % 6, k = (n / 42) % 5;
        if (x.re[n] == 0.f && x.im[n] == 0.f) continue;
        const float f = w2[k] * (w1[j] * w0[i]);
        want.re[n] = x.re[n] * f;
        want.im[n] = x.im[n] * f;
    }
    MR_ringing_filter(x.re.data(), x.im.data(), 4, dims.data(), s, w);
    EXPECT_EQ(first_difference(x.re, want.re), -1);
    EXPECT_EQ(first_difference(x.im, want.im), -1);
}

TEST(RingingFilter, TwoDimensionalDataNeedsThirdWidth) {
    const std::vector<int> dims = {5, 4};
    const SplitComplex x = random_complex(element_count(dims), 13);
    const double s[3] = {0, 0, 0.5};
    const int keep[3] = {5, 4, 1}, clear[3] = {5, 4, 0};
    SplitComplex y = x;
    MR_ringing_filter(y.re.data(), y.im.data(), 2, dims.data(), s, keep);
    EXPECT_EQ(first_difference(y.re, x.re), -1);
    EXPECT_EQ(first_difference(y.im, x.im), -1);
    MR_ringing_filter(y.re.data(), y.im.data(), 2, dims.data(), s, clear);
    for (std::size_t n = 0; n < y.re.size(); ++n) EXPECT_TRUE(y.re[n] == 0.f && y.im[n] == 0.f);
}

TEST(RingingFilter, ZeroSamplesSurviveANotANumberWindow) {
    const std::vector<int> dims = {4, 1, 1};
    std::vector<float> re = {0.f, -0.f, 0.f, 2.f}, im = {-0.f, 0.f, 1.f, 0.f};
    const double s[3] = {std::nan(""), 0, 0};
    const int w[3] = {4, 1, 1};
    MR_ringing_filter(re.data(), im.data(), 3, dims.data(), s, w);
    EXPECT_TRUE(same_bits(re[0], 0.f) && same_bits(im[0], -0.f));
    EXPECT_TRUE(same_bits(re[1], -0.f) && same_bits(im[1], 0.f));
    EXPECT_TRUE(std::isnan(re[2]) && std::isnan(im[2]));
    EXPECT_TRUE(std::isnan(re[3]) && std::isnan(im[3]));

    // Without an imaginary block a zero real part alone decides.
    const auto real = filtered({-0.f, 3.f, 0.f, 1.f}, dims, std::nan(""), 4);
    EXPECT_TRUE(same_bits(real[0], -0.f) && same_bits(real[2], 0.f));
    EXPECT_TRUE(std::isnan(real[1]) && std::isnan(real[3]));
}
