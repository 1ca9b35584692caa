// Combines four synthetic coil images of a disc by root sum of squares and by the
// phase-corrected sum of squares, then zero-pads the result to twice the size.
// Build against an installed mrkit (see CMakeLists.txt beside this file).
#include <cmath>
#include <cstdio>
#include <vector>

#include <recon/recon.hpp>

int main() {
    const int n = 64, coils = 4;
    // pcsos averages along the tenth dimension, so the sizes carry ten entries.
    const int dims[10] = {n, n, 1, coils, 1, 1, 1, 1, 1, 1};
    const int outDims[10] = {n, n, 1, 1, 1, 1, 1, 1, 1, 1};
    std::vector<float> re(n * n * coils), im(n * n * coils), truth(n * n);
    for (int c = 0; c < coils; ++c) {
        const double cx = (c & 1) ? n : 0, cy = (c & 2) ? n : 0, phase = 0.7 * c;
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x) {
                const double r2 = (x - n / 2.0) * (x - n / 2.0) + (y - n / 2.0) * (y - n / 2.0);
                const double object = r2 < 0.16 * n * n ? 1.0 : 0.0;
                const double sens =
                    std::exp(-((x - cx) * (x - cx) + (y - cy) * (y - cy)) / (n * n));
                re[x + n * y + n * n * c] = float(object * sens * std::cos(phase));
                im[x + n * y + n * n * c] = float(object * sens * std::sin(phase));
                truth[x + n * y] += float(object * sens * object * sens);
            }
    }

    std::vector<float> sos(n * n, 0.0f), pcRe(n * n), pcIm(n * n);
    MR_perform_sos(re.data(), im.data(), 4, dims, 4, sos.data(), outDims);
    MR_perform_pcsos(re.data(), im.data(), 4, dims, 4, pcRe.data(), pcIm.data(), outDims);

    double worst = 0.0;
    for (int i = 0; i < n * n; ++i) {
        worst = std::fmax(worst, std::fabs(sos[i] - std::sqrt(truth[i])));
        worst = std::fmax(worst, std::fabs(std::hypot(pcRe[i], pcIm[i]) - sos[i]));
    }

    std::vector<float> padded(2 * n * 2 * n, 0.0f);
    MR_zero_pad(sos.data(), nullptr, 2, dims, 2.0 * n, 2.0 * n, 1.0, padded.data(), nullptr);
    const float centre = padded[n + 2 * n * n];  // old centre (n/2, n/2) lands at (n, n)

    std::printf("sum of squares: largest error %.3g, padded centre %.4f (expected %.4f)\n", worst,
                centre, sos[n / 2 + n * (n / 2)]);
    return (worst < 1e-5 && centre == sos[n / 2 + n * (n / 2)]) ? 0 : 1;
}
