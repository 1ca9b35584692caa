// Test data for split-complex array operations: seeded random blocks and their sizes.
#pragma once

#include <cstdint>
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

}  // namespace mrkit_test
