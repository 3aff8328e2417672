// SPDX-License-Identifier: Apache-2.0

// Decimation, corners and tracks. That corners and the sums of a track are those of their definitions
// is shown by fuzz/detector_fuzz.cpp and fuzz/tracker_fuzz.cpp.

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <utility>
#include <vector>

#include "pipeline/decimate.h"
#include "platform/cpu_level.h"
#include "tests/features/picture.h"
#include "tests/support/log_capture.h"
#include "videostabilizer/fast16.h"
#include "videostabilizer/lucas_kanade.h"

namespace {

using namespace videostabilizer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// Odd widths give steps above the scale (7 / 4 = 1 column, so that the step is 7), and rests.
TEST(Decimate, TakesEveryStepthPixelOfEveryStepthRow) {
    std::mt19937 random(3);
    for (int scale : {1, 2, 3, 4}) {
        for (int width = scale; width < 150; ++width) {
            const int height = scale + width % 7;
            const Picture luma(width, height,
                               [&](int, int) { return static_cast<int>(random() % 256); });
            const int columns = width / scale;
            const int rows = height / scale;
            const Picture expected(columns, rows, [&](int x, int y) {
                return luma.at(x * (width / columns), y * (height / rows));
            });
            std::vector<unsigned char> image(expected.pixels.size());
            decimate_luma(luma.pixels.data(), width, height, scale, image.data());
            ASSERT_EQ(expected.pixels, image) << width << " x " << height << " by " << scale;

            std::vector<unsigned char> row(static_cast<std::size_t>(columns));
            decimate_row(luma.pixels.data(), width / columns, row.data(), columns);
            ASSERT_TRUE(std::equal(row.begin(), row.end(), expected.pixels.begin()));
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

constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
constexpr char SINGULAR[] = "Gradient matrix not inversable!";

KeyPoint at(float x, float y) {
    return {x, y, 0, 0};
}

// As the stabilizer sets it up for small frames, but without borders.
constexpr LK_Params USUAL = {5, 4, 5, 0.05F, 0.05F, 72, 72, 0, 0};

LK_Params one_level(int win_radius, int iterations) {
    return {win_radius, 0, iterations, 0.05F, 0.05F, 1000, 1000, 0, 0};
}

struct Outcome {
    bool tracked;
    KeyPoint point;
    std::vector<test_support::LogLine> log;
};

Outcome track(const Picture& prev, const Picture& next, const LK_Params& params, KeyPoint pt) {
    test_support::clear_log();
    KeyPoint point{-1, -1, 17, 99};
    unsigned char status = 5;
    const int result = lkPyramid(prev.pixels.data(), next.pixels.data(), prev.width, prev.height,
                                 &params, pt, &point, &status);
    EXPECT_EQ(status == 1 ? 0 : -1, result);
    EXPECT_TRUE(status == 1 || (status == 0 && point.y == 0));
    EXPECT_TRUE(point.response == 17 && point.reserved == 99);
    return {status == 1, point, test_support::log_lines()};
}

TEST(LucasKanade, RecoversKnownShifts) {
    const Picture prev = waves(420, 420);
    for (const auto& [dx, dy] :
         {std::pair(0, 0), {3, 0}, {-3, 3}, {0, -3}, {33, 33}, {-33, 0}, {0, 33}}) {
        const Picture next = waves(420, 420, dx, dy);
        // The next image is read at the nearest pixel: anything within half a pixel fits.
        const float tolerance = dx == 0 && dy == 0 ? 0.0F : 0.75F;
        for (int n = 0; n < 25; ++n) {
            const int row = n / 5 * 20;
            const KeyPoint pt =
                at(170.25F + static_cast<float>(n % 5 * 20), static_cast<float>(170 + row));
            const Outcome outcome = track(prev, next, USUAL, pt);
            ASSERT_TRUE(outcome.tracked) << dx << ", " << dy << ", " << n;
            EXPECT_NEAR(pt.x + static_cast<float>(dx), outcome.point.x, tolerance) << n;
            EXPECT_NEAR(pt.y + static_cast<float>(dy), outcome.point.y, tolerance) << n;
        }
    }
}

TEST(LucasKanade, TellsWhyAPointIsLost) {
    const Picture texture = waves(200, 200);
    const Picture edge(200, 200, [](int x, int) { return x < 100 ? 20 : 220; });
    const Picture shifted = waves(200, 200, -2, -2);
    const Picture right = waves(200, 200, 3, 0);
    LK_Params tight = USUAL;
    tight.max_disp_y = 0;
    LK_Params narrow = USUAL;
    narrow.max_disp_x = 2;
    LK_Params too_coarse = USUAL;
    too_coarse.max_level = 1000;
    const struct {
        const char* name;
        const Picture& prev;
        const Picture& next;
        LK_Params params;
        KeyPoint pt;
        int priority;  // of the one log line, 0 for none
        const char* log;
    } cases[] = {
        {"vertical edge", edge, edge, USUAL, at(100, 100), 6, SINGULAR},
        {"spacing beyond the image", texture, texture, too_coarse, at(100, 100), 6, SINGULAR},
        {"x is not a number", texture, texture, USUAL, at(NOT_A_NUMBER, 100), 6, SINGULAR},
        {"limit 0 reached by rest", texture, texture, tight, at(100, 100), 5,
         "pt_next displacement too large!!:dV: {0.000000, 0.000000}, p0(100.000000, 100.000000) "
         "--> p1(100.000000, 100.000000)\n"},
        {"3 columns where 2 are too many", texture, right, narrow, at(100, 100), 5,
         "pt_next displacement too large!!:dV: {"},
        {"outside, window inside", texture, texture, one_level(5, 5), at(-3, 100), 5,
         "pt_next bad point (out border): (-3.000000, 100.000000)"},
        {"new position outside", texture, shifted, one_level(5, 1), at(0, 0), 5,
         "pt_next bad point (out border): (-"},
        {"window leaves on the way", texture, shifted, one_level(5, 2), at(0, 0), 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome outcome = track(c.prev, c.next, c.params, c.pt);
        EXPECT_FALSE(outcome.tracked);
        ASSERT_EQ(c.priority != 0 ? 1U : 0U, outcome.log.size());
        for (const auto& line : outcome.log) {
            EXPECT_TRUE(line.priority == c.priority && line.tag == "lk_pyradmid");
            EXPECT_THAT(line.text, StartsWith(c.log));
        }
    }
    std::vector<KeyPoint> both = {at(100, 100)};  // the old and the new points are one list
    std::vector<unsigned char> status(1);
    lk_pyramid_image(texture.pixels.data(), right.pixels.data(), 200, 200, &narrow, both, both,
                     status);
    EXPECT_THAT(test_support::log_lines().back().text, HasSubstr("p0(100.000000, 100.000000)"));
}

TEST(LucasKanade, BordersAreTrackedUpToTheirExactLimit) {
    const Picture texture = waves(200, 160);
    LK_Params params = USUAL;
    params.border_x = 40;
    params.border_y = 30;
    // Every second one is outside.
    std::vector<KeyPoint> points = {
        at(40, 80),     at(39.5F, 80), at(159, 80),     at(159.5F, 80), at(100, 30),
        at(100, 29.5F), at(100, 129),  at(100, 129.5F), at(50, 50),     at(100, NOT_A_NUMBER)};
    std::vector<KeyPoint> found(points.size(), KeyPoint{-1, -1, 17, 99});
    std::vector<unsigned char> status(points.size(), 7);
    const unsigned char* const pixels = texture.pixels.data();
    test_support::clear_log();
    EXPECT_EQ(0, lk_pyramid_image(pixels, pixels, 200, 160, &params, points, found, status));
    EXPECT_THAT(test_support::log_lines(), IsEmpty());
    for (std::size_t i = 0; i < points.size(); ++i) {
        EXPECT_EQ(i % 2 == 0 ? 1 : 0, status[i]) << i;
        EXPECT_EQ(i % 2 == 0 ? points[i].y : 0, found[i].y) << i;
        EXPECT_TRUE(found[i].response == 17 && found[i].reserved == 99) << i;
    }
}

TEST(LucasKanade, ResidualLimitIsAMeanOf25) {
    std::mt19937 random(3);
    const Picture prev(60, 60, [&](int, int) { return static_cast<int>(random() % 200); });
    for (int radius : {1, 12}) {
        for (int excess : {0, 1}) {
            SCOPED_TRACE(excess);
            const Picture next(60, 60, [&](int x, int y) {
                return prev.at(x, y) + 25 + (x == 30 && y == 30 ? excess : 0);
            });
            const Outcome outcome = track(prev, next, one_level(radius, 1), at(30.9F, 30.9F));
            EXPECT_EQ(excess <= 0, outcome.tracked);
            EXPECT_THAT(outcome.log, IsEmpty());
        }
    }
}

}  // namespace
