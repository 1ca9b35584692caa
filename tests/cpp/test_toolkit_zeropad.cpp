// Zero padding: where the data lands for odd and even size differences, volume order, and that
// nothing outside the copied block is written.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "recon/recon.hpp"
#include "support/split_complex.hpp"

using mrkit_test::element_count;
using mrkit_test::first_difference;
using mrkit_test::random_complex;
using mrkit_test::SplitComplex;

namespace {

constexpr float kUntouched = -123.25f;

// Expected output: the caller's fill everywhere, input sample (i, j, k, t) at
// (i + s0, j + s1, k + s2, t) with s = ceil((M - N) / 2).
std::vector<float> placed(const std::vector<float>& in, const std::vector<int>& dims,
                          const int (&m)[3]) {
    const int n[3] = {dims[0], dims[1], dims.size() > 2 ? dims[2] : 1};
    int volumes = 1;
    for (std::size_t d = 3; d < dims.size(); ++d) volumes *= dims[d];
    std::vector<float> out(static_cast<std::size_t>(m[0]) * m[1] * m[2] * volumes, kUntouched);
    for (int t = 0; t < volumes; ++t)
        for (int k = 0; k < n[2]; ++k)
            for (int j = 0; j < n[1]; ++j)
                for (int i = 0; i < n[0]; ++i) {
                    const int o[3] = {i + (m[0] - n[0] + 1) / 2, j + (m[1] - n[1] + 1) / 2,
                                      k + (m[2] - n[2] + 1) / 2};
                    out[((t * m[2] + o[2]) * m[1] + o[1]) * m[0] + o[0]] =
                        in[((t * n[2] + k) * n[1] + j) * n[0] + i];
                }
    return out;
}

void expect_padded(const std::vector<int>& dims, const int (&m)[3], unsigned seed) {
    SCOPED_TRACE(::testing::Message()
                 << ::testing::PrintToString(dims) << " -> " << m[0] << "x" << m[1] << "x" << m[2]);
    const SplitComplex x = random_complex(element_count(dims), seed);
    const std::size_t outCount = placed(x.re, dims, m).size();
    std::vector<float> re(outCount, kUntouched), im(outCount, kUntouched);
    MR_zero_pad(x.re.data(), x.im.data(), static_cast<int>(dims.size()), dims.data(), m[0], m[1],
                m[2], re.data(), im.data());
    EXPECT_EQ(first_difference(re, placed(x.re, dims, m)), -1);
    EXPECT_EQ(first_difference(im, placed(x.im, dims, m)), -1);
}

}  // namespace

TEST(ZeroPad, OddAndEvenDifferencesInEachDimension) {
    expect_padded({3, 4, 2}, {6, 8, 5}, 1);  // differences 3, 4, 3
    expect_padded({4, 3, 3}, {7, 6, 3}, 2);  // differences 3, 3, 0
    expect_padded({2, 5, 4}, {4, 5, 9}, 3);  // differences 2, 0, 5
    expect_padded({4, 4, 4}, {4, 4, 4}, 4);  // unchanged sizes: a plain copy
}

TEST(ZeroPad, ExtraZeroGoesToTheLowEnd) {
    // Old size 3, new size 6 along dimension 2: rows 2, 3, 4, two zero rows before, one after.
    const int dims[] = {1, 3};
    const float in[] = {1.f, 2.f, 3.f};
    std::vector<float> out(6, 0.f);
    MR_zero_pad(in, nullptr, 2, dims, 1.0, 6.0, 1.0, out.data(), nullptr);
    EXPECT_EQ(out, (std::vector<float>{0, 0, 1, 2, 3, 0}));
}

TEST(ZeroPad, TwoDimensionalInput) {
    expect_padded({3, 4}, {5, 8, 1}, 5);
    expect_padded({3, 4}, {5, 8, 3}, 6);  // the single slice lands at slice 1 of 3
}

TEST(ZeroPad, HigherDimensionsAreVolumesInOrder) {
    expect_padded({2, 3, 1, 4, 2}, {4, 4, 3}, 7);
    expect_padded({3, 2, 2, 3}, {3, 5, 2}, 8);
}

TEST(ZeroPad, RealOnlyOutputNeverReadsTheImaginaryInput) {
    const std::vector<int> dims = {3, 2, 2};
    const SplitComplex x = random_complex(element_count(dims), 9);
    const int m[3] = {5, 4, 3};
    std::vector<float> re(60, kUntouched);
    MR_zero_pad(x.re.data(), nullptr, 3, dims.data(), 5, 4, 3, re.data(), nullptr);
    EXPECT_EQ(first_difference(re, placed(x.re, dims, m)), -1);
}
