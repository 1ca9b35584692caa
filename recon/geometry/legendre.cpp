// Spherical-harmonic building blocks: associated Legendre values and their table, spherical
// coordinates of a point, and the radial and azimuthal factors of one harmonic term.
// Single precision except where a step is written in double: those steps fix the last bits.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "recon/geometry/legendre_block.hpp"
#include "recon/recon.hpp"

using namespace mrkit::geometry;

float plgndr(int l, int m, float x) {
    // _Exit rather than exit: this may run on a worker thread, and no exit handler or static
    // destructor should start while other threads are still using what they tear down.
    if (m < 0 || m > l || std::fabs(x) > 1.0f) std::_Exit(1);
    float pmm = 1.0f;
    if (m > 0) {
        const float somx2 = sqrt_one_minus_square(x);
        float fact = 1.0f;
        for (int i = 0; i < m; ++i) pmm = next_order(pmm, fact, somx2);
    }
    if (l == m) return pmm;
    float pmmp1 = first_degree_step(m, x, pmm);
    if (l == m + 1) return pmmp1;
    float pll = 0.0f;
    for (int ll = m + 2; ll <= l; ++ll) {
        pll = next_degree(ll, m, x, pmmp1, pmm);
        pmm = pmmp1;
        pmmp1 = pll;
    }
    return pll;
}

void mrkit::geometry::legendre_block(int nDegrees, int nOrders, float x, float* out,
                                     int nDegreesAboveZero) {
    auto at = [&](int m, int l) -> float& {
        return out[static_cast<std::ptrdiff_t>(m) * nDegrees + l];
    };
    const float somx2 = nOrders > 1 ? sqrt_one_minus_square(x) : 0.0f;
    float pmm = 1.0f, fact = 1.0f;
    for (int m = 0; m < nOrders; ++m) {
        if (m > 0) pmm = next_order(pmm, fact, somx2);
        for (int l = 0; l < std::min(m, nDegrees); ++l) at(m, l) = 0.0f;
        if (m < nDegrees) at(m, m) = pmm;
        if (m + 1 < nDegrees) at(m, m + 1) = first_degree_step(m, x, pmm);
    }
    // Degree outermost: the orders' recurrences are independent, so their divisions overlap.
    for (int ll = 2; ll < nDegrees; ++ll)
        for (int m = 0; m < (ll < nDegreesAboveZero ? nOrders : 1) && m + 2 <= ll; ++m)
            at(m, ll) = next_degree(ll, m, x, at(m, ll - 1), at(m, ll - 2));
}

void create_plgndr_lookup(int nDegrees, int nOrders, int nSamples, float* table) {
    const float step = 2.0f / static_cast<float>(nSamples - 1);
    if (nSamples < 1) return;
    const std::ptrdiff_t stride = static_cast<std::ptrdiff_t>(nOrders) * nDegrees;
    for (int s = 0; s < nSamples; ++s) {
        const float x = static_cast<float>(s) * step - 1.0f;
        float* row = table + s * stride;
        // The last sample may round to just above 1: it is zeroed, not an exit.
        if (std::fabs(x) <= 1.0f)
            legendre_block(nDegrees, nOrders, x, row, nDegrees);
        else
            std::fill(row, row + stride, 0.0f);
    }
}

void getRadiusThetaPhi(float x, float y, float z, float* out) {
    const float r = std::sqrt((x * x + y * y) + z * z);

    float theta;
    if (z > 0.0f)
        theta = std::acos(z / r);
    else if (z == 0.0f)
        theta = 1.5707964f;  // also the origin: no division by r = 0
    else                     // z < 0 or NaN
        theta = static_cast<float>(static_cast<double>(std::asin(-z / r)) + 1.5707963705062866);

    float phi;
    if (x == 0.0f) {
        phi = y < 0.0f ? 4.712389f : (y > 0.0f ? 1.5707964f : 0.0f);
    } else if (x > 0.0f) {
        if (y >= 0.0f)
            phi = std::atan(y / x);
        else
            phi = static_cast<float>(std::atan(static_cast<double>(y) / x) + 6.2831854820251465);
    } else {
        if (y >= 0.0f)
            phi = static_cast<float>(std::atan(static_cast<double>(y) / x) + 3.1415927410125732);
        else
            phi = std::atan(y / x) + 3.1415927f;
    }

    out[0] = r;
    out[1] = theta;
    out[2] = phi;
}

float radialFactor(float r, float r0, int n) {
    // Repeated multiplication, not pow: the driver builds its powers the same way, one factor
    // at a time, and the two must agree to the bit.
    const float q = r / r0;
    float p = 1.0f;
    for (int i = 0; i < n; ++i) p = p * q;
    return p;
}

float funcYS(int n, int m, float r, float phi, float r0, float P) {
    return std::sin(static_cast<float>(m) * phi) * (radialFactor(r, r0, n) * P);
}

float funcYC(int n, int m, float r, float phi, float r0, float P) {
    return std::cos(static_cast<float>(m) * phi) * (radialFactor(r, r0, n) * P);
}
