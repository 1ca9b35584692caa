// Shared pieces of the associated-Legendre recurrence. plgndr, the lookup table and the
// driver's direct evaluation all go through these, so every path rounds in the same order and
// a table entry is bit-identical to the plgndr call it replaces.
#pragma once

#include <cmath>

namespace mrkit::geometry {

// sqrt(1 - x^2) as (1 + x)(1 - x) in double: the one double step of the recurrence.
inline float sqrt_one_minus_square(float x) {
    return static_cast<float>(std::sqrt((1.0 + x) * (1.0 - x)));
}

// P_m^m from P_{m-1}^{m-1}; fact runs through the odd numbers 1, 3, 5, ...
inline float next_order(float pmm, float& fact, float somx2) {
    pmm = pmm * (-fact * somx2);
    fact = fact + 2.0f;
    return pmm;
}

// P_{m+1}^m from P_m^m.
inline float first_degree_step(int m, float x, float pmm) {
    return (static_cast<float>(2 * m + 1) * x) * pmm;
}

// P_ll^m from the two degrees below it.
inline float next_degree(int ll, int m, float x, float pm1, float pm2) {
    return (static_cast<float>(2 * ll - 1) * x * pm1 - static_cast<float>(ll + m - 1) * pm2) /
           static_cast<float>(ll - m);
}

// Every P_l^m(x) for m < nOrders, l < nDegrees at out[m * nDegrees + l] (0 where m > l), one
// pass of the recurrence per order instead of one plgndr call per entry. Orders above 0 stop
// below degree nDegreesAboveZero when that is smaller (their higher entries are left as they
// were). Needs |x| <= 1.
void legendre_block(int nDegrees, int nOrders, float x, float* out, int nDegreesAboveZero);

}  // namespace mrkit::geometry
