// The library's one vector layer. Kernels are written once over GCC vector-extension lane types;
// each lane is one IEEE operation, so a sum or product rounds the same in SSE and AVX registers
// as long as nothing is contracted (the build forbids contraction). The one difference a
// register width may make: the compiler may swap the operands of a commutative add, which picks
// the other NaN when both are NaN (bits differ, values do not).
//
// A kernel body is an always-inline function template; MRKIT_PER_TARGET(name, body) compiles it
// twice, as name_baseline (x86-64 baseline: SSE2) and name_avx2 (target "avx2"), and
// lanes::pick(name_baseline, name_avx2) chooses one from has_avx2(). Choose once per library
// call and hand the pointer down; nothing below the choice asks again.
//
// Arrays in memory stay arrays of scalars, moved in and out with load() and store(): the 32-byte
// types are aligned to 32 bytes in AVX2 code but to 16 in baseline code, so a pointer to them
// from one may fault in the other.
//
// MRKIT_LANES is the one feature macro: defined where these types and the AVX2 twin exist
// (x86-64 with GCC or clang). Elsewhere name_avx2 is name_baseline and pick() returns it.
#pragma once

#include <cstring>

#include "recon/cpu.hpp"

#if defined(__x86_64__) && defined(__GNUC__)
#define MRKIT_LANES 1
#define MRKIT_AVX2_TARGET __attribute__((target("avx2")))
#else
#define MRKIT_AVX2_TARGET
#endif

#define MRKIT_INLINE inline __attribute__((always_inline))

// name_baseline(args...) and name_avx2(args...) around the always-inline template body(args...)
// (without MRKIT_LANES the two are the same code).
#define MRKIT_PER_TARGET(name, body)                   \
    template <class... Args>                           \
    void name##_baseline(Args... args) {               \
        body(args...);                                 \
    }                                                  \
    template <class... Args>                           \
    MRKIT_AVX2_TARGET void name##_avx2(Args... args) { \
        body(args...);                                 \
    }

namespace mrkit::lanes {

typedef double Double2 __attribute__((vector_size(16)));
typedef double Double4 __attribute__((vector_size(32)));
typedef float Float4 __attribute__((vector_size(16)));
typedef float Float8 __attribute__((vector_size(32)));
// Lane masks and sign bits of the same widths.
typedef long long Bits2 __attribute__((vector_size(16)));
typedef long long Bits4 __attribute__((vector_size(32)));
typedef int Bits4f __attribute__((vector_size(16)));
typedef int Bits8f __attribute__((vector_size(32)));

// Lanes from memory and back, any alignment.
template <class V, class T>
MRKIT_INLINE V load(const T* p) {
    V v;
    std::memcpy(&v, static_cast<const void*>(p), sizeof v);
    return v;
}
template <class V, class T>
MRKIT_INLINE void store(T* p, const V& v) {
    std::memcpy(static_cast<void*>(p), &v, sizeof v);
}

// x in every lane (not 0 + x, which would turn -0 into +0).
template <class V, class T>
MRKIT_INLINE V splat(T x) {
    V v;
    for (unsigned i = 0; i < sizeof v / sizeof x; ++i) v[i] = x;
    return v;
}

// The sign bit flipped where `mask` has it set (negation lane by lane, NaN included).
template <class V, class B>
MRKIT_INLINE V flip(const V& v, const B& mask) {
    return reinterpret_cast<V>(reinterpret_cast<B>(v) ^ mask);
}

// Whether any lane is NaN (the lane masks read as 64-bit words, which is a few instructions).
template <class V>
MRKIT_INLINE bool any_nan(const V& v) {
    const auto unordered = v != v;
    unsigned long long words[sizeof v / 8], any = 0;
    std::memcpy(words, &unordered, sizeof words);
    for (unsigned long long w : words) any |= w;
    return any != 0;
}

// The AVX2 kernel where the processor has it (and MRKIT_NO_AVX2 does not say otherwise), else the
// baseline one.
template <class F>
F pick(F baseline, F avx2) {
#ifdef MRKIT_LANES
    return mrkit::has_avx2() ? avx2 : baseline;
#else
    (void)avx2;
    return baseline;
#endif
}

}  // namespace mrkit::lanes
