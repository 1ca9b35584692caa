// The one work split every parallel loop of mrkit uses: a single OpenMP region per call, the
// iterations cut into contiguous blocks of ceil(n / T), thread t taking
// [t * block, min(n, (t + 1) * block)). Results never depend on T because every output element
// is owned by exactly one iteration.
#pragma once

#include <omp.h>

#include <algorithm>
#include <cstdint>

namespace mrkit {

// Block of iterations [begin, end) owned by thread t of T; empty when t runs past n.
inline void static_block(int n, int t, int T, int& begin, int& end) {
    const int64_t block = (static_cast<int64_t>(n) + T - 1) / T;
    const int64_t b = std::min<int64_t>(n, t * block);
    begin = static_cast<int>(b);
    end = static_cast<int>(std::min<int64_t>(n, b + block));
}

// Runs body(begin, end) once on every thread of the team with that thread's block, so a body
// can set up its per-thread scratch once before looping. The region ends with a barrier.
template <class Body>
void parallel_blocks(int n, Body&& body) {
#pragma omp parallel
    {
        int begin = 0, end = 0;
        static_block(n, omp_get_thread_num(), omp_get_num_threads(), begin, end);
        body(begin, end);
    }
}

}  // namespace mrkit
