// Fold geometry of one phase-encoding axis: the reduced field of view sits centred in the full
// one (the odd extra position at the low end), so full position s folds to folded position 0.
// The single-precision steps are kept because factors and unfolding must agree to the bit on
// which positions alias together.
#include <cmath>
#include <utility>

#include "recon/recon.hpp"

int MR_folded_pos(int pos, int fullSize, int foldedSize) {
    const int s = static_cast<int>(std::ceil(
        static_cast<double>(static_cast<float>(fullSize) - static_cast<float>(foldedSize)) * 0.5));
    const int t =
        static_cast<int>(ceilf((static_cast<float>(s) + 1.0f - static_cast<float>(pos + 1)) /
                               static_cast<float>(foldedSize)));
    return pos - s + foldedSize * t;
}

void get_compartments(int fullSize, int foldedSize, float* bounds) {
    const int first = MR_folded_pos(0, fullSize, foldedSize);
    const int last = MR_folded_pos(fullSize - 1, fullSize, foldedSize);
    if (first != 0) bounds[0] = static_cast<float>(first - 1);
    // Compared with fullSize - 1 on purpose: any folded axis gets its upper bound.
    if (last != fullSize - 1) bounds[1] = static_cast<float>(last);
    if (bounds[0] > bounds[1]) std::swap(bounds[0], bounds[1]);
    if (bounds[0] == bounds[1]) bounds[0] = -1.0f;
}

int MR_get_unfolded_positions(int fullSize, int foldedSize, int pos, Eigen::VectorXi& positions) {
    positions.setConstant(-1);
    const int centre = static_cast<int>(
        ceilf((static_cast<float>(fullSize) - static_cast<float>(foldedSize)) * 0.5f) +
        static_cast<float>(pos));
    int count = 0;
    // Lower copies nearest-first, then the centre copy and the upper ones: factors are stored
    // and read in this order.
    for (int q = centre - foldedSize; q >= 0; q -= foldedSize) positions[count++] = q;
    for (int q = centre; q < fullSize; q += foldedSize) positions[count++] = q;
    return count;
}

double pos2interpolate(double coord, int index, const float* imageBounds, const float* gridBounds) {
    const float a0 = imageBounds[0], a1 = imageBounds[1];
    const float b0 = gridBounds[0], b1 = gridBounds[1];
    const bool low = a0 != -1.0f && b0 != -1.0f;
    const bool high = a1 != -1.0f && b1 != -1.0f;
    const auto trunc = [](float v) { return static_cast<int>(v); };

    // Exact hits on a bound first, then clamps; the order decides positions that meet several.
    if (low && index == trunc(a0)) return b0;
    if (high && index == trunc(a1 + 1.0f)) return b1 + 1.0f;
    if (low && index < trunc(a0) && coord > trunc(b0)) return b0;
    if (high && index > trunc(a1) && trunc(b1 + 1.0f) > coord) return b1 + 1.0f;
    if (low && index == trunc(a0 + 1.0f)) return b0 + 1.0f;
    if (high && index == trunc(a1)) return b1;
    if (low && index > trunc(a0) && trunc(b0 + 1.0f) > coord) return b0 + 1.0f;
    if (high && index < trunc(a1) && coord > trunc(b1)) return b1;
    return coord;
}
