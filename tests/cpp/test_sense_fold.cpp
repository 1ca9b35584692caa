// Fold geometry: where full positions alias, in which order, where the aliasing pattern changes
// along the folded axis, and how sampling coordinates are kept inside a compartment.
#include <gtest/gtest.h>

#include <vector>

#include "recon/recon.hpp"

namespace {

std::vector<int> positions_of(int full, int folded, int pos, int capacity) {
    Eigen::VectorXi v(capacity);
    const int n = MR_get_unfolded_positions(full, folded, pos, v);
    return std::vector<int>(v.data(), v.data() + n);
}

std::vector<float> compartments(int full, int folded) {
    float b[2] = {-1.0f, -1.0f};
    get_compartments(full, folded, b);
    return {b[0], b[1]};
}

}  // namespace

TEST(FoldGeometry, WorkedExampleTenOntoFour) {
    EXPECT_EQ(MR_folded_pos(0, 10, 4), 1);
    EXPECT_EQ(MR_folded_pos(9, 10, 4), 2);
    EXPECT_EQ(MR_folded_pos(3, 10, 4), 0);

    EXPECT_EQ(positions_of(10, 4, 0, 3), (std::vector<int>{3, 7}));
    EXPECT_EQ(positions_of(10, 4, 1, 3), (std::vector<int>{0, 4, 8}));
    EXPECT_EQ(positions_of(10, 4, 2, 3), (std::vector<int>{1, 5, 9}));
    EXPECT_EQ(positions_of(10, 4, 3, 3), (std::vector<int>{2, 6}));

    // Unused entries of the caller's list are marked.
    Eigen::VectorXi v = Eigen::VectorXi::Constant(3, 42);
    EXPECT_EQ(MR_get_unfolded_positions(10, 4, 0, v), 2);
    EXPECT_EQ(v[2], -1);
}

TEST(FoldGeometry, CompartmentExamples) {
    EXPECT_EQ(compartments(10, 4), (std::vector<float>{0, 2}));
    EXPECT_EQ(compartments(8, 4), (std::vector<float>{-1, 1}));  // integer factor: order flips
    EXPECT_EQ(compartments(12, 4), (std::vector<float>{-1, 3}));
    EXPECT_EQ(compartments(9, 4), (std::vector<float>{0, 1}));
    EXPECT_EQ(compartments(256, 100), (std::vector<float>{21, 77}));
    EXPECT_EQ(compartments(7, 7), (std::vector<float>{-1, -1}));

    // Only overwrites: the caller's presets survive where no bound exists.
    float b[2] = {5.0f, 9.0f};
    get_compartments(7, 7, b);
    EXPECT_EQ(b[0], 5.0f);
    EXPECT_EQ(b[1], 9.0f);
}

TEST(FoldGeometry, UnfoldedIsOneToOne) {
    Eigen::VectorXi v = Eigen::VectorXi::Constant(1, 0);
    EXPECT_EQ(MR_get_unfolded_positions(6, 6, 4, v), 1);
    EXPECT_EQ(v[0], 4);
    for (int p = 0; p < 6; ++p) EXPECT_EQ(MR_folded_pos(p, 6, 6), p);
}

// Over many (full, folded) pairs: the lists partition the full axis, MR_folded_pos inverts them,
// the order is lower copies nearest-first then centre upward, the counts are ceil or floor of
// the factor, and the aliasing pattern changes exactly at the compartment bounds.
TEST(FoldGeometry, InvariantsOverManySizePairs) {
    for (int full = 1; full <= 90; ++full) {
        for (int folded = 1; folded <= full; ++folded) {
            SCOPED_TRACE(testing::Message() << full << " onto " << folded);
            const int s = (full - folded + 1) / 2;
            const int most = (full + folded - 1) / folded;
            std::vector<int> seen(full, 0);
            std::vector<int> count(folded), below(folded);
            for (int f = 0; f < folded; ++f) {
                const auto list = positions_of(full, folded, f, most);
                ASSERT_GE(static_cast<int>(list.size()), full / folded);
                ASSERT_LE(static_cast<int>(list.size()), most);
                count[f] = static_cast<int>(list.size());
                below[f] = 0;
                for (size_t i = 0; i < list.size(); ++i) {
                    const int q = list[i];
                    ASSERT_GE(q, 0);
                    ASSERT_LT(q, full);
                    ++seen[q];
                    EXPECT_EQ(MR_folded_pos(q, full, folded), f);
                    if (q < s + f) {
                        ++below[f];
                        // nearest-first below the centre copy
                        if (i > 0) {
                            EXPECT_EQ(q, list[i - 1] - folded);
                        }
                    } else if (i > 0 && list[i - 1] >= s + f) {
                        EXPECT_EQ(q, list[i - 1] + folded);
                    }
                }
                // all lower copies come first, then the centre copy s + f
                for (int i = 0; i < below[f]; ++i) EXPECT_LT(list[i], s + f);
                if (count[f] > below[f]) {
                    EXPECT_EQ(list[below[f]], s + f);
                }
            }
            for (int q = 0; q < full; ++q) EXPECT_EQ(seen[q], 1) << "position " << q;
            for (int q = 0; q < full; ++q)
                EXPECT_EQ(MR_folded_pos(q, full, folded), ((q - s) % folded + folded) % folded);

            const auto b = compartments(full, folded);
            EXPECT_TRUE(b[0] == -1.0f || b[0] < b[1]);
            for (int f = 0; f + 1 < folded; ++f) {
                const bool changes = count[f] != count[f + 1] || below[f] != below[f + 1];
                const bool bound = f == static_cast<int>(b[0]) || f == static_cast<int>(b[1]);
                EXPECT_EQ(changes, bound) << "between " << f << " and " << f + 1;
            }
        }
    }
}

TEST(PosToInterpolate, NoBoundsLeaveTheCoordinate) {
    const float none[2] = {-1.0f, -1.0f}, some[2] = {3.0f, 9.0f};
    for (double c : {0.0, 2.5, 7.25}) {
        EXPECT_EQ(pos2interpolate(c, 3, none, none), c);
        // A bound counts only where both the image and the grid have it.
        EXPECT_EQ(pos2interpolate(c, 3, none, some), c);
        EXPECT_EQ(pos2interpolate(c, 3, some, none), c);
    }
}

TEST(PosToInterpolate, SnapsToMatchingGridBounds) {
    const float image[2] = {0.0f, 2.0f}, grid[2] = {3.0f, 9.0f};
    EXPECT_EQ(pos2interpolate(1.7, 0, image, grid), 3.0);   // last index of the first run
    EXPECT_EQ(pos2interpolate(2.5, 1, image, grid), 4.0);   // first index after the bound
    EXPECT_EQ(pos2interpolate(0.0, 3, image, grid), 10.0);  // first index after the upper bound
    EXPECT_EQ(pos2interpolate(99.0, 2, image, grid), 9.0);  // last index of the middle run
}

TEST(PosToInterpolate, ClampsInsideTheRunAndRuleOrderDecides) {
    const float image[2] = {5.0f, 10.0f}, grid[2] = {2.0f, 4.0f};
    // Before the lower bound: not past the grid's lower bound (strict comparison).
    EXPECT_EQ(pos2interpolate(2.5, 3, image, grid), 2.0);
    EXPECT_EQ(pos2interpolate(2.0, 3, image, grid), 2.0);
    EXPECT_EQ(pos2interpolate(1.5, 3, image, grid), 1.5);
    // In the middle run: not below the first grid index after the lower bound ...
    EXPECT_EQ(pos2interpolate(2.5, 7, image, grid), 3.0);
    EXPECT_EQ(pos2interpolate(3.5, 7, image, grid), 3.5);
    // ... and not past the grid's upper bound.
    EXPECT_EQ(pos2interpolate(4.5, 7, image, grid), 4.0);
    // After the upper bound: not below the grid's first index after it.
    EXPECT_EQ(pos2interpolate(4.5, 13, image, grid), 5.0);
    EXPECT_EQ(pos2interpolate(6.0, 13, image, grid), 6.0);
    // A position before the lower bound past the upper grid bound meets rule 3 before rule 8.
    EXPECT_EQ(pos2interpolate(7.0, 2, image, grid), 2.0);
}
