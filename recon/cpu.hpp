// What the processor offers beyond the x86-64 baseline, asked once at run time. The library's
// AVX2 paths give the bits of its baseline ones (same operations and order, nothing contracted;
// only the sign of a NaN may differ), so only speed depends on the answer; MRKIT_NO_AVX2=1 in the
// environment takes the baseline paths anyway, so that the two can be compared on one machine.
#pragma once

#include <cstdlib>

namespace mrkit {

inline bool has_avx2() {
#if defined(__x86_64__) && defined(__GNUC__)
    const char* off = std::getenv("MRKIT_NO_AVX2");
    if (off && off[0] != '\0' && off[0] != '0') return false;
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") != 0;
#else
    return false;
#endif
}

inline bool has_fma() {
#if defined(__x86_64__) && defined(__GNUC__)
    __builtin_cpu_init();
    return __builtin_cpu_supports("fma") != 0;
#else
    return false;
#endif
}

}  // namespace mrkit
