// Zero padding: where the data lands for odd and even size differences, volume order, and that
// nothing outside the copied block is written.
#include <gtest/gtest.h>

#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/split_complex.hpp"

using namespace mrkit_test;

namespace {

constexpr float kCallersFill = -123.25f;

// The caller's fill everywhere, input sample (i, j, k, t) at (i + s0, j + s1, k + s2, t) with
// s = ceil((M - N) / 2).
std::vector<float> placed(const std::vector<float>& in, const std::vector<int>& dims,
                          const int (&m)[3]) {
    const int n[3] = {dims[0], dims[1], dims.size() > 2 ? dims[2] : 1};
    const int volumes = static_cast<int>(in.size()) / (n[0] * n[1] * n[2]);
    std::vector<float> out(std::size_t(m[0]) * m[1] * m[2] * volumes, kCallersFill);
    for (int s = 0; s < static_cast<int>(in.size()); ++s) {
        int c[4] = {s % n[0], s / n[0] % n[1], s / n[0] / n[1] % n[2], s / n[0] / n[1] / n[2]};
        for (int d = 0; d < 3; ++d) c[d] += (m[d] - n[d] + 1) / 2;
        out[((c[3] * m[2] + c[2]) * m[1] + c[1]) * m[0] + c[0]] = in[s];
    }
    return out;
}

void expect_padded(const std::vector<int>& dims, const int (&m)[3], bool complex = true) {
    SCOPED_TRACE(testing::PrintToString(dims) + " -> " + testing::PrintToString(m));
    const SplitComplex x = random_complex(element_count(dims), m[0] + 10 * m[1]);
    const auto wantRe = placed(x.re, dims, m);
    std::vector<float> re(wantRe.size(), kCallersFill), im(wantRe.size(), kCallersFill);
    // Without an imaginary output the imaginary input must not be read at all.
    MR_zero_pad(x.re.data(), complex ? x.im.data() : nullptr, static_cast<int>(dims.size()),
                dims.data(), m[0], m[1], m[2], re.data(), complex ? im.data() : nullptr);
    EXPECT_TRUE(same_bits(re, wantRe));
    if (complex) {
        EXPECT_TRUE(same_bits(im, placed(x.im, dims, m)));
    }
}

}  // namespace

TEST(ZeroPad, CentredPlacementKeepsTheSurroundings) {
    expect_padded({3, 4, 2}, {6, 8, 5});         // differences 3, 4, 3
    expect_padded({4, 3, 3}, {7, 6, 3});         // 3, 3, 0
    expect_padded({2, 5, 4}, {4, 5, 9}, false);  // 2, 0, 5
    expect_padded({4, 4, 4}, {4, 4, 4});         // a plain copy
    expect_padded({3, 4}, {5, 8, 1});            // 2-D, one slice
    expect_padded({3, 4}, {5, 8, 3});            // 2-D into slice 1 of 3
    expect_padded({2, 3, 1, 4, 2}, {4, 4, 3});   // 8 volumes, in order
    expect_padded({3, 2, 2, 3}, {3, 5, 2}, false);
}

TEST(ZeroPad, ExtraZeroGoesToTheLowEnd) {
    const int dims[] = {1, 3};
    const float in[] = {1.f, 2.f, 3.f};
    std::vector<float> out(6, 0.f);
    MR_zero_pad(in, nullptr, 2, dims, 1.0, 6.0, 1.0, out.data(), nullptr);
    EXPECT_EQ(out, (std::vector<float>{0, 0, 1, 2, 3, 0}));
}
