// Gradient non-linearity correction: the full series (linear and higher-order terms) agrees with
// an independent double-precision evaluation, the table/direct switch and row choice are exact,
// and the result does not depend on the thread count.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "recon/recon.hpp"
#include "support/bits.hpp"
#include "support/sh_reference.hpp"
#include "support/threads.hpp"

namespace {

using shref::CoefficientSet;
using shref::Points;

constexpr double u = 0x1p-24;             // unit roundoff of float
constexpr double kStep = 2.0 / 9999.0;    // table spacing in cos(theta)
constexpr float kStepF = 2.0f / 9999.0f;  // the same as the table builds it

struct Output {
    std::vector<float> x, y, z;
};

Output correct(const Points& p, const CoefficientSet& set, float r0) {
    Output o{std::vector<float>(p.size()), std::vector<float>(p.size()),
             std::vector<float>(p.size())};
    MR_geometry_correction(p.x.data(), p.y.data(), p.z.data(), o.x.data(), o.y.data(), o.z.data(),
                           p.size(), set.sin, set.cos, set.z, r0);
    return o;
}

// Points through the ball of radius r0 plus the places where the evaluation changes: origin,
// poles, axes, next to the z axis, and cos(theta) around the table/direct switch at +-0.9.
Points test_points(float r0, int n) {
    Points p = shref::ball_points(n, r0, 2024);
    p.add(0, 0, 0);
    for (float s : {1.0f, -1.0f}) {
        p.add(0, 0, s * r0);
        p.add(s * r0, 0, 0);
        p.add(0, s * r0, 0);
        p.add(s * 1e-4f * r0, 0, r0);
        p.add(0, s * 3e-3f * r0, -0.5f * r0);
        for (double c : {0.8999, 0.89999999, 0.9, 0.90000001, 0.9001}) {
            const double st = std::sqrt(1 - c * c);
            p.add(static_cast<float>(0.6 * r0 * st), static_cast<float>(-0.8 * r0 * st),
                  static_cast<float>(s * r0 * c));
        }
    }
    return p;
}

// How far the library may be from the exact result, given how it computes:
// * Its float cos(theta) is within dc = 12 u of the exact z / r: r carries about 3 roundings
//   and z / r one more (4 u); acos, or asin plus pi/2 rounded from double, is good to an ulp of
//   theta (5 u times sin theta in the cosine); the cosine itself adds one.
// * Near the poles (direct evaluation) a Legendre value may therefore differ from the exact one
//   by its change over [c - dc, c + dc]. Next to the z axis this limits x and y: there
//   sin(theta) = sqrt(1 - c^2) moves by up to sqrt(2 dc), about 1e-3, while c moves by dc.
// * Elsewhere the table gives the value at the sample at or below the float cosine, up to a
//   step below it: the change over [c - step - dc - 4 u, c + dc].
// * Each term also carries relative roundings: the recurrence (8 n + 3 m + 2 u of the size of
//   its degree family, as in the Legendre test), (r / r0)^n (5 n u), m * phi in float and its
//   sine or cosine (15 m u), the products, and the running sum of 88 terms (88 u). Together
//   (16 n + 20 m + 128) u of the family size cover them.
constexpr double dc = 12 * u;

// Largest change of P_n^m from its value at c over [lo, hi] (sampled: the interval is short
// against the scale, 1 / 16, on which these functions turn).
double spread(int n, int m, double c, double lo, double hi) {
    lo = std::max(lo, -1.0);
    hi = std::min(hi, 1.0);
    double d = 0.0;
    for (int i = 0; i <= 8; ++i)
        d = std::max(
            d, std::abs(shref::legendre(n, m, lo + (hi - lo) * i / 8) - shref::legendre(n, m, c)));
    return d;
}

std::array<double, 3> error_bound(const CoefficientSet& set, double x, double y, double z,
                                  double r0) {
    const double r = std::sqrt(x * x + y * y + z * z);
    if (r == 0.0) return {0.0, 0.0, 0.0};
    const double c = z / r, q = r / r0;
    // Near the switch either evaluation may have been chosen; the table interval covers both.
    const bool table = std::abs(c) < 0.9 + dc;
    const double lo = table ? c - kStep - dc - 4 * u : c - dc, hi = c + dc;
    auto term = [&](float coef, int n, int m) {
        if (coef == 0.0f) return 0.0;
        double family = 0.0;
        for (int k = m; k <= n; ++k) family = std::max(family, std::abs(shref::legendre(k, m, c)));
        return std::abs(coef) * std::pow(q, n) *
               (spread(n, m, c, lo, hi) + (16.0 * n + 20.0 * m + 128.0) * u * family);
    };
    double b[3] = {0.0, 0.0, 0.0};
    for (int m = 1; m <= shref::kMaxOrder; ++m)
        for (int n = m; n <= shref::kMaxDegreeXY; ++n) {
            b[0] += term(set.cos[n][m], n, m);
            b[1] += term(set.sin[n][m], n, m);
        }
    for (int n = 1; n <= shref::kMaxDegreeZ; ++n) b[2] += term(set.z[n][0], n, 0);
    return {r0 * b[0] / std::abs(set.cos[1][1]), r0 * b[1] / std::abs(set.sin[1][1]),
            r0 * b[2] / std::abs(set.z[1][0])};
}

// The distorted set plus values in every entry the expansion limits exclude (order 0, degree
// 0, orders above the degree): none may count.
CoefficientSet distorted_with_ignored_entries() {
    CoefficientSet set = shref::distorted_set();
    for (int n = 0; n <= shref::kMaxDegreeXY; ++n)
        for (int m = 0; m < 12; ++m)
            if (n == 0 || m == 0 || m > n) set.cos[n][m] = set.sin[n][m] = 1000.0f + n + m;
    set.z[0][0] = 1000.0f;
    return set;
}

}  // namespace

// A few higher-order terms, up to degree 13 order 11 across and degree 16 along z, against the
// double-precision series in tests/support within error_bound(): on the table mostly the
// change of each term over one table step, near the poles the conditioning of the cosine.
TEST(GeometryCorrection, HigherOrderTermsMatchDoubleSeries) {
    const float r0 = 250.0f;
    const Points p = test_points(r0, 20000);
    const CoefficientSet set = distorted_with_ignored_entries();
    const Output o = correct(p, set, r0);
    double maxBound = 0.0, maxDistortion = 0.0;
    int failures = 0;
    for (int i = 0; i < p.size(); ++i) {
        const auto want = shref::series(set, p.x[i], p.y[i], p.z[i], r0);
        const auto bound = error_bound(set, p.x[i], p.y[i], p.z[i], r0);
        const float got[3] = {o.x[i], o.y[i], o.z[i]}, in[3] = {p.x[i], p.y[i], p.z[i]};
        for (int a = 0; a < 3; ++a) {
            if (!(std::abs(got[a] - want[a]) <= bound[a]) && ++failures <= 5)
                ADD_FAILURE() << "point " << i << " axis " << a << ": " << got[a] << " vs "
                              << want[a] << " (bound " << bound[a] << ")";
            if (in[0] == 0 && in[1] == 0 && a < 2) {  // every order m >= 1 vanishes on the axis
                EXPECT_EQ(got[a], 0.0f) << "z axis " << in[2];
            }
            maxBound = std::max(maxBound, bound[a]);
            maxDistortion = std::max(maxDistortion, std::abs(want[a] - in[a]));
        }
    }
    EXPECT_EQ(failures, 0);
    // The terms move points by far more than the tolerance, so the comparison sees them.
    EXPECT_LT(maxBound, 2e-3 * r0);
    EXPECT_GT(maxDistortion, 10 * maxBound);
}

// With r = r0 = 1, every linear coefficient 1 and the point at phi = 0, zOut is the P_1^0 value
// the evaluation used and xOut minus its P_1^1 value, which shows the argument it took.
TEST(GeometryCorrection, TableRowIsTheSampleAtOrBelowAndPolesAreDirect) {
    const CoefficientSet set = shref::linear_set(1.0f, 1.0f, 1.0f);
    struct Probe {
        float c, xOut, zOut;
    };
    // The first point of the unit sphere (float radius exactly 1, phi = 0) near z = zNear whose
    // float cosine satisfies `want`, corrected alone.
    auto probe = [&](float zNear, auto want) {
        for (float toward : {2.0f, -2.0f}) {
            float zc = zNear;
            for (int i = 0; i < 64; ++i, zc = std::nextafter(zc, toward)) {
                float xc = std::nextafter(std::nextafter(std::sqrt(1.0f - zc * zc), 0.0f), 0.0f);
                for (int j = 0; j < 5; ++j, xc = std::nextafter(xc, 2.0f)) {
                    float o[3], y = 0.0f, xOut, yOut, zOut;
                    getRadiusThetaPhi(xc, 0.0f, zc, o);
                    if (o[0] != 1.0f || !want(std::cos(o[1]))) continue;
                    MR_geometry_correction(&xc, &y, &zc, &xOut, &yOut, &zOut, 1, set.sin, set.cos,
                                           set.z, 1.0f);
                    EXPECT_EQ(yOut, 0.0f);
                    return Probe{std::cos(o[1]), xOut, zOut};
                }
            }
        }
        ADD_FAILURE() << "no unit point near z = " << zNear;
        return Probe{NAN, NAN, NAN};
    };
    auto expect_sample = [](const Probe& p, int s) {
        const float xs = static_cast<float>(s) * kStepF - 1.0f;
        EXPECT_EQ(p.zOut, xs) << "c=" << p.c << " expected sample " << s;
        EXPECT_EQ(p.xOut, -plgndr(1, 1, xs)) << "c=" << p.c << " expected sample " << s;
    };
    auto expect_direct = [](const Probe& p) {
        EXPECT_EQ(p.zOut, p.c);
        EXPECT_EQ(p.xOut, -plgndr(1, 1, p.c));
    };
    auto any = [](float) { return true; };

    // The sample at or below, never the nearest: cosines 0.3 and 0.7 of a step above sample s.
    for (int s : {500, 501, 1234, 4999, 5000, 7777, 9498}) {
        for (double frac : {0.3, 0.7}) {
            const Probe p = probe(static_cast<float>(-1.0 + (s + frac) * kStep), any);
            ASSERT_NEAR((p.c + 1.0) / kStep - s, frac, 0.01);  // far from a sample
            expect_sample(p, s);
        }
    }
    // The switch compares in double: 0.9f lies just below 0.9 and still uses the table, the
    // cosines just above 0.9 are evaluated directly; the same mirrored at -0.9.
    ASSERT_LT(static_cast<double>(0.9f), 0.9);
    expect_sample(probe(0.9f, [](float c) { return c == 0.9f; }), 9499);
    expect_direct(probe(0.9f, [](float c) { return c > 0.9f && c < 0.9000002f; }));
    expect_sample(probe(-0.9f, [](float c) { return c == -0.9f; }), 499);
    expect_direct(probe(-0.9f, [](float c) { return c < -0.9f && c > -0.9000002f; }));
    expect_direct(probe(0.99f, any));
    expect_direct(probe(-0.999f, any));
}

// The driver evaluates points in vectorised batches; the plain computation, one point and one
// step after another with the public building blocks, must give the same bits.
TEST(GeometryCorrection, BatchedEvaluationMatchesPlainLoopBitForBit) {
    const float r0 = 0.3f;
    const Points p = test_points(r0, 1003);  // not a multiple of the batch size
    const CoefficientSet set = distorted_with_ignored_entries();
    const Output o = correct(p, set, r0);
    std::vector<float> table(10000 * 12 * 17);
    create_plgndr_lookup(17, 12, 10000, table.data());
    float pc[204], ps[204], pz[204];
    realign_corr_coeffs(pc, ps, pz, 12, 14, 17, set.cos, set.sin, set.z);
    int mismatches = 0;
    for (int i = 0; i < p.size(); ++i) {
        float sph[3];
        getRadiusThetaPhi(p.x[i], p.y[i], p.z[i], sph);
        const float r = sph[0], phi = sph[2], c = std::cos(sph[1]);
        const bool direct = double(c) <= -0.9 || double(c) >= 0.9;
        const int s = std::clamp(static_cast<int>((c + 1.0f) / 0.00020002000383101404f), 0, 9999);
        auto P = [&](int n, int m) {
            return direct ? plgndr(n, m, c) : table[(s * 12 + m) * 17 + n];
        };
        float accCos = 0.0f, accSin = 0.0f, accZ = 0.0f;
        for (int m = 1, k = 0; m <= 11; ++m) {
            const float sn = std::sin(float(m) * phi), cs = std::cos(float(m) * phi);
            const float sign = static_cast<float>(std::pow(-1.0, m));
            for (int n = m; n <= 13; ++n, ++k) {
                const float t = (P(n, m) * sign) * radialFactor(r, r0, n);
                accCos = accCos + (cs * t) * pc[k];
                accSin = accSin + (t * sn) * ps[k];
            }
        }
        const float cz = std::cos(phi * 0.0f);
        for (int n = 1; n <= 16; ++n)
            accZ = accZ + ((P(n, 0) * radialFactor(r, r0, n)) * cz) * pz[n - 1];
        const float want[3] = {(r0 / set.cos[1][1]) * accCos, (r0 / set.sin[1][1]) * accSin,
                               (r0 / set.z[1][0]) * accZ};
        const float got[3] = {o.x[i], o.y[i], o.z[i]};
        if (std::memcmp(got, want, sizeof got) != 0 && ++mismatches <= 5)
            ADD_FAILURE() << "point " << i << ": " << got[0] << " " << got[1] << " " << got[2]
                          << " vs " << want[0] << " " << want[1] << " " << want[2];
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(GeometryCorrection, SameBitsWithOneTwoAndThreeThreadsAndNothingForNoPoints) {
    const Points p = test_points(1.0f, 10007);
    const CoefficientSet set = shref::distorted_set();
    const Output one = with_threads(1, [&] { return correct(p, set, 1.0f); });
    for (int threads : {2, 3}) {
        const Output many = with_threads(threads, [&] { return correct(p, set, 1.0f); });
        EXPECT_TRUE(same_bits(one.x, many.x)) << threads;
        EXPECT_TRUE(same_bits(one.y, many.y)) << threads;
        EXPECT_TRUE(same_bits(one.z, many.z)) << threads;
    }
    // No points: the tables are built and released, nothing is written.
    float sentinel[3] = {7.0f, 8.0f, 9.0f};
    MR_geometry_correction(nullptr, nullptr, nullptr, &sentinel[0], &sentinel[1], &sentinel[2], 0,
                           set.sin, set.cos, set.z, 1.0f);
    EXPECT_EQ(sentinel[0], 7.0f);
    EXPECT_EQ(sentinel[1], 8.0f);
    EXPECT_EQ(sentinel[2], 9.0f);
}
