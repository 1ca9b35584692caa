// The "multiply" core: removal of the low-resolution phase, with and without interpolation.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "gateway/homodyne.hpp"
#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/samples.hpp"
#include "support/threads.hpp"

namespace {

struct Image {
    std::vector<int> dims;
    std::vector<float> re, im;  // im empty for real data
};

const float* imag(const Image& a) {
    return a.im.empty() ? nullptr : a.im.data();
}

// The result as a new real block.
std::vector<float> multiply(const Image& data, const Image& low) {
    std::vector<float> out(data.re.size());
    homodyne_multiply(data.re.data(), imag(data), low.re.data(), imag(low), int(data.dims.size()),
                      data.dims.data(), low.dims.data(), out.data(), nullptr);
    return out;
}

// The in-place form: data rewritten, its imaginary block zeroed.
Image multiply_in_place(Image data, const Image& low) {
    float* im = data.im.empty() ? nullptr : data.im.data();
    homodyne_multiply(data.re.data(), im, low.re.data(), imag(low), int(data.dims.size()),
                      data.dims.data(), low.dims.data(), data.re.data(), im);
    return data;
}

}  // namespace

TEST(Multiply, SameSizeRemovesThePhase) {
    // 5 * conj(3 + 4i) / 5 = 3; real low: sign(-2) * 7; (1 + 2i) conj(2 - 1i) / |2 - i| = 0 + 5i
    // over sqrt(5): real part 0; zero low gives NaN.
    const Image data{{4, 1}, {5, 7, 1, 1}, {0, 0, 2, 1}};
    const Image low{{4, 1}, {3, -2, 2, 0}, {4, 0, -1, 0}};
    const auto out = multiply(data, low);
    EXPECT_EQ(out[0], 3.0f);
    EXPECT_EQ(out[1], -7.0f);
    EXPECT_EQ(out[2], 0.0f);
    EXPECT_TRUE(std::isnan(out[3]));

    const Image realLow{{4, 1}, {3, -2, 2, 0}, {}};
    const auto signs = multiply(data, realLow);
    EXPECT_EQ(signs[0], 5.0f);
    EXPECT_EQ(signs[1], -7.0f);

    const Image inPlace = multiply_in_place(data, low);
    EXPECT_TRUE(same_bits(inPlace.re, out));
    EXPECT_EQ(inPlace.im, std::vector<float>(4, 0.0f));
}

// The per-sample formula with its order of operations, the low value read or interpolated by
// MR_linear_interpolation: low-resolution images of the data's size, smaller along every axis,
// along y and z only (rows read contiguously), larger, and flat along z. Fractions along all
// three axes are not powers of two, so every product of weights rounds. Real and complex data
// and low-resolution images, safe and in place, one and two threads.
TEST(Multiply, BitIdenticalToThePerSampleFormula) {
    const int nx = 16, ny = 12, nz = 4, nvol = 3;
    const std::size_t n = nx * ny * nz * nvol;
    for (const std::vector<int>& ld : {std::vector<int>{16, 12, 4, 3},
                                       {7, 5, 3, 3},
                                       {16, 5, 3, 3},
                                       {19, 13, 5, 3},
                                       {16, 12, 1, 3}}) {
        const std::size_t lv = std::size_t(ld[0]) * ld[1] * ld[2];
        const bool same = ld[0] == nx && ld[1] == ny && ld[2] == nz;
        std::unique_ptr<float[]> px(MR_linspace(0.f, ld[0] - 1.f, nx)),
            py(MR_linspace(0.f, ld[1] - 1.f, ny)), pz(MR_linspace(0.f, ld[2] - 1.f, nz));
        for (int kind = 0; kind < 4; ++kind) {
            const bool dataComplex = kind & 1, lowComplex = kind & 2;
            const Image data{{nx, ny, nz, nvol},
                             samples(n, 11),
                             dataComplex ? samples(n, 12) : std::vector<float>()};
            const Image low{ld, samples(lv * nvol, 13),
                            lowComplex ? samples(lv * nvol, 14) : std::vector<float>()};
            std::vector<float> expected(n);
            std::size_t e = 0;
            for (int v = 0; v < nvol; ++v)
                for (int k = 0; k < nz; ++k)
                    for (int j = 0; j < ny; ++j)
                        for (int i = 0; i < nx; ++i, ++e) {
                            const auto at = [&](const std::vector<float>& b) {
                                return same ? b[e]
                                            : MR_linear_interpolation(b.data() + v * lv, py[j],
                                                                      px[i], pz[k], ld.data());
                            };
                            const float lr = at(low.re), li = lowComplex ? at(low.im) : 0.f;
                            const float m = lowComplex ? sqrtf(lr * lr + li * li) : sqrtf(lr * lr);
                            const float c = lr / m, s = lowComplex ? (-li) / m : 0.f;
                            expected[e] =
                                dataComplex ? (c * data.re[e]) - s * data.im[e] : c * data.re[e];
                        }
            for (int threads : {1, 2}) {
                EXPECT_TRUE(
                    same_bits(with_threads(threads, [&] { return multiply(data, low); }), expected))
                    << ld[0] << "x" << ld[1] << "x" << ld[2] << " kind " << kind;
                const Image inPlace =
                    with_threads(threads, [&] { return multiply_in_place(data, low); });
                EXPECT_TRUE(same_bits(inPlace.re, expected));
                EXPECT_EQ(inPlace.im, std::vector<float>(data.im.size(), 0.0f));
            }
        }
    }
}

TEST(Multiply, InterpolatesASmallerLowResolutionImage) {
    // 2 x 2 onto 3 x 3: positions (0, 0.5, 1); the centre is the mean of the four samples.
    const Image low{{2, 2}, {1, 3, 5, 7}, {2, 2, 2, 2}};
    const Image data{{3, 3}, std::vector<float>(9, 1.0f), {}};
    const auto out = multiply(data, low);
    EXPECT_FLOAT_EQ(out[4], 4.0f / std::sqrt(20.0f));  // l = 4 + 2i
    EXPECT_FLOAT_EQ(out[0], 1.0f / std::sqrt(5.0f));   // corner: l = 1 + 2i
    EXPECT_FLOAT_EQ(out[8], 7.0f / std::sqrt(53.0f));  // corner: l = 7 + 2i
    EXPECT_FLOAT_EQ(out[1], 2.0f / std::sqrt(8.0f));   // between 1 and 3

    // Three dimensions: 2 x 2 x 2 onto 3 x 3 x 3, the centre averages eight samples.
    const Image low3{{2, 2, 2}, {1, 1, 1, 1, 1, 1, 1, -5}, {}};
    const Image data3{{3, 3, 3}, std::vector<float>(27, 2.0f), {}};
    EXPECT_EQ(multiply(data3, low3)[13], 2.0f);   // mean 0.25 > 0
    EXPECT_EQ(multiply(data3, low3)[26], -2.0f);  // last corner
}

TEST(Multiply, SingleRowLowResolutionVolumesAreReadInsideTheirBlock) {
    // With one row per plane the corner b+nx+1 of the last row of the first plane lies at the
    // end of the block; only samples of this volume may be read (ASan checks the last one).
    const Image low{{4, 1, 2, 2}, std::vector<float>(16, 1.0f), std::vector<float>(16, 0.0f)};
    const Image data{{4, 3, 3, 2}, samples(72, 21), samples(72, 22)};
    EXPECT_TRUE(same_bits(multiply(data, low), data.re));
}

TEST(Multiply, LowResolutionShapesThatCanBeRead) {
    const int data[] = {8, 8, 4, 3};
    const int same[] = {8, 8, 4, 3}, smaller[] = {4, 4, 2, 3}, larger[] = {9, 9, 5, 3};
    const int fewerVolumes[] = {4, 4, 2, 2}, emptyAxis[] = {4, 0, 2, 3};
    EXPECT_TRUE(homodyne_low_res_fits(4, data, same));
    EXPECT_TRUE(homodyne_low_res_fits(4, data, smaller));
    EXPECT_TRUE(homodyne_low_res_fits(4, data, larger));
    EXPECT_FALSE(homodyne_low_res_fits(4, data, fewerVolumes));
    EXPECT_FALSE(homodyne_low_res_fits(4, data, emptyAxis));
    const int emptyData[] = {8, 0}, emptyLow[] = {8, 0};
    EXPECT_TRUE(homodyne_low_res_fits(2, emptyData, emptyLow));
}
