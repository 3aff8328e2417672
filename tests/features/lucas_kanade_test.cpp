#include "videostabilizer/lucas_kanade.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/features/picture.h"
#include "tests/support/log_capture.h"

using testing::IsEmpty;
using testing::StartsWith;

namespace {

using namespace videostabilizer;

constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
constexpr float INFINITE = std::numeric_limits<float>::infinity();

constexpr char SINGULAR[] = "Gradient matrix not inversable!";
constexpr char TOO_FAR[] = "pt_next displacement too large!!:dV: {";
constexpr char OUTSIDE[] = "pt_next bad point (out border): (";

// Waves of several lengths and directions: texture for every level, smooth enough to be followed.
// Shifted by (dx, dy): what lies at (x, y) without a shift lies at (x + dx, y + dy).
Picture waves(int width, int height, double dx = 0, double dy = 0) {
    return Picture(width, height, [=](int column, int row) {
        const double x = column - dx;
        const double y = row - dy;
        return static_cast<int>(128.5 + 34 * std::sin(x * 0.051 + y * 0.017 + 1) +
                                34 * std::sin(y * 0.047 - x * 0.013) +
                                22 * std::sin(x * 0.11 + y * 0.09 + 2) +
                                22 * std::sin(y * 0.13 - x * 0.08 + 3));
    });
}

Picture noise(int width, int height, std::uint_fast32_t seed, int levels = 256) {
    std::mt19937 random(seed);
    return Picture(width, height, [&](int, int) {
        return static_cast<int>(random() % static_cast<unsigned>(levels));
    });
}

KeyPoint at(float x, float y) {
    return {x, y, 0, 0};
}

// As the stabilizer sets it up for small frames, but for wider limits.
LK_Params default_params() {
    return {5, 4, 5, 0.05F, 0.05F, 72, 72, 0, 0};
}

LK_Params one_level(int win_radius, int iterations) {
    return {win_radius, 0, iterations, 0.05F, 0.05F, 1000, 1000, 0, 0};
}

struct Outcome {
    int result;
    unsigned char status;
    KeyPoint point;
    std::vector<test_support::LogLine> log;
};

Outcome track(const Picture& prev, const Picture& next, const LK_Params& params, KeyPoint pt) {
    test_support::clear_log();
    Outcome outcome{5, 5, {-1, -1, 17, 99}, {}};
    outcome.result = lkPyramid(prev.pixels.data(), next.pixels.data(), prev.width, prev.height,
                               &params, pt, &outcome.point, &outcome.status);
    outcome.log = test_support::log_lines();
    EXPECT_EQ(outcome.result == 0 ? 1 : 0, outcome.status);
    EXPECT_EQ(17, outcome.point.response);
    EXPECT_EQ(99U, outcome.point.reserved);
    if (outcome.result != 0) {
        EXPECT_EQ(-1, outcome.result);
        EXPECT_EQ(0, outcome.point.y);
    }
    return outcome;
}

// The sums of gradient and mismatch sample by sample, each with its own tests.
struct Sums {
    float gradient[3] = {};  // xx, xy, yy
    float b[2] = {};
    int sad = 0;
};

Sums sums_by_definition(const Picture& prev, const Picture& next, int win_radius, int level,
                        KeyPoint pt, float gx, float gy) {
    const int s = 1 << level;
    const int r = win_radius * s;
    const int x0 = static_cast<int>(pt.x);
    const int y0 = static_cast<int>(pt.y);
    int xx_sum = 0;
    int xy_sum = 0;
    int yy_sum = 0;
    int bx = 0;
    int by = 0;
    Sums sums;
    for (int yy = y0 - r; yy <= y0 + r; yy += s) {
        for (int xx = x0 - r; xx <= x0 + r; xx += s) {
            if (yy - s < 0 || yy + s >= prev.height || xx - s < 0 || xx + s >= prev.width) {
                continue;
            }
            const int ix = prev.at(xx + s, yy) - prev.at(xx - s, yy);
            const int iy = prev.at(xx, yy + s) - prev.at(xx, yy - s);
            xx_sum += ix * ix;
            xy_sum += ix * iy;
            yy_sum += iy * iy;
            const float x = static_cast<float>(xx) + static_cast<float>(s) * gx;
            const float y = static_cast<float>(yy) + static_cast<float>(s) * gy;
            if (x < 0 || x >= static_cast<float>(next.width) || y < 0 ||
                y >= static_cast<float>(next.height)) {
                sums.sad = -1;
            }
            if (sums.sad >= 0) {
                const int column = std::min(static_cast<int>(x + 0.5F), next.width - 1);
                const int row = std::min(static_cast<int>(y + 0.5F), next.height - 1);
                const int difference = prev.at(xx, yy) - next.at(column, row);
                sums.sad += std::abs(difference);
                bx += ix * difference;
                by += iy * difference;
            }
        }
    }
    sums.gradient[0] = 0.25F * static_cast<float>(xx_sum);
    sums.gradient[1] = 0.25F * static_cast<float>(xy_sum);
    sums.gradient[2] = 0.25F * static_cast<float>(yy_sum);
    sums.b[0] = 0.5F * static_cast<float>(bx);
    sums.b[1] = 0.5F * static_cast<float>(by);
    return sums;
}

TEST(LucasKanade, SumsAreThoseOfTheDefinition) {
    std::mt19937 random(42);
    const auto between = [&](float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(random);
    };
    int left = 0;
    int clamped = 0;
    for (int n = 0; n < 4000; ++n) {
        SCOPED_TRACE(n);
        const int width = 1 + static_cast<int>(random() % 60);
        const int height = 1 + static_cast<int>(random() % 60);
        const Picture prev = noise(width, height, random());
        const Picture next = noise(width, height, random());
        const int level = static_cast<int>(random() % 5);
        const int win_radius = static_cast<int>(random() % 7);
        // Around the image and beyond its edges; displacements that often reach the last half
        // pixel.
        const KeyPoint pt = at(between(-20, static_cast<float>(width) + 20),
                               between(-20, static_cast<float>(height) + 20));
        float g[2] = {between(-2, 2), between(-2, 2)};
        float v[2] = {between(-1, 1), between(-1, 1)};
        if (n % 2 == 0) {  // samples of level 0 end one pixel before the edge
            g[0] = 1;
            g[1] = 1;
            v[0] = between(0.5F, 1) - 0.01F;
            v[1] = between(0.5F, 1) - 0.01F;
        }
        const Sums expected =
            sums_by_definition(prev, next, win_radius, level, pt, g[0] + v[0], g[1] + v[1]);

        float gradient[2][2];
        getSpatialGradientMatrix(prev.pixels.data(), width, height, win_radius, level, pt,
                                 gradient);
        EXPECT_EQ(expected.gradient[0], gradient[0][0]);
        EXPECT_EQ(expected.gradient[1], gradient[0][1]);
        EXPECT_EQ(expected.gradient[1], gradient[1][0]);
        EXPECT_EQ(expected.gradient[2], gradient[1][1]);

        float b[2] = {12345, 54321};
        EXPECT_EQ(expected.sad, getMismatchVector(prev.pixels.data(), next.pixels.data(), width,
                                                  height, win_radius, level, pt, g, v, b));
        EXPECT_EQ(expected.sad < 0 ? 12345 : expected.b[0], b[0]);
        EXPECT_EQ(expected.sad < 0 ? 54321 : expected.b[1], b[1]);
        left += expected.sad < 0 ? 1 : 0;
        clamped += n % 2 == 0 && level == 0 && expected.sad > 0 ? 1 : 0;
    }
    EXPECT_GT(left, 200);
    EXPECT_GT(clamped, 50);
}

TEST(LucasKanade, RecoversKnownShifts) {
    constexpr int SIZE = 420;
    const Picture prev = waves(SIZE, SIZE);
    std::vector<KeyPoint> points;
    for (int y = 170; y <= 250; y += 20) {
        for (int x = 170; x <= 250; x += 20) {
            points.push_back({static_cast<float>(x) + 0.25F, static_cast<float>(y), 1, 2});
        }
    }
    const LK_Params params = default_params();
    for (int magnitude : {0, 1, 3, 8, 20, 33}) {
        for (int direction = 0; direction < 9; ++direction) {
            const int dx = (direction % 3 - 1) * magnitude;
            const int dy = (direction / 3 - 1) * magnitude;
            SCOPED_TRACE(std::to_string(dx) + ", " + std::to_string(dy));
            const Picture next = waves(SIZE, SIZE, dx, dy);
            std::vector<KeyPoint> found(points.size());
            std::vector<unsigned char> status(points.size(), 7);
            EXPECT_EQ(0, lk_pyramid_image(prev.pixels.data(), next.pixels.data(), SIZE, SIZE,
                                          &params, points, found, status));
            for (std::size_t i = 0; i < points.size(); ++i) {
                ASSERT_EQ(1, status[i]) << i;
                // The next image is read at the nearest pixel: anything within half a pixel fits.
                const float tolerance = magnitude == 0 ? 0.0F : 0.75F;
                EXPECT_NEAR(points[i].x + static_cast<float>(dx), found[i].x, tolerance) << i;
                EXPECT_NEAR(points[i].y + static_cast<float>(dy), found[i].y, tolerance) << i;
            }
        }
    }
}

TEST(LucasKanade, LevelsAddUpFromCoarseToFine) {
    const Picture prev = waves(200, 200);
    const Picture next = waves(200, 200, 4, -3);
    const KeyPoint pt = at(0, 150);  // x = 0: the new column is the displacement, unrounded
    const auto update = [&](int level, float* g) {
        float v[2] = {0, 0};
        float b[2];
        float m[2][2];
        getSpatialGradientMatrix(prev.pixels.data(), 200, 200, 5, level, pt, m);
        EXPECT_EQ(0, inverse2x2(m));
        EXPECT_LE(0, getMismatchVector(prev.pixels.data(), next.pixels.data(), 200, 200, 5, level,
                                       pt, g, v, b));
        return std::pair(m[0][0] * b[0] + m[0][1] * b[1], m[1][0] * b[0] + m[1][1] * b[1]);
    };
    float g[2] = {0, 0};
    for (int level = 2; level > 0; --level) {
        const auto [ex, ey] = update(level, g);
        g[0] = 2 * (g[0] + ex);
        g[1] = 2 * (g[1] + ey);
    }
    const auto [ex, ey] = update(0, g);
    LK_Params params = one_level(5, 1);
    params.max_level = 2;
    const Outcome outcome = track(prev, next, params, pt);
    EXPECT_EQ(0, outcome.result);
    EXPECT_EQ(g[0] + ex, outcome.point.x);
    EXPECT_EQ(pt.y + (g[1] + ey), outcome.point.y);
}

TEST(LucasKanade, TellsWhyAPointIsLost) {
    const Picture texture = waves(200, 200);
    const Picture flat(200, 200, [](int, int) { return 90; });
    const Picture edge(200, 200, [](int x, int) { return x < 100 ? 20 : 220; });
    const Picture shifted = waves(200, 200, -2, -2);
    const LK_Params usual = default_params();
    LK_Params unmoving = usual;
    unmoving.max_iterations = 0;
    LK_Params tight = usual;
    tight.max_disp_y = 0;
    LK_Params too_coarse = usual;
    too_coarse.max_level = 1000;
    LK_Params no_level = usual;
    no_level.max_level = -1;
    LK_Params huge_window = usual;
    huge_window.win_radius = INT_MAX;
    LK_Params no_window = usual;
    no_window.win_radius = INT_MIN;
    const KeyPoint centre = at(100, 100);

    const struct {
        const char* name;
        const Picture& prev;
        const Picture& next;
        LK_Params params;
        KeyPoint pt;
        int result;
        int priority;  // of the one log line, 0 for none
        const char* log;
    } cases[] = {
        {"tracked", texture, texture, usual, centre, 0, 0, ""},
        {"uniform region", flat, flat, usual, centre, -1, 6, SINGULAR},
        {"vertical edge", edge, edge, usual, centre, -1, 6, SINGULAR},
        {"window wholly different", texture, flat, unmoving, centre, 0, 0, ""},
        {"limit 0 reached by rest", texture, texture, tight, centre, -1, 5, TOO_FAR},
        {"new position outside", texture, shifted, one_level(5, 1), at(0, 0), -1, 5, OUTSIDE},
        {"window leaves on the way", texture, shifted, one_level(5, 2), at(0, 0), -1, 0, ""},
        {"window wider than the image", texture, texture, huge_window, centre, 0, 0, ""},
        {"window without a sample", texture, texture, no_window, centre, -1, 6, SINGULAR},
        {"spacing beyond the image", texture, texture, too_coarse, centre, -1, 6, SINGULAR},
        {"no level", texture, flat, no_level, centre, 0, 0, ""},
        {"no level, far off", texture, flat, no_level, at(1e30F, 5), -1, 5, OUTSIDE},
        {"no level, not a number", texture, flat, no_level, at(5, NOT_A_NUMBER), -1, 5, OUTSIDE},
        {"x is not a number", texture, texture, usual, at(NOT_A_NUMBER, 100), -1, 6, SINGULAR},
        {"y is not a number", texture, texture, usual, at(100, NOT_A_NUMBER), -1, 6, SINGULAR},
        {"far right", texture, texture, usual, at(1e30F, 100), -1, 6, SINGULAR},
        {"far up", texture, texture, usual, at(100, -1e30F), -1, 6, SINGULAR},
        {"infinite", texture, texture, usual, at(INFINITE, -INFINITE), -1, 6, SINGULAR},
        {"near the end of int", texture, texture, usual, at(2147483520, -2147483648.0F), -1, 6,
         SINGULAR},
        {"a window away", texture, texture, one_level(5, 5), at(-5, 100), -1, 6, SINGULAR},
        {"outside, window inside", texture, texture, one_level(5, 5), at(-3, 100), -1, 5, OUTSIDE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome outcome = track(c.prev, c.next, c.params, c.pt);
        EXPECT_EQ(c.result, outcome.result);
        if (c.result == 0) {
            EXPECT_EQ(c.pt.x, outcome.point.x);
            EXPECT_EQ(c.pt.y, outcome.point.y);
        }
        ASSERT_EQ(c.priority != 0 ? 1U : 0U, outcome.log.size());
        if (c.priority != 0) {
            EXPECT_EQ(c.priority, outcome.log[0].priority);
            EXPECT_EQ("lk_pyradmid", outcome.log[0].tag);
            EXPECT_THAT(outcome.log[0].text, StartsWith(c.log));
        }
    }
    EXPECT_EQ(
        "pt_next displacement too large!!:dV: {0.000000, 0.000000}, p0(100.000000, 100.000000) "
        "--> p1(100.000000, 100.000000)\n",
        track(texture, texture, tight, centre).log.at(0).text);
    EXPECT_EQ("pt_next bad point (out border): (-3.000000, 100.000000)",
              track(texture, texture, one_level(5, 5), at(-3, 100)).log.at(0).text);
}

TEST(LucasKanade, WindowsMayNotLeaveTheImageHoweverFar) {
    const Picture texture = waves(64, 64);
    const unsigned char* const pixels = texture.pixels.data();
    const auto mismatch = [&](float gx, float gy, KeyPoint pt, int level) {
        float g[2] = {gx, 0};
        float v[2] = {0, gy};
        float b[2] = {7, 7};
        return getMismatchVector(pixels, pixels, 64, 64, 5, level, pt, g, v, b);
    };
    // The window ends 5 pixels from the point; the image holds 0 <= x < 64.
    EXPECT_LE(0, mismatch(26.99F, 0, at(32, 32), 0));
    EXPECT_EQ(-1, mismatch(27, 0, at(32, 32), 0));
    EXPECT_LE(0, mismatch(0, -27, at(32, 32), 0));
    EXPECT_EQ(-1, mismatch(0, std::nextafter(-27.0F, -30.0F), at(32, 32), 0));
    for (float wild : {NOT_A_NUMBER, INFINITE, -INFINITE, 1e30F, -1e30F, 3e9F}) {
        SCOPED_TRACE(wild);
        EXPECT_EQ(-1, mismatch(wild, 0, at(32, 32), 0));
        EXPECT_EQ(-1, mismatch(0, wild, at(32, 32), 2));
        EXPECT_EQ(0, mismatch(0, wild, at(wild, 32), 0));  // no samples, so none that leaves
        EXPECT_EQ(0, mismatch(0, wild, at(32, 32), 31));
        EXPECT_EQ(0, mismatch(wild, 0, at(32, 32), -1));
    }
}

TEST(LucasKanade, BordersAreTrackedUpToTheirExactLimit) {
    const Picture texture = waves(200, 160);
    LK_Params params = default_params();
    params.border_x = 40;
    params.border_y = 30;
    const struct {
        KeyPoint pt;
        bool tracked;
    } cases[] = {
        {at(40, 80), true},
        {at(39.5F, 80), false},
        {at(159, 80), true},
        {at(159.5F, 80), false},
        {at(100, 30), true},
        {at(100, 29.5F), false},
        {at(100, 129), true},
        {at(100, 129.5F), false},
        {at(NOT_A_NUMBER, 80), false},
        {at(100, NOT_A_NUMBER), false},
        {at(1e30F, 80), false},
        {at(100, -INFINITE), false},
    };
    std::vector<KeyPoint> points;
    for (const auto& c : cases) {
        points.push_back(c.pt);
    }
    std::vector<KeyPoint> found(points.size() + 1, KeyPoint{-1, -1, 17, 99});
    std::vector<unsigned char> status(points.size() + 1, 7);
    const unsigned char* const pixels = texture.pixels.data();
    test_support::clear_log();
    EXPECT_EQ(0, lk_pyramid_image(pixels, pixels, 200, 160, &params, points, found, status));
    EXPECT_THAT(test_support::log_lines(), IsEmpty());
    for (std::size_t i = 0; i < points.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(cases[i].tracked ? 1 : 0, status[i]);
        EXPECT_EQ(cases[i].tracked ? points[i].y : 0, found[i].y);
        EXPECT_EQ(17, found[i].response);
        EXPECT_EQ(99U, found[i].reserved);
    }
    EXPECT_EQ(7, status.back());
    EXPECT_EQ(points.size() + 1, found.size());

    // Borders below 0 let points outside the image through, which must do no harm.
    params.border_x = INT_MIN;
    params.border_y = INT_MIN;
    EXPECT_EQ(0, lk_pyramid_image(pixels, pixels, 200, 160, &params, points, found, status));
    EXPECT_EQ(0, status[points.size() - 1]);
}

TEST(LucasKanade, ReachingTheDisplacementLimitLosesThePoint) {
    // From (0, 0) the new position is the displacement itself, without rounding.
    const Picture prev = waves(100, 100);
    const Picture next = waves(100, 100, 3, 2);
    LK_Params params = one_level(9, 20);
    const Outcome free = track(prev, next, params, at(0, 0));
    ASSERT_EQ(0, free.result);
    EXPECT_NEAR(3, free.point.x, 0.75);
    EXPECT_NEAR(2, free.point.y, 0.75);
    for (const auto& [limit, reached] : {std::pair(&LK_Params::max_disp_x, free.point.x),
                                         {&LK_Params::max_disp_y, free.point.y}}) {
        params.*limit = reached;
        EXPECT_EQ(-1, track(prev, next, params, at(0, 0)).result);
        params.*limit = std::nextafter(reached, INFINITE);
        EXPECT_EQ(0, track(prev, next, params, at(0, 0)).result);
    }
}

TEST(LucasKanade, ResidualLimitIsAMeanOf25) {
    const Picture prev = noise(60, 60, 3, 200);
    for (int radius : {1, 5, 12}) {
        for (int excess : {-1, 0, 1}) {
            SCOPED_TRACE(excess);
            const Picture next(60, 60, [&](int x, int y) {
                return prev.at(x, y) + 25 + (x == 30 && y == 30 ? excess : 0);
            });
            const Outcome outcome = track(prev, next, one_level(radius, 1), at(30.9F, 30.9F));
            EXPECT_EQ(excess <= 0 ? 0 : -1, outcome.result);
            EXPECT_THAT(outcome.log, IsEmpty());
        }
    }
}

TEST(LucasKanade, SmallHelpers) {
    float singular[2][2] = {{2, 4}, {3, 6}};
    EXPECT_EQ(-1, inverse2x2(singular));
    EXPECT_EQ(4, singular[0][1]);
    float m[2][2] = {{4, 2}, {1, 1}};  // determinant 2
    EXPECT_EQ(0, inverse2x2(m));
    EXPECT_EQ(0.5F, m[0][0]);
    EXPECT_EQ(-1.0F, m[0][1]);
    EXPECT_EQ(-0.5F, m[1][0]);
    EXPECT_EQ(2.0F, m[1][1]);

    const auto clock_us = [] {
        const auto now = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
    };
    const auto before = clock_us();
    const auto now = time_us();
    EXPECT_GE(now, before - 1000);
    EXPECT_LE(now, clock_us() + 1000);
}

}  // namespace
