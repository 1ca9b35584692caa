// Centred discrete Fourier transform along the first three axes of a split-complex block, by
// the definition (no FFT), so that k-space test data do not depend on the code under test:
// coordinate 0 at index n / 2 on both sides, forward exp(-2 pi i k x / n).
#pragma once

#include <cmath>
#include <complex>
#include <vector>

#include "support/sense_phantom.hpp"

namespace dft {

inline sense_phantom::Split centred_forward(const sense_phantom::Split& in) {
    using cd = std::complex<double>;
    const double pi = 3.14159265358979323846;
    sense_phantom::Split out = in;
    const int n[3] = {in.dims[0], in.dims.size() > 1 ? in.dims[1] : 1,
                      in.dims.size() > 2 ? in.dims[2] : 1};
    size_t stride = 1;
    for (int axis = 0; axis < 3; ++axis) {
        const int N = n[axis];
        if (N > 1) {
            std::vector<cd> w(static_cast<size_t>(N) * N), line(N);
            for (int k = 0; k < N; ++k)
                for (int x = 0; x < N; ++x) {
                    const long p = static_cast<long>(k - N / 2) * (x - N / 2);
                    w[x + static_cast<size_t>(N) * k] =
                        std::polar(1.0, -2.0 * pi * static_cast<double>(((p % N) + N) % N) / N);
                }
            const size_t total = out.size(), block = stride * N;
            for (size_t b = 0; b < total; b += block)
                for (size_t s = 0; s < stride; ++s) {
                    for (int x = 0; x < N; ++x) line[x] = cd(out.at(b + s + stride * x));
                    for (int k = 0; k < N; ++k) {
                        cd sum = 0.0;
                        for (int x = 0; x < N; ++x) sum += line[x] * w[x + static_cast<size_t>(N) * k];
                        out.set(b + s + stride * k, std::complex<float>(sum));
                    }
                }
        }
        stride *= N;
    }
    return out;
}

}  // namespace dft
