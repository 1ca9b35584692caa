// Four sine/cosine pairs per step, bit-identical to the host's sincosf.
//
// glibc (2.28 on) computes sincosf in double: a reduction by multiples of pi/2, two short
// polynomials and one rounding to float; on CPUs with AVX2 and FMA it runs a build whose
// multiply-adds are fused. The four-lane path below repeats that build step by step (same
// constants, same fused operations, same quadrant rules) for arguments with 2^-12 <= |x| < 120,
// and hands every other argument to sincosf itself. It is used only when the CPU has AVX2 and
// FMA and a check against sincosf at first use agrees on every sampled argument; any other libm
// keeps the plain calls.
#include "recon/geometry/sincos.hpp"

#include "recon/cpu.hpp"

#include <math.h>

#include <cstdint>
#include <cstring>

#include "recon/lanes.hpp"
#ifdef MRKIT_LANES
#include <immintrin.h>
#endif

namespace {

void plain(const float* angle, int count, float* sine, float* cosine) {
    for (int i = 0; i < count; ++i) sincosf(angle[i], sine + i, cosine + i);
}

#ifdef MRKIT_LANES

// Reduction constants: 2/pi scaled by 2^24 (the quadrant is taken from the top bits of the
// truncated product) and pi/2.
constexpr double kHalfPiInverse = 0x1.45f306dc9c883p+23;
constexpr double kHalfPi = 0x1.921fb54442d18p+0;
// Cosine c0..c4 and sine s1..s3 coefficients; quadrants 2 and 3 use the negated cosine set.
constexpr double kC0 = 1.0, kC1 = -0x1.ffffffd0c621cp-2, kC2 = 0x1.55553e1068f19p-5,
                 kC3 = -0x1.6c087e89a359dp-10, kC4 = 0x1.99343027bf8c3p-16;
constexpr double kS1 = -0x1.555545995a603p-3, kS2 = 0x1.1107605230bc4p-7,
                 kS3 = -0x1.994eb3774cf24p-13;

__attribute__((target("avx2,fma"), always_inline)) inline __m256d pick(__m256d mask, double a,
                                                                       double b) {
    return _mm256_blendv_pd(_mm256_set1_pd(a), _mm256_set1_pd(b), mask);
}

// Arguments outside the lanes' range, marked by a clear bit in `lanes`, go to libm.
__attribute__((noinline)) void redo_outside(const float* angle, int lanes, float* sine,
                                            float* cosine) {
    for (int j = 0; j < 4; ++j)
        if (!(lanes >> j & 1)) sincosf(angle[j], sine + j, cosine + j);
}

// Inlined into the loop, so the long dependency chains of successive quads overlap.
__attribute__((target("avx2,fma"), always_inline)) inline void four(const float* angle, float* sine,
                                                                    float* cosine) {
    const __m128 y = _mm_loadu_ps(angle);
    const __m256d x = _mm256_cvtps_pd(y);

    const __m128i q = _mm256_cvttpd_epi32(_mm256_mul_pd(x, _mm256_set1_pd(kHalfPiInverse)));
    const __m128i n = _mm_srai_epi32(_mm_add_epi32(q, _mm_set1_epi32(0x800000)), 24);
    const __m256d r = _mm256_fnmadd_pd(_mm256_cvtepi32_pd(n), _mm256_set1_pd(kHalfPi), x);

    // Per quadrant: the sine's sign (negative in 1 and 2), the cosine set (negated in 2 and 3)
    // and whether the two results trade places (odd quadrants).
    const __m128i one = _mm_set1_epi32(1);
    const __m128i odd = _mm_cmpeq_epi32(_mm_and_si128(n, one), one);
    const __m128i upper = _mm_cmpeq_epi32(_mm_and_si128(_mm_srli_epi32(n, 1), one), one);
    const __m256d negSine = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm_xor_si128(odd, upper)));
    const __m256d negCos = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(upper));

    const __m256d xs = _mm256_mul_pd(r, pick(negSine, 1.0, -1.0));
    const __m256d x2 = _mm256_mul_pd(r, r);
    const __m256d x3 = _mm256_mul_pd(x2, xs);
    const __m256d x4 = _mm256_mul_pd(x2, x2);
    const __m256d x5 = _mm256_mul_pd(x2, x3);
    const __m256d x6 = _mm256_mul_pd(x2, x4);

    const __m256d c1 = _mm256_fmadd_pd(x2, pick(negCos, kC1, -kC1), pick(negCos, kC0, -kC0));
    const __m256d sLow = _mm256_fmadd_pd(x3, _mm256_set1_pd(kS1), xs);
    const __m256d cLow = _mm256_fmadd_pd(x4, pick(negCos, kC2, -kC2), c1);
    const __m256d sHigh = _mm256_fmadd_pd(x2, _mm256_set1_pd(kS3), _mm256_set1_pd(kS2));
    const __m256d cHigh = _mm256_fmadd_pd(x2, pick(negCos, kC4, -kC4), pick(negCos, kC3, -kC3));
    const __m128 s = _mm256_cvtpd_ps(_mm256_fmadd_pd(sHigh, x5, sLow));
    const __m128 c = _mm256_cvtpd_ps(_mm256_fmadd_pd(cHigh, x6, cLow));

    const __m128 swap = _mm_castsi128_ps(odd);
    _mm_storeu_ps(sine, _mm_blendv_ps(s, c, swap));
    _mm_storeu_ps(cosine, _mm_blendv_ps(c, s, swap));

    // Tiny, large and non-finite arguments take libm's own branches.
    const __m128i top =
        _mm_and_si128(_mm_srli_epi32(_mm_castps_si128(y), 20), _mm_set1_epi32(0x7ff));
    const __m128i inRange = _mm_and_si128(_mm_cmpgt_epi32(top, _mm_set1_epi32(0x397)),
                                          _mm_cmplt_epi32(top, _mm_set1_epi32(0x42f)));
    const int lanes = _mm_movemask_ps(_mm_castsi128_ps(inRange));
    if (lanes != 0xf) redo_outside(angle, lanes, sine, cosine);
}

__attribute__((target("avx2,fma"))) void four_lanes(const float* angle, int count, float* sine,
                                                    float* cosine) {
    int i = 0;
    for (; i + 4 <= count; i += 4) four(angle + i, sine + i, cosine + i);
    if (i < count) {
        float a[4] = {1.0f, 1.0f, 1.0f, 1.0f}, s[4], c[4];
        std::memcpy(a, angle + i, sizeof(float) * (count - i));
        four(a, s, c);
        std::memcpy(sine + i, s, sizeof(float) * (count - i));
        std::memcpy(cosine + i, c, sizeof(float) * (count - i));
    }
}

// The lanes agree with this host's sincosf: every quadrant and both signs over the range the
// lanes serve, the quadrant edges and the ends of the range.
bool lanes_match_host() {
    if (!mrkit::has_avx2() || !mrkit::has_fma()) return false;
    constexpr int kCount = 4096;
    float a[kCount], s[kCount], c[kCount];
    uint32_t state = 12345u;
    for (int i = 0; i < kCount; ++i) {
        state = state * 1664525u + 1013904223u;
        const float magnitude = i < kCount / 2
                                    ? static_cast<float>(i) * (120.0f / (kCount / 2))
                                    : std::ldexp(1.0f, -12 + static_cast<int>(state % 19)) *
                                          (1.0f + static_cast<float>(state >> 8) * 0x1p-24f);
        a[i] = (state & 1u) ? -magnitude : magnitude;
    }
    a[0] = 0x1p-12f;
    a[1] = 0x1.fffffep-13f;
    a[2] = 119.99999f;
    a[3] = 120.0f;
    for (int q = 1; q < 64; ++q) a[3 + q] = static_cast<float>(q * kHalfPi);
    four_lanes(a, kCount, s, c);
    for (int i = 0; i < kCount; ++i) {
        float sr, cr;
        sincosf(a[i], &sr, &cr);
        if (std::memcmp(&sr, s + i, sizeof sr) != 0 || std::memcmp(&cr, c + i, sizeof cr) != 0)
            return false;
    }
    return true;
}

#endif

}  // namespace

namespace mrkit::geometry {

bool sincos_many_is_vectorised() {
#ifdef MRKIT_LANES
    static const bool ok = lanes_match_host();
    return ok;
#else
    return false;
#endif
}

void sincos_many(const float* angle, int count, float* sine, float* cosine) {
#ifdef MRKIT_LANES
    if (sincos_many_is_vectorised()) return four_lanes(angle, count, sine, cosine);
#endif
    plain(angle, count, sine, cosine);
}

}  // namespace mrkit::geometry
