// Bit-for-bit comparison of float blocks (NaNs included), with the first difference reported.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

inline uint32_t float_bits(float x) {
    uint32_t b;
    std::memcpy(&b, &x, sizeof b);
    return b;
}

inline bool same_bits(float a, float b) {
    return float_bits(a) == float_bits(b);
}

inline ::testing::AssertionResult same_bits(const std::vector<float>& a,
                                            const std::vector<float>& b) {
    if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes differ";
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!same_bits(a[i], b[i]))
            return ::testing::AssertionFailure()
                   << "element " << i << ": " << a[i] << " vs " << b[i];
    return ::testing::AssertionSuccess();
}

// The same, except that any NaN matches any NaN: which of two NaN operands a sum passes on is
// the compiler's choice of operand order, which differs between otherwise identical paths.
inline ::testing::AssertionResult same_values(const std::vector<float>& a,
                                              const std::vector<float>& b) {
    if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes differ";
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!(a[i] != a[i] && b[i] != b[i]) && !same_bits(a[i], b[i]))
            return ::testing::AssertionFailure()
                   << "element " << i << ": " << a[i] << " vs " << b[i];
    return ::testing::AssertionSuccess();
}
