// Random-looking float samples in [-2, 2) from a fixed seed; a plain LCG keeps them identical on
// every platform and run.
#pragma once

#include <cstdint>
#include <vector>

inline std::vector<float> samples(std::size_t n, uint32_t seed) {
    std::vector<float> v(n);
    for (auto& x : v) {
        seed = seed * 1664525u + 1013904223u;
        x = float(seed >> 8) / float(1u << 24) * 4.0f - 2.0f;
    }
    return v;
}
