// Separable apodisation against truncation ringing: a Hamming-shape window per dimension,
// stretched to reach the edge value at the ends of the support and zero outside it. The
// window is tabulated once per call, so the sample loop is two multiplications per component
// and no trigonometry. The float/double steps below fix the last bits of every weight.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {
using Index = std::ptrdiff_t;

constexpr float kTwoPi = 6.2831855f;

// Window value at the support ends. Strengths above 0.915 are clamped so that the acos
// argument below stays inside [-1, 1]; negative strengths mean no taper.
float edge_value(double strength) {
    if (strength > 0.915) return 0.085f;
    if (strength >= 0.0 || std::isnan(strength)) return static_cast<float>(1.0 - strength);
    return 1.0f;
}

// One dimension's table. Single precision throughout except the acos, the stretch quotient and
// the final 0.54 + 0.46 cos, which are taken in double.
std::vector<float> window(int size, double strength, int width) {
    const float a = edge_value(strength);
    const double theta = std::acos((a - 0.54) / 0.46);
    const float numerator = static_cast<float>(width) * kTwoPi * 0.5f;
    const float stretch = static_cast<float>(numerator / theta);
    const int lo = -static_cast<int>(std::floor(static_cast<float>(width) * 0.5f));
    const int hi = static_cast<int>(std::ceil(static_cast<float>(width) * 0.5f)) - 1;
    const int centre = static_cast<int>(std::floor(static_cast<float>(size) * 0.5f));

    std::vector<float> w(static_cast<std::size_t>(size), 0.0f);
    for (int i = 0; i < size; ++i) {
        const int k = i - centre;
        if (k < lo || k > hi) continue;
        const float c = std::cos(static_cast<float>(k) * kTwoPi / stretch);
        w[i] = static_cast<float>(0.54 + 0.46 * c);
    }
    return w;
}

inline std::uint32_t bits(float x) {
    std::uint32_t b;
    std::memcpy(&b, &x, sizeof b);
    return b;
}

inline float from_bits(std::uint32_t b) {
    float x;
    std::memcpy(&x, &b, sizeof x);
    return x;
}

// Factor for one sample: 1 for exact zeros (+0 or -0 in every part present), so that they
// keep their bits even when the window is not a number, else w. Chosen with integer masks:
// a branch here would stop the sample loops from vectorising.
inline float factor(std::uint32_t partBits, float w) {
    const std::uint32_t zero = 0u - static_cast<std::uint32_t>((partBits << 1) == 0);
    return from_bits((bits(w) & ~zero) | (bits(1.0f) & zero));
}

void scale_run(float* re, float* im, const float* w01, float w2, Index n) {
    if (im) {
        for (Index j = 0; j < n; ++j) {
            const float r = re[j], q = im[j];
            const float f = factor(bits(r) | bits(q), w2 * w01[j]);
            re[j] = r * f;
            im[j] = q * f;
        }
    } else {
        for (Index j = 0; j < n; ++j) {
            const float r = re[j];
            re[j] = r * factor(bits(r), w2 * w01[j]);
        }
    }
}
}  // namespace

void MR_ringing_filter(float* re, float* im, int ndims, const int* dims, const double* strength,
                       const int* width) {
    const int N0 = dims[0], N1 = dims[1], N2 = ndims > 2 ? dims[2] : 1;
    int V = 1;
    for (int d = 3; d < ndims; ++d) V *= dims[d];
    // The tables are sized by the dimensions: none for an array without elements.
    if (N0 <= 0 || N1 <= 0 || N2 <= 0 || V <= 0) return;

    const std::vector<float> w0 = window(N0, strength[0], width[0]);
    const std::vector<float> w1 = window(N1, strength[1], width[1]);
    // Without a third dimension only the support test of width[2] remains.
    const std::vector<float> w2 = ndims > 2 ? window(N2, strength[2], width[2])
                                            : std::vector<float>{width[2] >= 1 ? 1.0f : 0.0f};

    const Index slice = static_cast<Index>(N0) * N1;
    std::vector<float> w01(static_cast<std::size_t>(slice));
    for (Index y = 0; y < N1; ++y)
        for (Index x = 0; x < N0; ++x) w01[y * N0 + x] = w1[y] * w0[x];

    const Index volume = slice * N2;
    mrkit::parallel_blocks(V, [&](int begin, int end) {
        for (int v = begin; v < end && !mrkit::interrupted(); ++v)
            for (Index s = 0; s < N2; ++s) {
                const Index offset = v * volume + s * slice;
                scale_run(re + offset, im ? im + offset : nullptr, w01.data(), w2[s], slice);
            }
    });
}
