// Numeric helpers and trilinear interpolation: the rounding and edge rules callers rely on.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

#include "recon/recon.hpp"

TEST(Round, NonNegativeHalvesGoUpNegativesGoTowardZero) {
    for (auto round : {+[](double x) { return MR_round(x); },
                       +[](double x) { return MR_round(static_cast<float>(x)); }}) {
        const std::pair<double, int> cases[] = {{0.5, 1},   {2.5, 3},   {2.4, 2},   {1.49999, 1},
                                                 {-0.5, 0},  {-1.5, -1}, {-2.5, -2}, {-2.7, -2},
                                                 {-3.99, -3}, {7.0, 7}};
        for (const auto& [x, want] : cases) EXPECT_EQ(round(x), want) << x;
    }
}

TEST(Linspace, AccumulatesTheStep) {
    std::unique_ptr<float[]> v(MR_linspace(-1.f, 1.f, 5));
    const float expected[] = {-1.f, -0.5f, 0.f, 0.5f, 1.f};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(v[i], expected[i]);

    std::unique_ptr<float[]> one(MR_linspace(0.f, 1.f, 1));
    EXPECT_EQ(one[0], 0.f);

    // 0.1 is not representable: repeated addition drifts from start + i * step, and the
    // positions must keep that drift.
    const int n = 1001;
    std::unique_ptr<float[]> w(MR_linspace(0.f, 100.f, n));
    const float step = 100.f / (static_cast<float>(n) - 1.f);
    float acc = 0.f;
    bool drifted = false;
    for (int i = 1; i < n; ++i) {
        acc = acc + step;
        EXPECT_EQ(w[i], acc) << i;
        drifted |= (w[i] != static_cast<float>(i) * step);
    }
    EXPECT_TRUE(drifted);
}

TEST(Find, FirstMatchOrMinusOne) {
    const uint16_t u16[] = {4, 7, 7};
    const int16_t i16[] = {-3, 5};
    const int32_t i32[] = {9, 8, 9};
    const uint32_t u32[] = {1u, 4000000000u};
    EXPECT_EQ(MR_find(u16, uint16_t(7), 3), 1);
    EXPECT_EQ(MR_find(u16, uint16_t(5), 3), -1);
    EXPECT_EQ(MR_find(u16, uint16_t(4), 0), -1);
    EXPECT_EQ(MR_find(i16, int16_t(-3), 2), 0);
    EXPECT_EQ(MR_find(i32, 9, 3), 0);
    EXPECT_EQ(MR_find(u32, 4000000000u, 2), 1);
}

TEST(Sub2Ind, ColumnMajorZeroBased) {
    Eigen::VectorXi dims(3), sub(4);
    dims << 4, 3, 2;
    sub << 1, 2, 1, 99;  // only as many subscripts as sizes are read
    EXPECT_EQ(MR_sub2ind(dims, sub), 21);
    EXPECT_EQ(MR_sub2ind(Eigen::VectorXi(), sub), 0);
}

TEST(RootMeanSquare, ComplexRealAndEmpty) {
    const float re[] = {3.f, 0.f}, im[] = {4.f, 0.f};
    EXPECT_DOUBLE_EQ(MR_SA(re, im, 1), 5.0);
    EXPECT_DOUBLE_EQ(MR_SA(re, nullptr, 2), std::sqrt(4.5));
    EXPECT_TRUE(std::isnan(MR_SA(re, im, 0)));
}

namespace {
// Grid whose sample i holds i + 1, so a read of any corner is visible in the result.
std::vector<float> ramp(int n) {
    std::vector<float> v(n);
    std::iota(v.begin(), v.end(), 1.f);
    return v;
}
}  // namespace

TEST(Interpolation, IntegerPositionsReturnSamples) {
    const int dims[] = {4, 3, 2};
    const auto g = ramp(24);
    for (int k = 0; k < 2; ++k)
        for (int j = 0; j < 3; ++j)
            for (int i = 0; i < 4; ++i)
                EXPECT_EQ(MR_linear_interpolation(g.data(), float(j), float(i), float(k), dims),
                          g[i + 4 * j + 12 * k]);
}

TEST(Interpolation, SecondCoordinateArgumentIsTheFirstDimension) {
    const int dims[] = {4, 4, 1};
    const auto g = ramp(16);
    // c2 = 1 moves one row (+nx), c1 = 1 moves one sample (+1).
    EXPECT_EQ(MR_linear_interpolation(g.data(), 1.f, 0.f, 0.f, dims), g[4]);
    EXPECT_EQ(MR_linear_interpolation(g.data(), 0.f, 1.f, 0.f, dims), g[1]);
    EXPECT_EQ(MR_linear_interpolation(g.data(), 0.5f, 0.5f, 0.f, dims),
              0.25f * (g[0] + g[1] + g[4] + g[5]));
}

TEST(Interpolation, RowOverrunAndFlatEndFade) {
    const int dims[] = {4, 4, 1};
    const auto g = ramp(16);
    // Past the last sample of a row: blends with the first sample of the next row.
    EXPECT_EQ(MR_linear_interpolation(g.data(), 1.f, 3.5f, 0.f, dims), 0.5f * g[7] + 0.5f * g[8]);
    // Last row of the block: the missing corner drops out, the result is half the sample.
    EXPECT_EQ(MR_linear_interpolation(g.data(), 3.f, 3.5f, 0.f, dims), 0.5f * g[15]);
    // Exactly on the last sample.
    EXPECT_EQ(MR_linear_interpolation(g.data(), 3.f, 3.f, 0.f, dims), g[15]);
    // Past the block.
    EXPECT_EQ(MR_linear_interpolation(g.data(), 4.f, 0.f, 0.f, dims), 0.f);
    // A fractional third coordinate on a 2-D grid loses the upper plane: scaled by 1 - t3.
    EXPECT_EQ(MR_linear_interpolation(g.data(), 1.f, 1.f, 0.25f, dims), g[5] * 0.75f);
}

TEST(Interpolation, OneRowPerPlaneNeverReadsPastTheBlock) {
    // nx = 4, ny = 1, nz = 2: at the last sample of the first plane the +nx+1 corner lies one
    // past the end while +plane is inside. The block sits in a larger buffer whose next
    // sample is poison, so a read past the end would show.
    const int dims[] = {4, 1, 2};
    std::vector<float> g = ramp(9);
    g[8] = std::nanf("");
    const float v = MR_linear_interpolation(g.data(), 0.5f, 3.5f, 0.f, dims);
    EXPECT_FALSE(std::isnan(v));
    EXPECT_EQ(v, 0.25f * g[3] + 0.25f * g[4] + 0.25f * g[7]);
}

TEST(Interpolation, AllFloatOverloadsAgree) {
    const int dims[] = {5, 4, 3};
    Eigen::VectorXi edims(3);
    edims << 5, 4, 3;
    const auto g = ramp(60);
    Eigen::VectorXf eg = Eigen::Map<const Eigen::VectorXf>(g.data(), 60);
    for (float c2 : {0.f, 1.3f, 2.9f, 3.5f})
        for (float c1 : {0.f, 0.7f, 4.2f})
            for (float c3 : {0.f, 0.4f, 1.99f, 2.5f}) {
                const float a = MR_linear_interpolation(g.data(), c2, c1, c3, dims);
                EXPECT_EQ(a, MR_linear_interpolation(g.data(), c2, c1, c3, edims));
                EXPECT_EQ(a, MR_linear_interpolation(eg, c2, c1, c3, edims));
            }
}

TEST(Interpolation, ComplexFormWeightsAndBound) {
    Eigen::VectorXcd d(16);
    for (int i = 0; i < 16; ++i) d[i] = {double(i + 1), -2.0 * (i + 1)};
    Eigen::VectorXi dims(1);
    dims << 2;  // nx = 2, plane = 4
    // base 0: corners 0, 1, 2, 3 and +4; f1 weights +1, f2 weights +nx, f3 the plane.
    const auto v = MR_linear_interpolation(d, dims, 0, 0.5, 0.25, 0.0, 4, 16);
    const std::complex<double> expect =
        d[0] * (0.75 * 0.5) + d[1] * (0.25 * 0.5) + d[2] * (0.75 * 0.5) + d[3] * (0.25 * 0.5);
    EXPECT_NEAR(std::abs(v - expect), 0.0, 1e-12);
    // The bound stops reads at the end of a factor block: only corner base survives.
    EXPECT_EQ(MR_linear_interpolation(d, dims, 3, 0.0, 0.0, 0.5, 4, 4), d[3] * 0.5);
    EXPECT_EQ(MR_linear_interpolation(d, dims, 4, 0.0, 0.0, 0.0, 4, 4),
              std::complex<double>(0.0, 0.0));
}
