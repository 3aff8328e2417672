// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/fast16.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/cpu_level.h"
#include "tests/features/picture.h"
#include "tests/support/log_capture.h"

namespace {

using namespace videostabilizer;
using testing::ElementsAre;

TEST(Fast16, ScoreOfADotIsTheLargestPassingThreshold) {
    for (const auto& [level, score] : {std::pair(160, 59), {40, 59}, {126, 25}, {125, 24}}) {
        const Picture dot(9, 9,
                          [grey = level](int x, int y) { return x == 4 && y == 4 ? grey : 100; });
        int pixel[25];
        makeOffsets(pixel, 9, 16);
        for (int threshold : {0, 25, 59, 60, 80}) {
            EXPECT_EQ(std::max(score, threshold - 1),
                      cornerScore16(&dot.pixels[dot.index(4, 4)], pixel, threshold));
        }
    }
}

TEST(Fast16, InitFillsEveryFieldAndReportsNoMemory) {
    FastParams p;
    ASSERT_EQ(0, fast16_init(&p, 300, 7, 12, 6, 4, 5, 33, 44));
    EXPECT_THAT((std::array{p.threshold, p.nonmax_suppression, p.cell_size, p.reserved, p.border_x,
                            p.border_y, p.width, p.height}),
                ElementsAre(255, 7, 12, 6, 4, 5, 33, 44));
    fast16_fini(&p);
    test_support::clear_log();
    EXPECT_EQ(-1, fast16_init(&p, 25, 1, 8, 6, 3, 3, -1, 44));
    EXPECT_EQ(nullptr, p.buffer);
    EXPECT_THAT(test_support::log_lines(),
                ElementsAre(test_support::LogLine{6, "log_utils", "OUT OF MEMORY!!!"}));
    fast16_fini(&p);
}

TEST(Fast16, CallsThatCannotBeServedFindNothing) {
    const Picture dot(40, 40, [](int x, int y) { return x == 20 && y == 20 ? 200 : 0; });
    const struct {
        int border, width;
        bool clears;  // the rows of scores
    } cases[] = {{3, 40, true}, {21, 40, true}, {1 << 30, 40, true}, {3, 41, false}};
    for (const auto& c : cases) {
        FastParams params;
        ASSERT_EQ(0, fast16_init(&params, 25, 1, 8, 0, c.border, c.border, c.width, 40));
        std::memset(params.buffer, 0xA5, 15 * 40);
        std::vector<KeyPoint> found(3);
        fast16(dot.pixels.data(), found, 40, 40, &params);
        EXPECT_EQ(&c == cases ? 1U : 0U, found.size()) << c.border;
        EXPECT_EQ(c.clears ? 0 : 0xA5, params.buffer[0]) << c.border;
        fast16_fini(&params);
    }
}

TEST(Fast16, OffsetsGoRoundACircleFromBelow) {
    for (const auto& [size, radius] : {std::pair(16, 3), {12, 2}, {8, 1}}) {
        SCOPED_TRACE(size);
        int pixel[25];
        makeOffsets(pixel, 1000, size);
        EXPECT_EQ(radius * 1000, pixel[0]);
        EXPECT_EQ(radius * 1000 + 1, pixel[1]);  // to the right first
        for (int k = 0; k < size; ++k) {
            const long dy = std::lround(pixel[k] / 1000.0);
            EXPECT_EQ(radius, std::lround(std::hypot(pixel[k] - dy * 1000, dy) - 0.1)) << k;
            EXPECT_EQ(-pixel[k], pixel[(k + size / 2) % size]) << k;
        }
        for (int k = size; k < 25; ++k) {
            EXPECT_EQ(pixel[k - size], pixel[k]) << k;
        }
    }
}

TEST(CpuLevel, LeavesOutWhatTheProcessorLacks) {
    const CpuLevel lacking = cpu_supports(CpuLevel::NEON) ? CpuLevel::AVX2 : CpuLevel::NEON;
    const struct { CpuLevel level; } table[] = {{CpuLevel::PLAIN}, {lacking}};
    EXPECT_EQ(&fastest_variant(table), &table[0]);
}

}  // namespace
