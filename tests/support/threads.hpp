// Runs a computation with a given OpenMP team size, for checks that results do not depend on it.
#pragma once

#include <omp.h>

template <class F>
auto with_threads(int threads, F&& f) {
    const int previous = omp_get_max_threads();
    omp_set_num_threads(threads);
    auto result = f();
    omp_set_num_threads(previous);
    return result;
}
