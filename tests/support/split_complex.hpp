// Test data for split-complex array operations: seeded random blocks and bitwise comparison
// (tells -0 from +0, compares NaNs by payload).
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace mrkit_test {

struct SplitComplex {
    std::vector<float> re, im;
};

inline SplitComplex random_complex(std::size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(-1.f, 1.f);
    SplitComplex x{std::vector<float>(n), std::vector<float>(n)};
    for (auto& v : x.re) v = dist(gen);
    for (auto& v : x.im) v = dist(gen);
    return x;
}

inline std::size_t element_count(const std::vector<int>& dims) {
    std::size_t n = 1;
    for (int d : dims) n *= static_cast<std::size_t>(d);
    return n;
}

inline bool same_bits(float a, float b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Index of the first sample whose bits differ, -1 when the blocks are identical.
inline long first_difference(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size()) return 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!same_bits(a[i], b[i])) return static_cast<long>(i);
    return -1;
}

}  // namespace mrkit_test
