// Centre shifts against the modular-index definition: fftshift takes new[i] from
// old[(i + ceil(n/2)) mod n], ifftshift from old[(i + floor(n/2)) mod n].
#include <gtest/gtest.h>

#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/split_complex.hpp"

using namespace mrkit_test;

namespace {

// Reference rotation of dimension `dim` (1-based, one of the first three) by `shift` samples.
std::vector<float> rotated(const std::vector<float>& in, const std::vector<int>& dims, int dim,
                           int shift) {
    const int nx = dims[0], plane = nx * dims[1], volume = plane * (dims.size() > 2 ? dims[2] : 1);
    std::vector<float> out(in.size());
    for (int s = 0; s < static_cast<int>(in.size()); ++s) {
        const int r = s % volume;
        int c[3] = {r % nx, (r / nx) % dims[1], r / plane};
        c[dim - 1] = (c[dim - 1] + shift) % dims[dim - 1];
        out[s] = in[s - r + c[0] + nx * c[1] + plane * c[2]];
    }
    return out;
}

}  // namespace

TEST(CentreShift, SmallSequences) {
    auto shifted = [](auto fn, std::vector<float> v) {
        const int dims[] = {static_cast<int>(v.size()), 1};
        fn(v.data(), nullptr, dims, 2, 1);
        return v;
    };
    using V = std::vector<float>;
    EXPECT_EQ(shifted(MR_fftshift, {0, 1, 2, 3}), (V{2, 3, 0, 1}));
    EXPECT_EQ(shifted(MR_ifftshift, {0, 1, 2, 3}), (V{2, 3, 0, 1}));
    EXPECT_EQ(shifted(MR_fftshift, {0, 1, 2, 3, 4}), (V{3, 4, 0, 1, 2}));
    EXPECT_EQ(shifted(MR_ifftshift, {0, 1, 2, 3, 4}), (V{2, 3, 4, 0, 1}));
    EXPECT_EQ(shifted(MR_fftshift, {7}), V{7});
    EXPECT_EQ(shifted(MR_ifftshift, {7}), V{7});
}

TEST(CentreShift, EveryDimensionEvenAndOddManyVolumes) {
    // Each of the first three dimensions takes even and odd lengths; 1 to 6 volumes; real-only
    // data on every other case.
    const std::vector<std::vector<int>> shapes = {{5, 4, 3, 2},    {4, 7, 2, 3}, {6, 3, 5},
                                                  {3, 2, 4, 2, 3}, {7, 5},       {1, 6, 1, 2}};
    unsigned seed = 1;
    for (const auto& dims : shapes)
        for (int dim = 1; dim <= std::min<int>(3, dims.size()); ++dim) {
            const int n = dims[dim - 1], nd = static_cast<int>(dims.size());
            SCOPED_TRACE(testing::PrintToString(dims) + " dim " + std::to_string(dim));
            const SplitComplex x = random_complex(element_count(dims), seed);
            SplitComplex y = x;
            float* im = ++seed % 2 ? y.im.data() : nullptr;
            MR_fftshift(y.re.data(), im, dims.data(), nd, dim);
            EXPECT_TRUE(same_bits(y.re, rotated(x.re, dims, dim, (n + 1) / 2)));
            EXPECT_TRUE(same_bits(y.im, im ? rotated(x.im, dims, dim, (n + 1) / 2) : x.im));
            MR_ifftshift(y.re.data(), im, dims.data(), nd, dim);  // undoes it, also for odd n
            EXPECT_TRUE(same_bits(y.re, x.re));
            EXPECT_TRUE(same_bits(y.im, x.im));
            MR_ifftshift(y.re.data(), im, dims.data(), nd, dim);
            EXPECT_TRUE(same_bits(y.re, rotated(x.re, dims, dim, n / 2)));
        }
}

TEST(CentreShift, OtherDimensionsAreIgnored) {
    const std::vector<int> dims = {3, 4, 5, 2};
    const SplitComplex x = random_complex(element_count(dims), 3);
    SplitComplex y = x;
    for (int dim : {0, 4, -1, 7}) {
        MR_fftshift(y.re.data(), y.im.data(), dims.data(), 4, dim);
        MR_ifftshift(y.re.data(), y.im.data(), dims.data(), 4, dim);
    }
    EXPECT_TRUE(same_bits(y.re, x.re));
    EXPECT_TRUE(same_bits(y.im, x.im));
}
