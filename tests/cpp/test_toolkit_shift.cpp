// Centre shifts: every dimension, even and odd lengths, several volumes, against the
// modular-index definition (fftshift: new[i] = old[(i + ceil(n/2)) mod n], ifftshift with
// floor(n/2)).
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "recon/recon.hpp"
#include "support/split_complex.hpp"

using mrkit_test::element_count;
using mrkit_test::first_difference;
using mrkit_test::random_complex;
using mrkit_test::SplitComplex;

namespace {

using ShiftFn = void (*)(float*, float*, const int*, int, int);

// Reference: rotates `dim` (1-based) of the first three dimensions by `shift` samples left.
std::vector<float> rotated(const std::vector<float>& in, const std::vector<int>& dims, int dim,
                           int shift) {
    const int nx = dims[0], ny = dims[1], nz = dims.size() > 2 ? dims[2] : 1;
    const int plane = nx * ny, volume = plane * nz;
    const int n = dims[dim - 1];
    std::vector<float> out(in.size());
    for (std::size_t s = 0; s < in.size(); ++s) {
        const int v = static_cast<int>(s) / volume, r = static_cast<int>(s) % volume;
        int c[3] = {r % nx, (r / nx) % ny, r / plane};
        c[dim - 1] = (c[dim - 1] + shift) % n;
        out[s] = in[v * volume + c[0] + nx * c[1] + plane * c[2]];
    }
    return out;
}

std::vector<float> run(ShiftFn f, std::vector<float> v, int n, int dim) {
    const int dims[] = {n, 1};
    f(v.data(), nullptr, dims, 2, dim);
    return v;
}

std::vector<float> iota(int n) {
    std::vector<float> v(n);
    std::iota(v.begin(), v.end(), 0.f);
    return v;
}

}  // namespace

TEST(CentreShift, SmallSequences) {
    EXPECT_EQ(run(MR_fftshift, iota(4), 4, 1), (std::vector<float>{2, 3, 0, 1}));
    EXPECT_EQ(run(MR_ifftshift, iota(4), 4, 1), (std::vector<float>{2, 3, 0, 1}));
    EXPECT_EQ(run(MR_fftshift, iota(5), 5, 1), (std::vector<float>{3, 4, 0, 1, 2}));
    EXPECT_EQ(run(MR_ifftshift, iota(5), 5, 1), (std::vector<float>{2, 3, 4, 0, 1}));
    EXPECT_EQ(run(MR_fftshift, iota(1), 1, 1), (std::vector<float>{0}));
    EXPECT_EQ(run(MR_ifftshift, iota(1), 1, 1), (std::vector<float>{0}));
}

TEST(CentreShift, MatchesModularIndexAlongEachDimension) {
    // Every dimension takes an even and an odd length; trailing dimensions make 1 to 6 volumes.
    const std::vector<std::vector<int>> shapes = {{5, 4, 3, 2},    {4, 7, 2, 3}, {6, 3, 5},
                                                  {3, 2, 4, 2, 3}, {7, 5},       {1, 6, 1, 2}};
    unsigned seed = 1;
    for (const auto& dims : shapes) {
        const int ndims = static_cast<int>(dims.size());
        for (int dim = 1; dim <= std::min(3, ndims); ++dim) {
            const int n = dims[dim - 1];
            for (bool forward : {true, false}) {
                SCOPED_TRACE(::testing::Message()
                             << "shape " << ::testing::PrintToString(dims) << " dim " << dim
                             << (forward ? " fftshift" : " ifftshift"));
                SplitComplex x = random_complex(element_count(dims), seed++);
                const auto wantRe = rotated(x.re, dims, dim, forward ? (n + 1) / 2 : n / 2);
                const auto wantIm = rotated(x.im, dims, dim, forward ? (n + 1) / 2 : n / 2);
                (forward ? MR_fftshift : MR_ifftshift)(x.re.data(), x.im.data(), dims.data(), ndims,
                                                       dim);
                EXPECT_EQ(first_difference(x.re, wantRe), -1);
                EXPECT_EQ(first_difference(x.im, wantIm), -1);
            }
        }
    }
}

TEST(CentreShift, InverseUndoesForwardForOddLengths) {
    const std::vector<int> dims = {5, 7, 3, 2};
    const SplitComplex original = random_complex(element_count(dims), 42);
    for (int dim = 1; dim <= 3; ++dim) {
        SplitComplex x = original;
        MR_fftshift(x.re.data(), x.im.data(), dims.data(), 4, dim);
        ASSERT_NE(first_difference(x.re, original.re), -1);
        MR_ifftshift(x.re.data(), x.im.data(), dims.data(), 4, dim);
        EXPECT_EQ(first_difference(x.re, original.re), -1) << dim;
        EXPECT_EQ(first_difference(x.im, original.im), -1) << dim;
    }
}

TEST(CentreShift, RealOnlyDataAndIgnoredDimensions) {
    const std::vector<int> dims = {3, 4, 5, 2};
    const SplitComplex original = random_complex(element_count(dims), 3);
    for (int dim = 1; dim <= 3; ++dim) {
        std::vector<float> re = original.re;
        MR_ifftshift(re.data(), nullptr, dims.data(), 4, dim);
        EXPECT_EQ(first_difference(re, rotated(original.re, dims, dim, dims[dim - 1] / 2)), -1);
    }
    for (int dim : {0, 4, -1, 7}) {
        SplitComplex x = original;
        MR_fftshift(x.re.data(), x.im.data(), dims.data(), 4, dim);
        MR_ifftshift(x.re.data(), x.im.data(), dims.data(), 4, dim);
        EXPECT_EQ(first_difference(x.re, original.re), -1) << dim;
        EXPECT_EQ(first_difference(x.im, original.im), -1) << dim;
    }
}
