// Spherical-harmonic basis: Legendre values against the standard library, the process exit on
// invalid arguments, the lookup table, spherical coordinates and the harmonic factors.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "recon/cpu.hpp"
#include "recon/geometry/sincos.hpp"
#include "recon/recon.hpp"
#include "support/sh_reference.hpp"

namespace {

constexpr double u = 0x1p-24;  // unit roundoff of float
constexpr double kPi = 3.141592653589793;

// [-1, 1] on a fine grid, the ends and their float neighbours, zero, and pseudo-random floats.
std::vector<float> legendre_arguments() {
    std::vector<float> xs;
    for (int i = 0; i <= 4000; ++i) xs.push_back(static_cast<float>(i / 2000.0 - 1.0));
    for (float v = 1.0f; v > 0.9999990f; v = std::nextafter(v, 0.0f)) {
        xs.push_back(v);
        xs.push_back(-v);
    }
    xs.push_back(-0.0f);
    const shref::Points random = shref::ball_points(2000, 1.0f, 7);
    xs.insert(xs.end(), random.x.begin(), random.x.end());
    return xs;
}

}  // namespace

TEST(Plgndr, WorkedExamplesAndDoubleSquareRootSeed) {
    for (float x : {-1.0f, -0.3f, 0.0f, 0.7f, 1.0f}) {
        EXPECT_EQ(plgndr(0, 0, x), 1.0f);
        EXPECT_EQ(plgndr(1, 0, x), x);
    }
    EXPECT_EQ(plgndr(1, 1, 0.0f), -1.0f);
    EXPECT_EQ(plgndr(2, 0, 0.5f), -0.125f);
    // sqrt(1 - x^2), the seed of every order above 0, is taken in double and rounded once; the
    // single-precision form differs in the last bit for some arguments.
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
// the result. So the error is measured against the local size of the family,
// A = max over k = m..l of |P_k^m(x)|: that is |P_l^m(x)| wherever degree l is the largest so
// far (away from its zeros) and stays the size of the cancelling terms at the zeros. The float
// recurrence takes a few roundings per degree step and 3m in the seed; (8 l + 3 m + 2) unit
// roundoffs of A hold with margin (the worst seen is about 4.6 l) and still reject any wrong
// coefficient, sign or seed, which all give errors of order A.
TEST(Plgndr, MatchesStandardLibraryForAllDegreesAndOrders) {
    const std::vector<float> xs = legendre_arguments();
    for (int l = 0; l <= 16; ++l) {
        for (int m = 0; m <= std::min(l, 11); ++m) {
            const double tol = (8.0 * l + 3.0 * m + 2.0) * u, sign = (m % 2) ? -1.0 : 1.0;
            int failures = 0;
            for (float x : xs) {
                double A = 0.0;
                for (int k = m; k <= l; ++k) A = std::max(A, std::abs(shref::legendre(k, m, x)));
                const double want = sign * shref::legendre(l, m, x), got = plgndr(l, m, x);
                if (!(std::abs(got - want) <= tol * A) && ++failures <= 3)
                    ADD_FAILURE() << "P_" << l << "^" << m << "(" << x << ") = " << got
                                  << ", expected " << want << " (local size " << A << ")";
            }
            EXPECT_EQ(failures, 0) << "l=" << l << " m=" << m;
        }
    }
}

TEST(PlgndrDeathTest, InvalidArgumentsEndTheProcessWithStatusOneSilently) {
    // Re-executes the binary for each case, so threads left by earlier tests do not matter.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(plgndr(2, 3, 0.0f), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(plgndr(2, -1, 0.0f), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(plgndr(2, 1, 1.5f), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(plgndr(0, 0, std::nextafter(-1.0f, -2.0f)), testing::ExitedWithCode(1), "^$");
}

// The layout of a full table is checked entry by entry below; here the degenerate sample counts.
TEST(LegendreTable, NoOrOneSample) {
    float t[6];
    std::fill(t, t + 6, -7.0f);
    create_plgndr_lookup(3, 2, 0, t);  // no samples: nothing written
    EXPECT_EQ(t[0], -7.0f);
    // One sample: the step is 2 / 0 and the argument not a number; the |x| <= 1 guard gives
    // zeros instead of an exit.
    create_plgndr_lookup(3, 2, 1, t);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(t[i], 0.0f);
}

// The table is filled by one recurrence pass per order rather than one plgndr call per entry;
// every entry must still be the plgndr value to the bit, at the driver's size.
TEST(LegendreTable, EveryEntryIsThePlgndrValue) {
    const int nD = 17, nO = 12, nS = 10000;
    std::vector<float> t(static_cast<size_t>(nD) * nO * nS);
    create_plgndr_lookup(nD, nO, nS, t.data());
    const float step = 2.0f / static_cast<float>(nS - 1);
    int mismatches = 0;
    for (int s = 0; s < nS; ++s)
        for (int m = 0; m < nO; ++m)
            for (int l = 0; l < nD; ++l) {
                const float want = m <= l ? plgndr(l, m, static_cast<float>(s) * step - 1) : 0;
                const float got = t[(static_cast<size_t>(s) * nO + m) * nD + l];
                if (std::memcmp(&got, &want, sizeof got) != 0 && ++mismatches <= 3)
                    ADD_FAILURE() << "s=" << s << " m=" << m << " l=" << l;
            }
    EXPECT_EQ(mismatches, 0);
}

TEST(SphericalCoordinates, WorkedExamples) {
    struct Case {
        float x, y, z, r, theta, phi;
    };
    const Case cases[] = {{0, 0, 0, 0, 1.5707964f, 0},
                          {1, 0, 0, 1, 1.5707964f, 0},
                          {0, -1, 0, 1, 1.5707964f, 4.712389f},
                          {0, 1, 0, 1, 1.5707964f, 1.5707964f},
                          {0, 0, 3, 3, 0, 0}};
    for (const Case& c : cases) {
        float o[3];
        getRadiusThetaPhi(c.x, c.y, c.z, o);
        EXPECT_EQ(o[0], c.r);
        EXPECT_EQ(o[1], c.theta);
        EXPECT_EQ(o[2], c.phi);
    }
    float o[3];
    getRadiusThetaPhi(-1, -1, 0, o);
    EXPECT_FLOAT_EQ(o[2], static_cast<float>(5 * kPi / 4));
    getRadiusThetaPhi(0, 0, -2, o);
    EXPECT_EQ(o[0], 2.0f);
    EXPECT_FLOAT_EQ(o[1], static_cast<float>(kPi));
}

// Over every octant the angles are those of the point (theta from +z, phi from +x toward +y in
// [0, 2 pi]) to a few ulps, plus the conditioning of acos near the poles. Three branches also
// round a double-precision expression once while the others stay in single precision; the last
// bits of every later result depend on which is which, so those are checked exactly.
TEST(SphericalCoordinates, AnglesInEveryOctantAndMixedPrecisionBranches) {
    const shref::Points p = shref::ball_points(20000, 3.0f, 11);
    int phiDoubleDiffers = 0;
    for (int i = 0; i < p.size(); ++i) {
        const float x = p.x[i], y = p.y[i], z = p.z[i];
        float o[3];
        getRadiusThetaPhi(x, y, z, o);
        const double r = std::sqrt(double(x) * x + double(y) * y + double(z) * z);
        const double theta = std::acos(z / r);
        const double phi = std::atan2(y, x) + (y < 0 ? 2 * kPi : 0.0);
        EXPECT_NEAR(o[0], r, 4 * u * r);
        // The exact checks below restate the rounding; these tie them to the true angles.
        EXPECT_NEAR(o[1], theta, 32 * u / std::max(std::sin(theta), 1e-3)) << i;
        EXPECT_NEAR(o[2], phi, 32 * u) << x << " " << y;

        const float rf = std::sqrt((x * x + y * y) + z * z);
        // The theta sum of two floats is exact in double: only the quotient and asin must stay
        // in single precision.
        EXPECT_EQ(o[1], z > 0
                            ? std::acos(z / rf)
                            : static_cast<float>(double(std::asin(-z / rf)) + 1.5707963705062866));
        float want = std::atan(y / x) + (x < 0 ? 3.1415927f : 0.0f), singleOnly = want;
        if (x > 0 && y < 0) {
            want = static_cast<float>(std::atan(double(y) / x) + 6.2831854820251465);
            singleOnly = std::atan(y / x) + 6.2831855f;
        } else if (x < 0 && y >= 0) {
            want = static_cast<float>(std::atan(double(y) / x) + 3.1415927410125732);
        }
        EXPECT_EQ(o[2], want) << x << " " << y;
        phiDoubleDiffers += want != singleOnly;
    }
    EXPECT_GT(phiDoubleDiffers, 100);  // a pure single-precision phi would fail
}

TEST(HarmonicTerms, RadialFactorAndAzimuthalTerms) {
    EXPECT_EQ(radialFactor(0.0f, 2.0f, 0), 1.0f);
    EXPECT_EQ(radialFactor(0.0f, 2.0f, 3), 0.0f);
    EXPECT_EQ(radialFactor(3.0f, 2.0f, 2), 2.25f);
    EXPECT_TRUE(std::isinf(radialFactor(1.0f, 0.0f, 1)));
    EXPECT_TRUE(std::isnan(radialFactor(0.0f, 0.0f, 1)));
    for (int n = 0; n <= 16; ++n) {
        const double want = std::pow(static_cast<double>(0.73f / 0.9f), n);
        EXPECT_NEAR(radialFactor(0.73f, 0.9f, n), want, (n + 1) * u * want) << n;
    }
    for (int m = 0; m <= 11; ++m) {
        const float phi = 2.1f, P = -1.5f;
        const double radial = 0.125 * P, angle = m * double(phi);
        // m * phi is rounded to float (up to |m phi| unit roundoffs of angle), then the sine or
        // cosine and two products each add about one more.
        const double tol = (angle + 4) * u * std::abs(radial);
        EXPECT_NEAR(funcYS(3, m, 0.5f, phi, 1.0f, P), std::sin(angle) * radial, tol) << m;
        EXPECT_NEAR(funcYC(3, m, 0.5f, phi, 1.0f, P), std::cos(angle) * radial, tol) << m;
    }
}

// The series' batched sine/cosine must give libm's sincosf bits for every argument: a sampled
// sweep of all floats below 128 in magnitude (both signs; the driver's m * phi stays below 70)
// with every length modulo four, then the arguments libm treats apart (tiny, huge, inf, NaN).
TEST(SineCosinePairs, BitIdenticalToLibm) {
    std::vector<float> a;
    for (uint32_t bits = 0; bits < 0x43000000u; bits += 251) {
        float v;
        std::memcpy(&v, &bits, sizeof v);
        a.push_back(v);
        a.push_back(-v);
    }
    for (float v : {0x1p-12f, 0x1.fffffep-13f, 1e-40f, 119.99999f, 120.0f, 1e30f, INFINITY,
                    -INFINITY, NAN, 0.0f, -0.0f})
        a.push_back(v);
    for (int q = 1; q < 80; ++q) a.push_back(static_cast<float>(q * kPi / 2));
    std::vector<float> s(a.size()), c(a.size());
    for (int tail = 0; tail < 4; ++tail) {
        const int n = static_cast<int>(a.size()) - tail;
        mrkit::geometry::sincos_many(a.data(), n, s.data(), c.data());
        for (int i = 0; i < n; ++i) {
            float sr, cr;
            sincosf(a[i], &sr, &cr);
            ASSERT_EQ(std::memcmp(&sr, &s[i], sizeof sr), 0) << a[i];
            ASSERT_EQ(std::memcmp(&cr, &c[i], sizeof cr), 0) << a[i];
        }
    }
}

// The four lanes are dropped silently when their check against libm fails; on glibc with AVX2
// and FMA (this project's hosts) that would only show as a slower series, so say it here.
TEST(SineCosinePairs, FourLanesInUseOnGlibcWithFma) {
#if defined(__x86_64__) && defined(__GLIBC__)
    if (!mrkit::has_avx2() || !mrkit::has_fma()) GTEST_SKIP() << "no AVX2 and FMA here";
    EXPECT_TRUE(mrkit::geometry::sincos_many_is_vectorised());
#else
    GTEST_SKIP() << "the four-lane series exist only on x86-64 with glibc";
#endif
}
