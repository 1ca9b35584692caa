// The "filter" core: one-dimensional weights, accepted ranges, the band block and the
// geometric-mean weighting of the data.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numeric>
#include <vector>

#include "gateway/homodyne.hpp"
#include "support/bits.hpp"
#include "support/samples.hpp"
#include "support/threads.hpp"

namespace {

constexpr float kUntouched = -7.0f;

struct Filter {
    int result;
    std::vector<float> weights;
    int edges[2];
};

Filter filter(int n, double first, double last) {
    Filter f{0, std::vector<float>(n, kUntouched), {-1, -1}};
    const double range[2] = {first, last};
    f.result = calculate_filter(n, range, f.weights.data(), f.edges);
    return f;
}

// homodyne_filter_setup and homodyne_band_dims for data of the given sizes.
struct Plan {
    int n[3], nvol, count;
    std::vector<float> weights;
    int edges[3][2];
    std::vector<int> band;
};

Plan plan(const std::vector<int>& dims, const double* const ranges[3]) {
    Plan s;
    const int ndims = int(dims.size());
    s.nvol = homodyne_volume_sizes(ndims, dims.data(), s.n);
    s.weights.resize(s.n[0] + s.n[1] + s.n[2]);
    s.count = homodyne_filter_setup(s.n, ranges, s.weights.data(), s.edges);
    s.band.resize(ndims);
    homodyne_band_dims(ndims, dims.data(), s.edges, s.band.data());
    return s;
}

// Values 0, 1, 2, ... so that a copied sample tells where it came from.
std::vector<float> indices(std::size_t n, float offset = 0.0f) {
    std::vector<float> v(n);
    std::iota(v.begin(), v.end(), offset);
    return v;
}

}  // namespace

TEST(CalculateFilter, WorkedRows) {
    for (const auto& f : {filter(256, -20, 127), filter(256, -20.9, 127.9)}) {
        ASSERT_EQ(f.result, 1);
        EXPECT_EQ(f.edges[0], 108);
        EXPECT_EQ(f.edges[1], 148);
        for (int i = 0; i <= 108; ++i) EXPECT_EQ(f.weights[i], 0.0f) << i;
        EXPECT_EQ(f.weights[118], 0.75f);
        EXPECT_EQ(f.weights[128], 1.0f);
        EXPECT_EQ(f.weights[138], 1.25f);
        for (int i = 148; i < 256; ++i) EXPECT_EQ(f.weights[i], 2.0f) << i;
        // A sample and its mirror inside the band count twice together.
        for (int d = 1; d < 20; ++d)
            EXPECT_NEAR(f.weights[128 - d] + f.weights[128 + d], 2.0f, 1e-6);
    }
}

TEST(CalculateFilter, FirstCoordinateAtTheCentreStepsFromZeroToTwo) {
    const auto f = filter(16, 0, 4);  // ratio 5 / 9
    ASSERT_EQ(f.result, 1);
    EXPECT_EQ(f.edges[0], 8);
    EXPECT_EQ(f.edges[1], 8);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(f.weights[i], 0.0f);
    for (int i = 8; i < 16; ++i) EXPECT_EQ(f.weights[i], 2.0f);
}

TEST(CalculateFilter, RejectedRangesTouchNothing) {
    const struct {
        int n;
        double first, last;
    } rejected[] = {
        {256, -128, 20},    // missing high side: ratio above 1
        {256, 5, 127},      // first coordinate above the centre
        {256, -100, 100},   // symmetric: ratio 1
        {256, -10, 109},    // ratio 120 / 219, just below 0.55
        {256, -127, 127},   // mirror is the last coordinate, which is not scanned
        {255, -128, 100},   // first coordinate outside the axis
        {1, -1, 3},         // no coordinate scanned
        {0, -20, 127},      // empty axis
        {256, NAN, 127},    // truncation of NaN
        {256, -20, 1e300},  // truncation out of the int range
    };
    for (const auto& r : rejected) {
        const auto f = filter(r.n, r.first, r.last);
        EXPECT_EQ(f.result, 0) << r.n << " " << r.first << " " << r.last;
        EXPECT_EQ(f.edges[0], -1);
        EXPECT_EQ(f.edges[1], -1);
        for (float w : f.weights) EXPECT_EQ(w, kUntouched);
    }
}

TEST(CalculateFilter, RatioIsAFloatQuotientComparedInDouble) {
    EXPECT_EQ(filter(256, -11, 109).result, 1);  // 121 / 219, just above 0.55

    // 1540006 / 2800011 lies below 0.55 but rounds to 0.55f, which is above 0.55 in double: a
    // quotient formed in double would reject this range.
    const int b = 1400005, a = -140000;
    const double exact = double(b - a + 1) / double(2 * b + 1);
    const float ratio = float(b - a + 1) / float(2 * b + 1);
    ASSERT_LT(exact, 0.55);
    ASSERT_GE(double(ratio), 0.55);
    EXPECT_EQ(filter(2 * b + 2, a, b).result, 1);
}

TEST(FilterSetup, EdgesBandSizesAndCount) {
    const double x[] = {-5, 15}, y[] = {-8, 3}, z[] = {-2, 1}, far[] = {-20, 127};
    const struct {
        std::vector<int> dims;
        const double* ranges[3];
        int count;
        std::vector<int> band;
    } cases[] = {
        {{32, 16, 4, 2}, {x, nullptr, nullptr}, 1, {11, 16, 4, 2}},  // x filtered: -5 .. 5
        {{32, 16, 4, 2}, {x, y, nullptr}, 1, {11, 1, 4, 2}},  // y rejected (high side missing)
        {{32, 16, 4, 2}, {nullptr, nullptr, z}, 0, {32, 16, 4, 2}},  // symmetric within one
        {{5, 0}, {nullptr, far, nullptr}, 0, {5, 1}},                // rejected on an empty axis
    };
    for (const auto& c : cases) {
        const Plan s = plan(c.dims, c.ranges);
        EXPECT_EQ(s.count, c.count);
        EXPECT_EQ(s.band, c.band);
        for (int i = c.dims[0]; i < int(s.weights.size()); ++i) EXPECT_EQ(s.weights[i], 1.0f);
    }
    // The band of one sample on the empty axis has no source sample: nothing is copied.
    const Plan empty = plan(cases[3].dims, cases[3].ranges);
    std::vector<float> out(5, kUntouched);
    homodyne_crop(nullptr, nullptr, empty.n, empty.nvol, empty.edges, out.data(), out.data());
    for (float v : out) EXPECT_EQ(v, kUntouched);
}

TEST(FilterCrop, CopiesTheUnweightedBandOfEveryVolume) {
    const double x[] = {-5, 15}, y[] = {-8, 3}, z[] = {-2, 4};  // filtered, rejected, filtered
    const double* ranges[3] = {x, y, z};
    const Plan s = plan({32, 16, 8, 2}, ranges);
    ASSERT_EQ(s.count, 2);
    ASSERT_EQ(s.band, (std::vector<int>{11, 1, 5, 2}));

    const std::size_t total = 32 * 16 * 8 * 2, bandTotal = 11 * 1 * 5 * 2;
    const auto re = indices(total), im = indices(total, 0.5f);
    std::vector<float> outRe(bandTotal), outIm(bandTotal), realOutIm(bandTotal, kUntouched);
    homodyne_crop(re.data(), im.data(), s.n, s.nvol, s.edges, outRe.data(), outIm.data());
    std::size_t o = 0;
    for (int v = 0; v < 2; ++v)
        for (int k = 0; k < 5; ++k)
            for (int i = 0; i < 11; ++i, ++o) {
                // The x band starts at index 11, y keeps index 0, the z band starts at index 2.
                const float source = float(v * 4096 + (k + 2) * 512 + (i + 11));
                EXPECT_EQ(outRe[o], source);
                EXPECT_EQ(outIm[o], source + 0.5f);
            }
    // Real input: the imaginary block of the band is left to the caller (zero-filled there).
    homodyne_crop(re.data(), nullptr, s.n, s.nvol, s.edges, outRe.data(), realOutIm.data());
    for (float v : realOutIm) EXPECT_EQ(v, kUntouched);
}

namespace {

struct Data {
    std::vector<int> dims;
    std::vector<float> re, im;  // im empty for real data
};

// Weights the data into new blocks, or in place when inPlace.
Data weigh(Data d, const double* const ranges[3], bool inPlace = false) {
    const Plan s = plan(d.dims, ranges);
    float* im = d.im.empty() ? nullptr : d.im.data();
    Data out = inPlace
                   ? Data()
                   : Data{d.dims, std::vector<float>(d.re.size()), std::vector<float>(d.im.size())};
    Data& target = inPlace ? d : out;
    homodyne_weight(d.re.data(), im, s.n, s.nvol, s.weights.data(), s.count, target.re.data(),
                    im ? target.im.data() : nullptr);
    return target;
}

// Element-by-element weighting as the filter is defined: no table.
Data weigh_reference(Data d, const double* const ranges[3]) {
    int n[3];
    const int nvol = homodyne_volume_sizes(int(d.dims.size()), d.dims.data(), n);
    std::vector<float> f[3];
    int count = 0;
    for (int a = 0; a < 3; ++a) {
        f[a].assign(n[a], 1.0f);
        int edges[2];
        if (ranges[a] && std::fabs(ranges[a][0] + ranges[a][1]) > 1.0)
            count += calculate_filter(n[a], ranges[a], f[a].data(), edges);
    }
    std::size_t e = 0;
    for (int v = 0; v < nvol; ++v)
        for (int k = 0; k < n[2]; ++k)
            for (int j = 0; j < n[1]; ++j)
                for (int i = 0; i < n[0]; ++i, ++e) {
                    const float g = powf((f[0][i] * f[1][j]) * f[2][k], 1.0f / float(count));
                    d.re[e] *= g;
                    if (!d.im.empty()) d.im[e] *= g;
                }
    return d;
}

Data ones(std::vector<int> dims) {
    std::size_t n = 1;
    for (int d : dims) n *= d;
    return {dims, std::vector<float>(n, 1.0f), {}};
}

}  // namespace

// n = 64 with range (-8, 31): band indices 24 .. 40, weight 0.75 at 28, 1.25 at 36, 2 from 40.
TEST(FilterWeight, GeometricMeanOfTheFilteredAxes) {
    const double r[] = {-8, 31};
    const double* x[3] = {r, nullptr, nullptr};
    const double* xy[3] = {r, r, nullptr};
    const double* xz[3] = {r, nullptr, r};
    const double* xyz[3] = {r, r, r};

    EXPECT_EQ(weigh(ones({64, 1}), x).re[28], 0.75f);  // one axis: the weight itself
    const auto two = weigh(ones({64, 64}), xy);
    EXPECT_EQ(two.re[28 + 64 * 36], std::sqrt(0.75f * 1.25f));
    EXPECT_EQ(two.re[50 + 64 * 50], 2.0f);
    EXPECT_EQ(two.re[10 + 64 * 50], 0.0f);
    EXPECT_EQ(weigh(ones({64, 1, 64}), xz).re[28 + 64 * 36], std::sqrt(0.75f * 1.25f));
    const auto three = weigh(ones({64, 64, 64}), xyz);
    EXPECT_EQ(three.re[50 + 64 * (50 + 64 * 50)], 2.0f);  // cube root of 8
    EXPECT_EQ(three.re[28 + 64 * (36 + 64 * 40)], cbrtf(0.75f * 1.25f * 2.0f));
}

// The table of weights against one powf per sample, safe and in place, real and complex, with
// one and two threads: five volumes split unevenly, and a single volume whose table both
// threads build.
TEST(FilterWeight, BitIdenticalToElementwiseWeighting) {
    const double r[] = {-8, 31}, rejected[] = {-30, 5}, symmetric[] = {-31, 31};
    const double* cases[][3] = {
        {r, nullptr, nullptr},
        {nullptr, r, nullptr},
        {r, r, nullptr},
        {r, nullptr, r},
        {r, r, r},
        {nullptr, nullptr, nullptr},
        {rejected, symmetric, r},
    };
    for (const std::vector<int>& dims : {std::vector<int>{64, 48, 3, 5}, {64, 48}}) {
        const std::size_t n = std::size_t(64) * 48 * (dims.size() > 2 ? 15 : 1);
        const Data complex{dims, samples(n, 1), samples(n, 2)}, real{dims, samples(n, 3), {}};
        for (const auto& ranges : cases) {
            for (const Data& d : {complex, real}) {
                const Data expect = weigh_reference(d, ranges);
                for (int threads : {1, 2}) {
                    for (bool inPlace : {false, true}) {
                        const Data got =
                            with_threads(threads, [&] { return weigh(d, ranges, inPlace); });
                        EXPECT_TRUE(same_bits(got.re, expect.re)) << threads << inPlace;
                        EXPECT_TRUE(same_bits(got.im, expect.im)) << threads << inPlace;
                    }
                }
            }
        }
    }
}
