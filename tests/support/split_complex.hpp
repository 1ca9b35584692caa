// Test data for split-complex array operations: seeded random blocks, index helpers and a
// bitwise comparison that tells -0 from +0 and compares NaNs by payload.
#pragma once

#include <omp.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

namespace mrkit_test {

struct SplitComplex {
    std::vector<float> re, im;
};

inline std::vector<float> random_block(std::size_t n, unsigned seed, float lo = -1.f,
                                       float hi = 1.f) {
    std::mt19937 gen(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> v(n);
    for (auto& x : v) x = dist(gen);
    return v;
}

inline SplitComplex random_complex(std::size_t n, unsigned seed) {
    return {random_block(n, seed), random_block(n, seed + 7919u)};
}

inline std::size_t element_count(const std::vector<int>& dims) {
    std::size_t n = 1;
    for (int d : dims) n *= static_cast<std::size_t>(d);
    return n;
}

inline bool same_bits(float a, float b) {
    std::uint32_t x, y;
    std::memcpy(&x, &a, 4);
    std::memcpy(&y, &b, 4);
    return x == y;
}

// Index of the first sample whose bits differ, -1 when the blocks are identical.
inline long first_difference(const std::vector<float>& a, const std::vector<float>& b) {
    if (a.size() != b.size()) return 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (!same_bits(a[i], b[i])) return static_cast<long>(i);
    return -1;
}

// Runs f with the given OpenMP team size and restores the previous one.
inline void with_threads(int n, const std::function<void()>& f) {
    const int previous = omp_get_max_threads();
    omp_set_num_threads(n);
    f();
    omp_set_num_threads(previous);
}

}  // namespace mrkit_test
