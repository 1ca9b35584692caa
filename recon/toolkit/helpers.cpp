// Small numeric helpers whose exact rounding the SENSE and homodyne code depends on.
#include <cmath>
#include <cstdint>

#include "recon/recon.hpp"

int MR_round(double x) {
    double whole;
    const double frac = std::modf(x, &whole);
    if (frac >= 0.5) return static_cast<int>(x >= 0 ? std::ceil(x) : std::floor(x));
    return static_cast<int>(x < 0 ? std::ceil(x) : std::floor(x));
}

int MR_round(float x) {
    double whole;
    const double frac = std::modf(static_cast<double>(x), &whole);
    if (frac >= 0.5) return static_cast<int>(x >= 0 ? ceilf(x) : floorf(x));
    return static_cast<int>(x < 0 ? ceilf(x) : floorf(x));
}

float* MR_linspace(float start, float end, int n) {
    float* v = new float[n > 0 ? n : 0];
    const float step = (end - start) / (static_cast<float>(n) - 1.0f);
    if (n > 0) v[0] = start;
    // Accumulated on purpose: callers' interpolation positions depend on these exact bits.
    for (int i = 1; i < n; ++i) v[i] = v[i - 1] + step;
    return v;
}

namespace {
template <class T>
int find_first(const T* values, T key, int n) {
    for (int i = 0; i < n; ++i)
        if (values[i] == key) return i;
    return -1;
}
}  // namespace

int MR_find(const uint16_t* values, uint16_t key, int n) {
    return find_first(values, key, n);
}
int MR_find(const int16_t* values, int16_t key, int n) {
    return find_first(values, key, n);
}
int MR_find(const int32_t* values, int32_t key, int n) {
    return find_first(values, key, n);
}
int MR_find(const uint32_t* values, uint32_t key, int n) {
    return find_first(values, key, n);
}

int MR_sub2ind(const Eigen::VectorXi& dims, const Eigen::VectorXi& sub) {
    int index = 0, stride = 1;
    for (Eigen::Index d = 0; d < dims.size(); ++d) {
        index += stride * sub[d];
        stride *= dims[d];
    }
    return index;
}

double MR_SA(const float* re, const float* im, int n) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
        const double r = re[i];
        if (im) {
            const double q = im[i];
            sum += r * r + q * q;
        } else {
            sum += r * r;
        }
    }
    return std::sqrt(sum / n);
}
