// Zero padding of the first three dimensions: each input row is copied whole into the centre
// of the caller's zero-filled output. The output is never cleared here, so a caller can pad
// into a buffer it has prepared (and pays for the zero fill only once).
#include <cmath>
#include <cstddef>
#include <cstring>

#include "recon/parallel.hpp"
#include "recon/recon.hpp"

namespace {
using Index = std::ptrdiff_t;

// Start offset and inclusive last index of old size n centred in new size m; an odd difference
// leaves the extra zero at the low end.
void placement(double m, int n, int& start, int& last) {
    const double half = (m - n) * 0.5;
    start = static_cast<int>(std::ceil(half));
    last = static_cast<int>(m - std::floor(half) - 1);
}
}  // namespace

void MR_zero_pad(const float* re, const float* im, int ndims, const int* dims, double M0, double M1,
                 double M2, float* outRe, float* outIm) {
    const int N0 = dims[0], N1 = dims[1], N2 = ndims >= 3 ? dims[2] : 1;
    int V = 1;
    for (int d = 3; d < ndims; ++d) V *= dims[d];
    // Nothing to copy; the loops below would still walk the rows of an empty dimension.
    if (N0 <= 0 || N1 <= 0 || N2 <= 0 || V <= 0) return;

    const int s0 = static_cast<int>(std::ceil((M0 - N0) * 0.5));
    int s1, e1, s2, e2;
    placement(M1, N1, s1, e1);
    placement(M2, N2, s2, e2);

    const Index newSlice = static_cast<Index>(M0 * M1);
    const Index newVolume = static_cast<Index>(M0 * M1 * M2);
    const Index oldVolume = static_cast<Index>(N0) * N1 * N2;
    const Index newRow = static_cast<Index>(M0);
    const Index skippedRows = static_cast<Index>((M1 - N1) * M0);
    const std::size_t rowBytes = static_cast<std::size_t>(N0) * sizeof(float);

    mrkit::parallel_blocks(V, [&](int begin, int end) {
        for (int t = begin; t < end && !mrkit::interrupted(); ++t) {
            Index in = t * oldVolume;
            Index out = t * newVolume + s2 * newSlice + s1 * newRow + s0;
            for (int k = s2; k <= e2; ++k) {
                for (int j = s1; j <= e1; ++j) {
                    std::memcpy(outRe + out, re + in, rowBytes);
                    if (outIm) std::memcpy(outIm + out, im + in, rowBytes);
                    in += N0;
                    out += newRow;
                }
                out += skippedRows;
            }
        }
    });
}
