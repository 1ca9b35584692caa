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

// The geometry driver's Legendre table: 10000 samples of cos(theta) over [-1, 1], looked up at
// the sample at or below the argument, and evaluated directly where |cos(theta)| >= 0.9.
constexpr int kTableSamples = 10000;
constexpr float kTableStep = 0.00020002000383101404f;  // 2 / 9999 as the table builds it

inline bool table_is_direct(float c) {
    const double cd = c;
    return cd <= -0.9 || cd >= 0.9;
}

// Nearest table sample at or below c (truncation, no interpolation), kept in range. Clamping
// in float before the conversion gives the same row as truncate-then-clamp for every c, and a
// NaN lands on row 0 instead of an undefined conversion.
inline int table_row(float c) {
    const float q = (c + 1.0f) / kTableStep;
    if (q >= static_cast<float>(kTableSamples - 1)) return kTableSamples - 1;
    return q > 0.0f ? static_cast<int>(q) : 0;
}

// The argument table row s stands for, as create_plgndr_lookup forms it.
inline float table_argument(int s) {
    return static_cast<float>(s) * (2.0f / static_cast<float>(kTableSamples - 1)) - 1.0f;
}

}  // namespace mrkit::geometry
