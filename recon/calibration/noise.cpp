// Coil noise covariance from noise-only samples. Every coil pair sums its products over all
// samples in one fixed order, so the result does not depend on the thread count; the samples go
// in chunks that every coil's run of fits the caches, each thread taking its own pairs.
#include <algorithm>
#include <complex>
#include <cstdint>
#include <vector>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"

void MR_noise_covariance(const float* re, const float* im, int ndims, const int* dims, int coilDim,
                         float* psiRe, float* psiIm) {
    int64_t inner = 1, outer = 1;
    for (int d = 0; d < coilDim - 1; ++d) inner *= dims[d];
    for (int d = coilDim; d < ndims; ++d) outer *= dims[d];
    const int coils = dims[coilDim - 1];
    const int64_t samples = inner * outer;
    // Pairs (r, c) with r <= c, numbered column by column.
    std::vector<int> pairRow, pairCol;
    for (int c = 0; c < coils; ++c)
        for (int r = 0; r <= c; ++r) {
            pairRow.push_back(r);
            pairCol.push_back(c);
        }
    const int pairs = static_cast<int>(pairRow.size());
    std::vector<std::complex<double>> sum(pairs);
    constexpr int64_t kChunk = 2048;
    mrkit::parallel_blocks(pairs, [&](int begin, int end) {
        for (int64_t o = 0; o < outer; ++o)
            for (int64_t i0 = 0; i0 < inner; i0 += kChunk) {
                const int64_t n = std::min(kChunk, inner - i0);
                for (int p = begin; p < end; ++p) {
                    const int64_t a = i0 + inner * (pairRow[p] + coils * o);
                    const int64_t b = i0 + inner * (pairCol[p] + coils * o);
                    double sr = 0.0, si = 0.0;
                    // x_r conj(x_c)
                    for (int64_t k = 0; k < n; ++k) {
                        const double ar = re[a + k], ai = im ? im[a + k] : 0.0;
                        const double br = re[b + k], bi = im ? im[b + k] : 0.0;
                        sr += ar * br + ai * bi;
                        si += ai * br - ar * bi;
                    }
                    sum[p] += std::complex<double>(sr, si);
                }
            }
    });
    const double scale = samples > 0 ? 1.0 / static_cast<double>(samples) : 0.0;
    for (int p = 0; p < pairs; ++p) {
        const int r = pairRow[p], c = pairCol[p];
        const std::complex<double> v = sum[p] * scale;
        psiRe[r + coils * c] = static_cast<float>(v.real());
        psiIm[r + coils * c] = static_cast<float>(v.imag());
        psiRe[c + coils * r] = static_cast<float>(v.real());
        psiIm[c + coils * r] = r == c ? 0.0f : static_cast<float>(-v.imag());
    }
}
