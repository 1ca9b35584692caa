// Spherical-harmonic basis: Legendre values against the standard library, the process exit on
// invalid arguments, the lookup table, spherical coordinates and the harmonic factors.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "recon/recon.hpp"
#include "support/sh_reference.hpp"

namespace {

constexpr double kUnitRoundoff = 0x1p-24;  // half a float ulp at 1
constexpr double kPi = 3.141592653589793;

// Arguments across [-1, 1]: a fine even grid, the ends and their float neighbours, zero and
// tiny values, and pseudo-random floats.
std::vector<float> legendre_arguments() {
    std::vector<float> xs;
    for (int i = 0; i <= 4000; ++i) xs.push_back(static_cast<float>(i / 2000.0 - 1.0));
    for (float e : {1.0f, -1.0f}) {
        float v = e;
        for (int k = 0; k < 8; ++k) xs.push_back(v = std::nextafter(v, 0.0f));
        xs.push_back(e);
    }
    for (float v : {0.0f, -0.0f, 1e-30f, -1e-7f, 0.5f, -0.5f}) xs.push_back(v);
    const shref::Points random = shref::ball_points(2000, 1.0f, 7);
    xs.insert(xs.end(), random.x.begin(), random.x.end());
    return xs;
}

}  // namespace

TEST(Plgndr, WorkedExamples) {
    for (float x : {-1.0f, -0.3f, 0.0f, 0.7f, 1.0f}) {
        EXPECT_EQ(plgndr(0, 0, x), 1.0f);
        EXPECT_EQ(plgndr(1, 0, x), x);
    }
    EXPECT_EQ(plgndr(1, 1, 0.0f), -1.0f);
    EXPECT_EQ(plgndr(2, 0, 0.5f), -0.125f);
    // The Condon-Shortley sign is included.
    EXPECT_FLOAT_EQ(plgndr(1, 1, 0.6f), -0.8f);
    EXPECT_FLOAT_EQ(plgndr(2, 2, 0.6f), 3.0f * 0.64f);
    EXPECT_FLOAT_EQ(plgndr(3, 3, 0.6f), -15.0f * 0.8f * 0.8f * 0.8f);
}

// sqrt(1 - x^2), the seed of every order above 0, is taken in double and rounded once; the
// single-precision form differs in the last bit for some arguments.
TEST(Plgndr, SquareRootSeedIsRoundedFromDouble) {
    int floatDiffers = 0;
    for (float x : legendre_arguments()) {
        const float seed = static_cast<float>(std::sqrt((1.0 + x) * (1.0 - x)));
        EXPECT_EQ(plgndr(1, 1, x), -seed) << x;
        EXPECT_EQ(plgndr(2, 2, x), (-1.0f * seed) * (-3.0f * seed)) << x;
        floatDiffers += seed != std::sqrt((1.0f + x) * (1.0f - x));
    }
    EXPECT_GT(floatDiffers, 10);
}

// std::assoc_legendre leaves out the Condon-Shortley sign, so plgndr must equal (-1)^m times
// it. Relative error is meaningless at the zeros of P_l^m, where the recurrence forms the value
// as the difference of larger terms and its rounding error scales with those terms, not with
// the result. So the error is measured against the local size of the function family,
// A = max over k = m..l of |P_k^m(x)|: that equals |P_l^m(x)| wherever P_l^m is the largest
// degree so far (away from its zeros) and stays the size of the cancelling terms at the zeros.
// The float recurrence accumulates about one rounding per step in each of its two terms, plus
// 3m roundings in the seed; a bound of (8 l + 3 m + 2) unit roundoffs of A holds with margin
// (the worst seen is about 4.6 l) and still rejects any wrong coefficient, sign or seed, all of
// which give errors of order A.
TEST(Plgndr, MatchesStandardLibraryForAllDegreesAndOrders) {
    const std::vector<float> xs = legendre_arguments();
    for (int l = 0; l <= 16; ++l) {
        for (int m = 0; m <= std::min(l, 11); ++m) {
            const double tol = (8.0 * l + 3.0 * m + 2.0) * kUnitRoundoff;
            const double sign = (m % 2) ? -1.0 : 1.0;
            int failures = 0;
            for (float x : xs) {
                double A = 0.0;
                for (int k = m; k <= l; ++k) A = std::max(A, std::abs(shref::legendre(k, m, x)));
                const double ref = sign * shref::legendre(l, m, x);
                const double got = plgndr(l, m, x);
                if (!(std::abs(got - ref) <= tol * A) && ++failures <= 3)
                    ADD_FAILURE() << "P_" << l << "^" << m << "(" << x << ") = " << got
                                  << ", expected " << ref << " (local size " << A << ")";
            }
            EXPECT_EQ(failures, 0) << "l=" << l << " m=" << m;
        }
    }
}

TEST(PlgndrDeathTest, InvalidArgumentsEndTheProcessWithStatusOne) {
    // Re-executes the binary for each case, so threads left by earlier tests do not matter.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(plgndr(2, 3, 0.0f), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(plgndr(2, -1, 0.0f), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(plgndr(2, 1, 1.5f), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(plgndr(0, 0, std::nextafter(-1.0f, -2.0f)), testing::ExitedWithCode(1), "^$");
}

TEST(LegendreTable, SmallTableLayout) {
    float t[18];
    std::fill(t, t + 18, -7.0f);
    create_plgndr_lookup(3, 2, 3, t);
    const float xs[3] = {-1.0f, 0.0f, 1.0f};
    for (int s = 0; s < 3; ++s) {
        const float* row = t + s * 6;
        EXPECT_EQ(row[0], 1.0f);   // P_0^0
        EXPECT_EQ(row[1], xs[s]);  // P_1^0
        EXPECT_EQ(row[2], plgndr(2, 0, xs[s]));
        EXPECT_EQ(row[3], 0.0f);  // order 1, degree 0: no such function
        EXPECT_EQ(row[4], plgndr(1, 1, xs[s]));
        EXPECT_EQ(row[5], plgndr(2, 1, xs[s]));
    }
    EXPECT_EQ(t[2], 1.0f);   // P_2(-1)
    EXPECT_EQ(t[8], -0.5f);  // P_2(0)

    // nSamples < 1 writes nothing.
    create_plgndr_lookup(3, 2, 0, t);
    EXPECT_EQ(t[0], 1.0f);
}

// The table is filled by one recurrence pass per order rather than one plgndr call per entry;
// every entry must still be the plgndr value to the bit, at the driver's size.
TEST(LegendreTable, EveryEntryIsThePlgndrValue) {
    const int nD = 17, nO = 12, nS = 10000;
    std::vector<float> t(static_cast<size_t>(nD) * nO * nS);
    create_plgndr_lookup(nD, nO, nS, t.data());
    const float step = 2.0f / static_cast<float>(nS - 1);
    int mismatches = 0;
    for (int s = 0; s < nS; ++s) {
        const float x = static_cast<float>(s) * step - 1.0f;
        for (int m = 0; m < nO; ++m)
            for (int l = 0; l < nD; ++l) {
                const float want = m <= l ? plgndr(l, m, x) : 0.0f;
                const float got = t[(static_cast<size_t>(s) * nO + m) * nD + l];
                if (std::memcmp(&got, &want, sizeof got) != 0 && ++mismatches <= 3)
                    ADD_FAILURE() << "s=" << s << " m=" << m << " l=" << l;
            }
    }
    EXPECT_EQ(mismatches, 0);
}

// Samples are guarded by |x| <= 1 rather than trusted: with one sample the step is 2 / 0 and the
// sample's argument not a number, which must give zeros, not an exit or a NaN table.
TEST(LegendreTable, ArgumentOutsideTheRangeGivesZeros) {
    float t[6];
    std::fill(t, t + 6, -7.0f);
    create_plgndr_lookup(3, 2, 1, t);
    for (float v : t) EXPECT_EQ(v, 0.0f);
}

TEST(SphericalCoordinates, WorkedExamples) {
    float o[3];
    getRadiusThetaPhi(0, 0, 0, o);
    EXPECT_EQ(o[0], 0.0f);
    EXPECT_EQ(o[1], 1.5707964f);
    EXPECT_EQ(o[2], 0.0f);
    getRadiusThetaPhi(1, 0, 0, o);
    EXPECT_EQ(o[0], 1.0f);
    EXPECT_EQ(o[1], 1.5707964f);
    EXPECT_EQ(o[2], 0.0f);
    getRadiusThetaPhi(0, -1, 0, o);
    EXPECT_EQ(o[2], 4.712389f);
    getRadiusThetaPhi(0, 1, 0, o);
    EXPECT_EQ(o[2], 1.5707964f);
    getRadiusThetaPhi(-1, -1, 0, o);
    EXPECT_FLOAT_EQ(o[2], static_cast<float>(5 * kPi / 4));
    getRadiusThetaPhi(0, 0, -2, o);
    EXPECT_EQ(o[0], 2.0f);
    EXPECT_FLOAT_EQ(o[1], static_cast<float>(kPi));
    getRadiusThetaPhi(0, 0, 3, o);
    EXPECT_EQ(o[1], 0.0f);
}

// Over every quadrant and both hemispheres the angles are those of the point: theta in
// [0, pi] from +z, phi in [0, 2 pi) from +x toward +y. Tolerances: a few float ulps of the
// angle, plus the conditioning of acos/asin, whose argument z / r carries a few roundings.
TEST(SphericalCoordinates, AnglesOfPointsInEveryOctant) {
    const shref::Points p = shref::ball_points(20000, 3.0f, 11);
    for (int i = 0; i < p.size(); ++i) {
        const double x = p.x[i], y = p.y[i], z = p.z[i];
        float o[3];
        getRadiusThetaPhi(p.x[i], p.y[i], p.z[i], o);
        const double r = std::sqrt(x * x + y * y + z * z);
        const double theta = std::acos(z / r);
        double phi = std::atan2(y, x);
        if (phi < 0) phi += 2 * kPi;
        EXPECT_NEAR(o[0], r, 4 * kUnitRoundoff * r);
        EXPECT_NEAR(o[1], theta, 32 * kUnitRoundoff / std::max(std::sin(theta), 1e-3)) << i;
        EXPECT_NEAR(o[2], phi, 32 * kUnitRoundoff) << x << " " << y;
        EXPECT_GE(o[2], 0.0f);
        EXPECT_LE(o[2], 6.2831855f);  // 2 pi rounded up: reached by y just below 0
    }
}

// Three branches round a double-precision expression once, the others stay in single
// precision; the last bits of every later result depend on which is which.
TEST(SphericalCoordinates, MixedPrecisionBranchesRoundAsWritten) {
    const shref::Points p = shref::ball_points(20000, 1.0f, 5);
    int doubleDiffers = 0;
    for (int i = 0; i < p.size(); ++i) {
        const float x = p.x[i], y = p.y[i], z = p.z[i];
        float o[3];
        getRadiusThetaPhi(x, y, z, o);
        const float r = std::sqrt((x * x + y * y) + z * z);
        ASSERT_EQ(o[0], r);
        // The theta sum of two floats is exact in double, so there it is the quotient and
        // asin that must stay in single precision.
        const float theta =
            z > 0 ? std::acos(z / r)
                  : static_cast<float>(static_cast<double>(std::asin(-z / r)) + 1.5707963705062866);
        EXPECT_EQ(o[1], theta) << x << " " << y << " " << z;
        float phi, singleOnly;
        if (x > 0 && y >= 0) {
            phi = singleOnly = std::atan(y / x);
        } else if (x > 0) {
            phi = static_cast<float>(std::atan(static_cast<double>(y) / x) + 6.2831854820251465);
            singleOnly = std::atan(y / x) + 6.2831855f;
        } else if (y >= 0) {
            phi = static_cast<float>(std::atan(static_cast<double>(y) / x) + 3.1415927410125732);
            singleOnly = std::atan(y / x) + 3.1415927f;
        } else {
            phi = singleOnly = std::atan(y / x) + 3.1415927f;
        }
        EXPECT_EQ(o[2], phi) << x << " " << y << " " << z;
        doubleDiffers += phi != singleOnly;
    }
    // The comparison has teeth: a pure single-precision phi would fail it.
    EXPECT_GT(doubleDiffers, 100);
}

TEST(HarmonicTerms, RadialFactorAndAzimuthalTerms) {
    EXPECT_EQ(radialFactor(0.0f, 2.0f, 0), 1.0f);
    EXPECT_EQ(radialFactor(0.0f, 2.0f, 3), 0.0f);
    EXPECT_EQ(radialFactor(3.0f, 2.0f, 2), 2.25f);
    EXPECT_TRUE(std::isinf(radialFactor(1.0f, 0.0f, 1)));
    EXPECT_TRUE(std::isnan(radialFactor(0.0f, 0.0f, 1)));
    for (int n = 0; n <= 16; ++n) {
        const float r = 0.73f, r0 = 0.9f;
        const double want = std::pow(static_cast<double>(r / r0), n);
        EXPECT_NEAR(radialFactor(r, r0, n), want, (n + 1) * kUnitRoundoff * want) << n;
    }
    for (int m = 0; m <= 11; ++m) {
        const float phi = 2.1f, P = -1.5f, r = 0.5f, r0 = 1.0f;
        const double radial = 0.125 * P, angle = m * static_cast<double>(phi);
        // m * phi is rounded to float (up to |m phi| unit roundoffs), then sine or cosine and
        // two products each add about one more.
        const double tol = (angle + 4) * kUnitRoundoff * std::abs(radial);
        EXPECT_NEAR(funcYS(3, m, r, phi, r0, P), std::sin(angle) * radial, tol) << m;
        EXPECT_NEAR(funcYC(3, m, r, phi, r0, P), std::cos(angle) * radial, tol) << m;
    }
}
