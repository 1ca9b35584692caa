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

std::vector<float> compartments(int full, int folded, float lower = -1.0f, float upper = -1.0f) {
    float b[2] = {lower, upper};
    get_compartments(full, folded, b);
    return {b[0], b[1]};
}

}  // namespace

TEST(FoldGeometry, WorkedExamples) {
    EXPECT_EQ(MR_folded_pos(0, 10, 4), 1);
    EXPECT_EQ(MR_folded_pos(9, 10, 4), 2);
    EXPECT_EQ(MR_folded_pos(3, 10, 4), 0);
    EXPECT_EQ(positions_of(10, 4, 0, 3), (std::vector<int>{3, 7}));
    EXPECT_EQ(positions_of(10, 4, 1, 3), (std::vector<int>{0, 4, 8}));
    EXPECT_EQ(positions_of(10, 4, 2, 3), (std::vector<int>{1, 5, 9}));
    EXPECT_EQ(positions_of(10, 4, 3, 3), (std::vector<int>{2, 6}));
    Eigen::VectorXi v = Eigen::VectorXi::Constant(3, 42);
    MR_get_unfolded_positions(10, 4, 0, v);
    EXPECT_EQ(v[2], -1);  // unused entries of the caller's list are marked

    EXPECT_EQ(compartments(10, 4), (std::vector<float>{0, 2}));
    EXPECT_EQ(compartments(8, 4), (std::vector<float>{-1, 1}));  // integer factor: order flips
    EXPECT_EQ(compartments(12, 4), (std::vector<float>{-1, 3}));
    EXPECT_EQ(compartments(9, 4), (std::vector<float>{0, 1}));
    EXPECT_EQ(compartments(256, 100), (std::vector<float>{21, 77}));
    EXPECT_EQ(compartments(7, 7), (std::vector<float>{-1, -1}));
    EXPECT_EQ(compartments(7, 7, 5, 9), (std::vector<float>{5, 9}));  // it only overwrites
}

// Over many (full, folded) pairs, including no folding: the lists partition the full axis,
// MR_folded_pos inverts them, lower copies come nearest-first before the centre copy s + f and
// the upper ones, and the count or the order changes exactly at the compartment bounds.
TEST(FoldGeometry, InvariantsOverManySizePairs) {
    for (int full = 1; full <= 90; ++full) {
        for (int folded = 1; folded <= full; ++folded) {
            SCOPED_TRACE(testing::Message() << full << " onto " << folded);
            const int s = (full - folded + 1) / 2, most = (full + folded - 1) / folded;
            std::vector<int> seen(full, 0), count(folded), below(folded);
            for (int f = 0; f < folded; ++f) {
                const auto list = positions_of(full, folded, f, most);
                count[f] = static_cast<int>(list.size());
                ASSERT_GE(count[f], full / folded);
                below[f] = 0;
                while (below[f] < count[f] && list[below[f]] < s + f) ++below[f];
                for (int i = 0; i < count[f]; ++i) {
                    ASSERT_GE(list[i], 0);
                    ASSERT_LT(list[i], full);
                    ++seen[list[i]];
                    EXPECT_EQ(MR_folded_pos(list[i], full, folded), f);
                    const int expect =
                        i < below[f] ? s + f - (i + 1) * folded : s + f + (i - below[f]) * folded;
                    EXPECT_EQ(list[i], expect) << "entry " << i << " of " << f;
                }
            }
            for (int q = 0; q < full; ++q) {
                EXPECT_EQ(seen[q], 1) << "position " << q;
                EXPECT_EQ(MR_folded_pos(q, full, folded), ((q - s) % folded + folded) % folded);
            }
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

TEST(PosToInterpolate, SnapsAndClampsInRuleOrder) {
    struct Case {
        float image[2], grid[2];
        int index;
        double coord, expect;
    };
    const Case cases[] = {
        {{-1, -1}, {-1, -1}, 3, 7.25, 7.25},  // no bounds
        {{-1, -1}, {3, 9}, 0, 7.25, 7.25},    // a bound counts only where both have it
        {{3, 9}, {-1, -1}, 3, 7.25, 7.25},
        {{0, 2}, {3, 9}, 0, 1.7, 3.0},   // last index of a run -> last grid index of it
        {{0, 2}, {3, 9}, 1, 2.5, 4.0},   // first index after a bound
        {{0, 2}, {3, 9}, 3, 0.0, 10.0},  // first index after the upper bound
        {{0, 2}, {3, 9}, 2, 99.0, 9.0},
        {{5, 10}, {2, 4}, 3, 2.5, 2.0},  // before the lower bound: clamped, strictly
        {{5, 10}, {2, 4}, 3, 2.0, 2.0},
        {{5, 10}, {2, 4}, 3, 1.5, 1.5},
        {{5, 10}, {2, 4}, 7, 2.5, 3.0},  // middle run: between the matching grid bounds
        {{5, 10}, {2, 4}, 7, 3.5, 3.5},
        {{5, 10}, {2, 4}, 7, 4.5, 4.0},
        {{5, 10}, {2, 4}, 13, 4.5, 5.0},  // after the upper bound
        {{5, 10}, {2, 4}, 13, 6.0, 6.0},
        {{5, 10}, {2, 4}, 2, 7.0, 2.0},  // rule 3 before rule 8
    };
    for (const auto& c : cases)
        EXPECT_EQ(pos2interpolate(c.coord, c.index, c.image, c.grid), c.expect)
            << "index " << c.index << " coord " << c.coord;
}
