// Gradient non-linearity correction: ideal gradients return every point, higher-order terms
// agree with an independent double-precision series, the table/direct switch and row choice,
// the exact bits of the per-point evaluation, and independence of the thread count.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "recon/recon.hpp"
#include "support/sh_reference.hpp"

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
// poles, axes, near the z axis, and cos(theta) around the table/direct switch at +-0.9.
Points test_points(float r0, int n) {
    Points p = shref::ball_points(n, r0, 2024);
    p.add(0, 0, 0);
    for (float s : {1.0f, -1.0f}) {
        p.add(0, 0, s * r0);
        p.add(s * r0, 0, 0);
        p.add(0, s * r0, 0);
        p.add(s * 1e-4f * r0, 0, r0);
        p.add(0, s * 3e-3f * r0, -0.5f * r0);
        p.add(s * 0.3f * r0, 0.2f * r0, s * 1e-6f * r0);
        for (double c : {0.8999, 0.89999999, 0.9, 0.90000001, 0.9001}) {
            const double st = std::sqrt(1 - c * c);
            p.add(static_cast<float>(0.6 * r0 * st), static_cast<float>(-0.8 * r0 * st),
                  static_cast<float>(s * r0 * c));
        }
    }
    return p;
}

// How far the library may be from the exact result, from how it computes:
//
// * cos(theta) in float differs from the exact z / r by at most dc = 12 u: r carries about 3
//   roundings and z / r one more (4 u); acos, or asin plus pi/2 rounded from double, is good to
//   an ulp of theta (at most 5 u times sin theta in the cosine); cos itself adds one.
// * Near the poles the Legendre values are evaluated at that cosine: a value there may differ
//   from its exact value by its change over [c - dc, c + dc]. Near the z axis this is what
//   limits x and y: sin(theta) = sqrt(1 - c^2) moves by up to sqrt(2 dc) (about 1e-3) when c
//   is within dc of 1.
// * Elsewhere the table gives the value at the sample at or below the float cosine, up to one
//   step below it: the change of the function over [c - step - dc - 4 u, c + dc].
// * Each term then carries relative roundings: the recurrence (8 n + 3 m + 2 u of the local
//   size of its degree family, see the Legendre test), (r / r0)^n (5 n u), m * phi in float
//   and its sine or cosine (about 15 m u), the products, and the running sum of 88 terms
//   (88 u); (16 n + 20 m + 128) u of the family size covers them all.
constexpr double dc = 12 * u;

double family_size(int n, int m, double c) {
    double a = 0.0;
    for (int k = m; k <= n; ++k) a = std::max(a, std::abs(shref::legendre(k, m, c)));
    return a;
}

// Largest change of P_n^m from its value at c over [lo, hi], sampled finely enough for an
// interval this short (the functions are smooth on the scale of 1 / 16).
double spread(int n, int m, double c, double lo, double hi) {
    lo = std::max(lo, -1.0);
    hi = std::min(hi, 1.0);
    const double at = shref::legendre(n, m, c);
    double d = 0.0;
    for (int i = 0; i <= 8; ++i)
        d = std::max(d, std::abs(shref::legendre(n, m, lo + (hi - lo) * i / 8) - at));
    return d;
}

std::array<double, 3> error_bound(const CoefficientSet& set, double x, double y, double z,
                                  double r0) {
    const double r = std::sqrt(x * x + y * y + z * z);
    if (r == 0.0) return {0.0, 0.0, 0.0};
    const double c = z / r, q = r / r0;
    // Which evaluation the float cosine chose is certain only away from the switch.
    const bool table = std::abs(c) < 0.9 + dc;
    const double lo = table ? c - kStep - dc - 4 * u : c - dc, hi = c + dc;
    auto term = [&](float coef, int n, int m) {
        if (coef == 0.0f) return 0.0;
        const double rho = (16.0 * n + 20.0 * m + 128.0) * u;
        return std::abs(coef) * std::pow(q, n) *
               (spread(n, m, c, lo, hi) + rho * family_size(n, m, c));
    };
    double bx = 0.0, by = 0.0, bz = 0.0;
    for (int m = 1; m <= shref::kMaxOrder; ++m)
        for (int n = m; n <= shref::kMaxDegreeXY; ++n) {
            bx += term(set.cos[n][m], n, m);
            by += term(set.sin[n][m], n, m);
        }
    for (int n = 1; n <= shref::kMaxDegreeZ; ++n) bz += term(set.z[n][0], n, 0);
    return {r0 * bx / std::abs(set.cos[1][1]), r0 * by / std::abs(set.sin[1][1]),
            r0 * bz / std::abs(set.z[1][0])};
}

// The evaluation of one point written out plainly, one step after another, with the public
// building blocks: the batched, vectorised driver must give exactly these bits.
std::array<float, 3> plain_point(const std::vector<float>& table, const CoefficientSet& set,
                                 float x, float y, float z, float r0) {
    float pc[204], ps[204], pz[204];
    realign_corr_coeffs(pc, ps, pz, 12, 14, 17, set.cos, set.sin, set.z);
    float o[3];
    getRadiusThetaPhi(x, y, z, o);
    const float r = o[0], phi = o[2], c = std::cos(o[1]);
    const bool direct = static_cast<double>(c) <= -0.9 || static_cast<double>(c) >= 0.9;
    const int s = std::clamp(static_cast<int>((c + 1.0f) / 0.00020002000383101404f), 0, 9999);
    auto P = [&](int n, int m) { return direct ? plgndr(n, m, c) : table[(s * 12 + m) * 17 + n]; };
    float accCos = 0.0f, accSin = 0.0f, accZ = 0.0f;
    for (int m = 1, k = 0; m <= 11; ++m) {
        const float sn = std::sin(static_cast<float>(m) * phi);
        const float cs = std::cos(static_cast<float>(m) * phi);
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
    return {(r0 / set.cos[1][1]) * accCos, (r0 / set.sin[1][1]) * accSin,
            (r0 / set.z[1][0]) * accZ};
}

// Every field term on top of the distorted set, plus values in every entry the expansion
// limits exclude (order 0, degree 0, orders above the degree, rows past 13): none may count.
CoefficientSet distorted_with_ignored_entries() {
    CoefficientSet set = shref::distorted_set();
    for (int n = 0; n <= shref::kMaxDegreeXY; ++n)
        for (int m = 0; m < 12; ++m)
            if (n == 0 || m == 0 || m > n) set.cos[n][m] = set.sin[n][m] = 1000.0f + n + m;
    set.z[0][0] = 1000.0f;
    return set;
}

}  // namespace

TEST(CorrectionPacking, OrdersOuterDegreesInnerZonalFromDegreeOne) {
    float first[14][12], second[14][12], zm[17][1];
    for (int n = 0; n < 14; ++n)
        for (int m = 0; m < 12; ++m) {
            first[n][m] = 100.0f * n + m;
            second[n][m] = -(100.0f * n + m);
        }
    for (int n = 0; n < 17; ++n) zm[n][0] = 1000.0f + n;
    float pc[204], ps[204], pz[204];
    std::fill(pc, pc + 204, -1.0f);
    std::fill(ps, ps + 204, -1.0f);
    std::fill(pz, pz + 204, -1.0f);
    realign_corr_coeffs(pc, ps, pz, 12, 14, 17, first, second, zm);
    int k = 0;
    for (int m = 1; m <= 11; ++m)
        for (int n = m; n <= 13; ++n, ++k) {
            EXPECT_EQ(pc[k], 100.0f * n + m) << k;
            EXPECT_EQ(ps[k], -(100.0f * n + m)) << k;
        }
    EXPECT_EQ(k, 88);
    EXPECT_EQ(pc[88], -1.0f);  // nothing past the 88 pairs
    for (int n = 1; n <= 16; ++n) EXPECT_EQ(pz[n - 1], 1000.0f + n);
    EXPECT_EQ(pz[16], -1.0f);
}

// With only the linear coefficients (any values) each field is an ideal gradient and every
// point maps to itself. Bounds, for a point at radius r with exact cosine c:
// * direct evaluation (|c| >= 0.9): single-precision rounding only. z is off by at most the
//   cosine's error dc plus a few roundings; x and y by the change of sin(theta) over
//   [c - dc, c + dc] (up to sqrt(2 dc) right at the axis) plus 32 u of roundings.
// * table (|c| < 0.9): the sample used lies up to h = step + dc + 4 u below c. z = r P_1^0 is
//   off by at most r h, and never above by more than rounding, since the sample is at or below
//   c. x and y = r sqrt(1 - c^2) (cos, sin of phi) are off by at most r L h, with
//   L = 0.9 / sqrt(1 - 0.9^2) = 2.065 the steepest slope of sqrt(1 - c^2) on |c| <= 0.9
//   (2.07 allows for h reaching just past 0.9): about 4.2e-4 r.
TEST(GeometryCorrection, LinearCoefficientsReturnEveryPoint) {
    const float r0 = 250.0f;
    const Points p = test_points(r0, 20000);
    const CoefficientSet set = shref::linear_set(0.37f, -2.5f, 1.3f);
    const Output o = correct(p, set, r0);
    const double h = kStep + dc + 4 * u;
    int direct = 0, tabled = 0;
    for (int i = 0; i < p.size(); ++i) {
        const double x = p.x[i], y = p.y[i], z = p.z[i];
        const double r = std::sqrt(x * x + y * y + z * z);
        if (r == 0.0) {
            EXPECT_EQ(o.x[i], 0.0f);
            EXPECT_EQ(o.y[i], 0.0f);
            EXPECT_EQ(o.z[i], 0.0f);
            continue;
        }
        const double c = z / r, ac = std::abs(c);
        double bxy = 0.0, bzAbove = 0.0, bzBelow = 0.0;
        if (ac >= 0.9 - dc) {  // direct evaluation possible
            const double sinMove = std::max(
                std::abs(std::sqrt(std::max(0.0, 1 - std::pow(std::min(1.0, ac + dc), 2))) -
                         std::sqrt(1 - c * c)),
                std::abs(std::sqrt(1 - std::pow(ac - dc, 2)) - std::sqrt(1 - c * c)));
            bxy = std::max(bxy, r * (sinMove + 32 * u));
            bzAbove = bzBelow = r * (dc + 8 * u);
            ++direct;
        }
        if (ac < 0.9 + dc) {  // table possible
            bxy = std::max(bxy, r * (2.07 * h + 32 * u));
            bzBelow = std::max(bzBelow, r * (h + 8 * u));
            bzAbove = std::max(bzAbove, r * (dc + 8 * u));
            ++tabled;
        }
        EXPECT_NEAR(o.x[i], x, bxy) << i << ": " << x << " " << y << " " << z;
        EXPECT_NEAR(o.y[i], y, bxy) << i << ": " << x << " " << y << " " << z;
        EXPECT_LE(o.z[i] - z, bzAbove) << i << ": " << x << " " << y << " " << z;
        EXPECT_LE(z - o.z[i], bzBelow) << i << ": " << x << " " << y << " " << z;
    }
    EXPECT_GT(direct, 1000);
    EXPECT_GT(tabled, 10000);
    // On the z axis the transverse functions vanish: x and y come out exactly 0.
    for (int i = 0; i < p.size(); ++i)
        if (p.x[i] == 0 && p.y[i] == 0) {
            EXPECT_EQ(o.x[i], 0.0f) << p.z[i];
            EXPECT_EQ(o.y[i], 0.0f) << p.z[i];
        }
}

// A few higher-order terms (up to degree 13 order 11 across, degree 16 along z) against the
// double-precision series written independently in tests/support, within the per-point bound
// derived above error_bound(): on the table this is the change of each term's Legendre
// function over one table step, near the poles the conditioning of the float cosine.
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
        const float got[3] = {o.x[i], o.y[i], o.z[i]};
        const double in[3] = {p.x[i], p.y[i], p.z[i]};
        for (int a = 0; a < 3; ++a) {
            if (!(std::abs(got[a] - want[a]) <= bound[a]) && ++failures <= 5)
                ADD_FAILURE() << "point " << i << " axis " << a << ": " << got[a] << " vs "
                              << want[a] << " (bound " << bound[a] << ")";
            maxBound = std::max(maxBound, bound[a]);
            maxDistortion = std::max(maxDistortion, std::abs(want[a] - in[a]));
        }
    }
    EXPECT_EQ(failures, 0);
    // The test can see the terms: they move points by far more than the tolerance.
    EXPECT_LT(maxBound, 2e-3 * r0);
    EXPECT_GT(maxDistortion, 10 * maxBound);
}

// With r = r0 = 1, every linear coefficient 1 and the point at phi = 0, zOut is the P_1^0 value
// the evaluation used and xOut minus its P_1^1 value: that shows which argument was used.
TEST(GeometryCorrection, TableRowIsTheSampleAtOrBelowAndPolesAreDirect) {
    const CoefficientSet set = shref::linear_set(1.0f, 1.0f, 1.0f);
    struct Probe {
        float c, xOut, zOut;
    };
    // A point on the unit sphere (float radius exactly 1, phi = 0) near z = zNear whose float
    // cosine satisfies `want`, evaluated alone.
    auto probe = [&](float zNear, auto want) {
        for (float toward : {2.0f, -2.0f}) {
            float zc = zNear;
            for (int i = 0; i < 64; ++i, zc = std::nextafter(zc, toward)) {
                float xc = std::nextafter(std::nextafter(std::sqrt(1.0f - zc * zc), 0.0f), 0.0f);
                for (int j = 0; j < 5; ++j, xc = std::nextafter(xc, 2.0f)) {
                    float o[3];
                    getRadiusThetaPhi(xc, 0.0f, zc, o);
                    const float c = std::cos(o[1]);
                    if (o[0] != 1.0f || !want(c)) continue;
                    float y = 0.0f, xOut, yOut, zOut;
                    MR_geometry_correction(&xc, &y, &zc, &xOut, &yOut, &zOut, 1, set.sin, set.cos,
                                           set.z, 1.0f);
                    EXPECT_EQ(yOut, 0.0f);
                    return Probe{c, xOut, zOut};
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
            const double pos = (p.c + 1.0) / kStep;
            ASSERT_NEAR(pos - s, frac, 0.01);  // far from a sample: the row is certain
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

TEST(GeometryCorrection, BatchedEvaluationMatchesPlainLoopBitForBit) {
    const float r0 = 0.3f;
    const Points p = test_points(r0, 1003);  // not a multiple of the batch size
    const CoefficientSet set = distorted_with_ignored_entries();
    const Output o = correct(p, set, r0);
    std::vector<float> table(10000 * 12 * 17);
    create_plgndr_lookup(17, 12, 10000, table.data());
    int mismatches = 0;
    for (int i = 0; i < p.size(); ++i) {
        const auto want = plain_point(table, set, p.x[i], p.y[i], p.z[i], r0);
        const float got[3] = {o.x[i], o.y[i], o.z[i]};
        if (std::memcmp(got, want.data(), sizeof got) != 0 && ++mismatches <= 5)
            ADD_FAILURE() << "point " << i << ": " << got[0] << " " << got[1] << " " << got[2]
                          << " vs " << want[0] << " " << want[1] << " " << want[2];
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(GeometryCorrection, SameBitsWithOneTwoAndThreeThreads) {
    const float r0 = 1.0f;
    const Points p = test_points(r0, 10007);
    const CoefficientSet set = shref::distorted_set();
    const int saved = omp_get_max_threads();
    omp_set_num_threads(1);
    const Output one = correct(p, set, r0);
    for (int threads : {2, 3}) {
        omp_set_num_threads(threads);
        const Output many = correct(p, set, r0);
        const size_t bytes = p.size() * sizeof(float);
        EXPECT_EQ(std::memcmp(one.x.data(), many.x.data(), bytes), 0) << threads;
        EXPECT_EQ(std::memcmp(one.y.data(), many.y.data(), bytes), 0) << threads;
        EXPECT_EQ(std::memcmp(one.z.data(), many.z.data(), bytes), 0) << threads;
    }
    // Fewer points than threads: the idle thread must not write.
    omp_set_num_threads(2);
    Points single;
    single.add(0.1f, 0.2f, 0.3f);
    const Output a = correct(single, set, r0);
    omp_set_num_threads(1);
    const Output b = correct(single, set, r0);
    EXPECT_EQ(std::memcmp(a.x.data(), b.x.data(), sizeof(float)), 0);
    omp_set_num_threads(saved);
}

TEST(GeometryCorrection, OriginAxisAndEmptyInput) {
    const CoefficientSet set = distorted_with_ignored_entries();
    Points p;
    p.add(0, 0, 0);
    p.add(0, 0, 0.7f);
    p.add(0, 0, -0.7f);
    const Output o = correct(p, set, 1.0f);
    // Origin: every radial power above degree 0 vanishes.
    EXPECT_EQ(o.x[0], 0.0f);
    EXPECT_EQ(o.y[0], 0.0f);
    EXPECT_EQ(o.z[0], 0.0f);
    // On the z axis every Legendre function of order m >= 1 vanishes.
    for (int i : {1, 2}) {
        EXPECT_EQ(o.x[i], 0.0f);
        EXPECT_EQ(o.y[i], 0.0f);
        EXPECT_NEAR(o.z[i], shref::series(set, 0, 0, p.z[i], 1.0)[2], 1e-5);
    }
    // No points: the tables are built and released, nothing is written.
    float sentinel[3] = {7.0f, 8.0f, 9.0f};
    MR_geometry_correction(nullptr, nullptr, nullptr, &sentinel[0], &sentinel[1], &sentinel[2], 0,
                           set.sin, set.cos, set.z, 1.0f);
    EXPECT_EQ(sentinel[0], 7.0f);
    EXPECT_EQ(sentinel[1], 8.0f);
    EXPECT_EQ(sentinel[2], 9.0f);
}
