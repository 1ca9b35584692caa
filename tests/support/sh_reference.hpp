// Straightforward double-precision evaluation of the gradient spherical-harmonic series, written
// independently of the library (standard-library Legendre functions, atan2, pow), plus the
// coefficient sets and point clouds the geometry tests and the benchmark share.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace shref {

constexpr int kMaxOrder = 11;     // transverse orders 1..11
constexpr int kMaxDegreeXY = 13;  // transverse degrees m..13
constexpr int kMaxDegreeZ = 16;   // zonal degrees 1..16

// Coefficient matrices shaped as the library reads them (rows by degree, columns by order).
struct CoefficientSet {
    float sin[kMaxDegreeXY + 1][12] = {};
    float cos[kMaxDegreeXY + 1][12] = {};
    float z[kMaxDegreeZ + 1][1] = {};
};

// P_n^m(x) without the Condon-Shortley sign, i.e. (-1)^m times the library's convention.
inline double legendre(int n, int m, double x) {
    return std::assoc_legendre(static_cast<unsigned>(n), static_cast<unsigned>(m),
                               std::clamp(x, -1.0, 1.0));
}

// Largest |P_n^m| on [-1, 1], sampled finely enough to size a coefficient by.
inline double legendre_peak(int n, int m) {
    double peak = 0.0;
    for (int i = 0; i <= 4000; ++i) peak = std::max(peak, std::abs(legendre(n, m, i / 2000.0 - 1)));
    return peak;
}

// Linear terms only: every field is an ideal gradient.
inline CoefficientSet linear_set(float cosLinear, float sinLinear, float zLinear) {
    CoefficientSet set;
    set.cos[1][1] = cosLinear;
    set.sin[1][1] = sinLinear;
    set.z[1][0] = zLinear;
    return set;
}

// A few higher-order terms on top of the linear ones, each sized to move a point on the
// reference sphere by the given fraction of r0; includes the highest degree and order of each
// series so that the expansion limits are exercised.
inline CoefficientSet distorted_set() {
    CoefficientSet set = linear_set(0.8f, 1.25f, 1.1f);
    struct Term {
        int n, m;
        double fraction;
    };
    const Term cosTerms[] = {{2, 2, 0.015}, {3, 1, 0.03}, {5, 3, -0.02}, {13, 11, 0.01}};
    const Term sinTerms[] = {{3, 1, 0.025}, {4, 2, -0.02}, {11, 11, 0.01}, {13, 7, -0.01}};
    const Term zTerms[] = {{3, 0, 0.03}, {5, 0, -0.02}, {16, 0, 0.01}};
    for (const Term& t : cosTerms)
        set.cos[t.n][t.m] =
            static_cast<float>(t.fraction * set.cos[1][1] / legendre_peak(t.n, t.m));
    for (const Term& t : sinTerms)
        set.sin[t.n][t.m] =
            static_cast<float>(t.fraction * set.sin[1][1] / legendre_peak(t.n, t.m));
    for (const Term& t : zTerms)
        set.z[t.n][0] = static_cast<float>(t.fraction * set.z[1][0] / legendre_peak(t.n, 0));
    return set;
}

struct Points {
    std::vector<float> x, y, z;
    void add(float px, float py, float pz) {
        x.push_back(px);
        y.push_back(py);
        z.push_back(pz);
    }
    int size() const { return static_cast<int>(x.size()); }
};

// n points uniformly inside the ball of radius r0, reproducible across platforms.
inline Points ball_points(int n, float r0, uint64_t seed) {
    auto next = [&seed]() {  // splitmix64 -> uniform in [-1, 1)
        uint64_t v = (seed += 0x9E3779B97F4A7C15ull);
        v = (v ^ (v >> 30)) * 0xBF58476D1CE4E5B9ull;
        v = (v ^ (v >> 27)) * 0x94D049BB133111EBull;
        return static_cast<double>((v ^ (v >> 31)) >> 11) * 0x1.0p-52 - 1.0;
    };
    Points p;
    while (p.size() < n) {
        const double a = next(), b = next(), c = next();
        if (a * a + b * b + c * c <= 1.0)
            p.add(static_cast<float>(a * r0), static_cast<float>(b * r0),
                  static_cast<float>(c * r0));
    }
    return p;
}

// The three fields at (x, y, z), each normalised by its linear coefficient and scaled by r0:
// the encoded position.
inline std::array<double, 3> series(const CoefficientSet& set, double x, double y, double z,
                                    double r0) {
    const double r = std::sqrt(x * x + y * y + z * z);
    if (r == 0.0) return {0.0, 0.0, 0.0};
    const double ct = z / r, phi = std::atan2(y, x), q = r / r0;
    double sx = 0.0, sy = 0.0, sz = 0.0;
    for (int m = 1; m <= kMaxOrder; ++m) {
        for (int n = m; n <= kMaxDegreeXY; ++n) {
            const double radial = legendre(n, m, ct) * std::pow(q, n);
            sx += set.cos[n][m] * std::cos(m * phi) * radial;
            sy += set.sin[n][m] * std::sin(m * phi) * radial;
        }
    }
    for (int n = 1; n <= kMaxDegreeZ; ++n) sz += set.z[n][0] * legendre(n, 0, ct) * std::pow(q, n);
    return {r0 * sx / set.cos[1][1], r0 * sy / set.sin[1][1], r0 * sz / set.z[1][0]};
}

}  // namespace shref
