#include "videostabilizer/lucas_kanade.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "features/lucas_kanade_variants.h"
#include "tests/features/picture.h"
#include "tests/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

using namespace videostabilizer;

constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
constexpr char SINGULAR[] = "Gradient matrix not inversable!";

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

// The sums of gradient (xx, xy, yy) and mismatch sample by sample, each with its own tests.
struct Sums {
    int xx = 0, xy = 0, yy = 0, bx = 0, by = 0, sad = 0;
};

int half_up(float position) {
    return static_cast<int>(position + 0.5F);  // NOLINT(bugprone-incorrect-roundings)
}

Sums sums_by_definition(const Picture& prev, const Picture& next, int win_radius, int level,
                        KeyPoint pt, float gx, float gy) {
    const int s = 1 << level;
    Sums sums;
    for (int n = 0; n < (2 * win_radius + 1) * (2 * win_radius + 1); ++n) {
        const int xx = static_cast<int>(pt.x) + (n % (2 * win_radius + 1) - win_radius) * s;
        const int yy = static_cast<int>(pt.y) + (n / (2 * win_radius + 1) - win_radius) * s;
        if (yy - s < 0 || yy + s >= prev.height || xx - s < 0 || xx + s >= prev.width) {
            continue;
        }
        const int ix = prev.at(xx + s, yy) - prev.at(xx - s, yy);
        const int iy = prev.at(xx, yy + s) - prev.at(xx, yy - s);
        sums.xx += ix * ix;
        sums.xy += ix * iy;
        sums.yy += iy * iy;
        const float x = static_cast<float>(xx) + static_cast<float>(s) * gx;
        const float y = static_cast<float>(yy) + static_cast<float>(s) * gy;
        if (x < 0 || x >= static_cast<float>(next.width) || y < 0 ||
            y >= static_cast<float>(next.height)) {
            sums.sad = -1;
        }
        if (sums.sad >= 0) {
            const int column = std::min(half_up(x), next.width - 1);
            const int row = std::min(half_up(y), next.height - 1);
            const int difference = prev.at(xx, yy) - next.at(column, row);
            sums.sad += std::abs(difference);
            sums.bx += ix * difference;
            sums.by += iy * difference;
        }
    }
    return sums;
}

TEST(LucasKanade, SumsAreThoseOfTheDefinition) {
    std::mt19937 random(42);
    const auto between = [&](float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(random);
    };
    for (int n = 0; n < 4000; ++n) {
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
            g[0] = g[1] = 1;
            v[0] = v[1] = between(0.5F, 1) - 0.01F;
        }
        const Sums expected =
            sums_by_definition(prev, next, win_radius, level, pt, g[0] + v[0], g[1] + v[1]);

        float m[2][2];
        getSpatialGradientMatrix(prev.pixels.data(), width, height, win_radius, level, pt, m);
        EXPECT_THAT((std::array{m[0][0], m[0][1], m[1][0], m[1][1]}),
                    ElementsAre(0.25F * static_cast<float>(expected.xx),
                                0.25F * static_cast<float>(expected.xy), m[0][1],
                                0.25F * static_cast<float>(expected.yy)));
        float b[2] = {12345, 54321};
        EXPECT_EQ(expected.sad, getMismatchVector(prev.pixels.data(), next.pixels.data(), width,
                                                  height, win_radius, level, pt, g, v, b))
            << n;
        EXPECT_EQ(expected.sad < 0 ? 12345 : 0.5F * static_cast<float>(expected.bx), b[0]);
        EXPECT_EQ(expected.sad < 0 ? 54321 : 0.5F * static_cast<float>(expected.by), b[1]);
    }
}

// Points all over pictures of many sizes, their windows cut by the edges or not.
TEST(LucasKanade, VariantsTrackAsThePlainRoutineDoes) {
    std::mt19937 random(4);
    const auto whole = [&](int low, int high) {
        return low + static_cast<int>(random() % static_cast<unsigned>(high - low + 1));
    };
    const auto between = [&](int low, int high) {
        return std::uniform_real_distribution<float>(static_cast<float>(low),
                                                     static_cast<float>(high))(random);
    };
    int tracked = 0;
    int moved = 0;
    for (int n = 0; n < 240; ++n) {
        const int width = n % 5 == 0 ? whole(1, 40) : whole(40, 260);
        const int height = n % 5 == 1 ? whole(1, 40) : whole(40, 260);
        const double dx = static_cast<double>(between(-6, 6));
        const double dy = static_cast<double>(between(-6, 6));
        const bool wavy = n % 3 != 0;
        const Picture prev = wavy ? waves(width, height) : noise(width, height, random());
        const Picture next = n % 6 < 4 && wavy ? waves(width, height, dx, dy)
                             : n % 6 == 3      ? prev
                                               : noise(width, height, random(), 2);
        const GreyImage images[] = {{prev.pixels.data(), width, height},
                                    {next.pixels.data(), width, height}};
        LK_Params params = {whole(0, 6), whole(0, 5), whole(0, 8), 0.05F, 0.05F, 72, 72, 0, 0};
        if (n % 2 == 0) {
            params = USUAL;
        }
        for (int i = 0; i < 30; ++i) {
            const KeyPoint pt = i % 2 == 0 ? at(between(-3, width + 3), between(-3, height + 3))
                                           : at(static_cast<float>(whole(0, width - 1)),
                                                static_cast<float>(whole(0, height - 1)));
            KeyPoint expected{-1, -1, 17, 99};
            unsigned char expected_status = 5;
            track_point(track_variants[0], images[0], images[1], params, pt, expected,
                        expected_status);
            tracked += expected_status;
            moved += static_cast<int>(expected_status == 1 && expected.x != pt.x);
            for (const TrackVariant& variant : track_variants) {
                if (!cpu_supports(variant.level)) {
                    continue;
                }
                KeyPoint point{-1, -1, 17, 99};
                unsigned char status = 5;
                track_point(variant, images[0], images[1], params, pt, point, status);
                ASSERT_TRUE(status == expected_status && point.y == expected.y &&
                            (status == 0 || point.x == expected.x))
                    << variant.name << ", " << width << " x " << height << ", radius "
                    << params.win_radius << ", from " << pt.x << ", " << pt.y << ": " << point.x
                    << ", " << point.y << " instead of " << expected.x << ", " << expected.y;
            }
        }
    }
    EXPECT_GT(tracked, 2000);
    EXPECT_GT(moved, 800);
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
    for (int magnitude : {0, 3, 33}) {
        for (int direction = 0; direction < 9; ++direction) {
            const int dx = (direction % 3 - 1) * magnitude;
            const int dy = (direction / 3 - 1) * magnitude;
            SCOPED_TRACE(std::to_string(dx) + ", " + std::to_string(dy));
            const Picture next = waves(SIZE, SIZE, dx, dy);
            std::vector<KeyPoint> found(points.size());
            std::vector<unsigned char> status(points.size(), 7);
            EXPECT_EQ(0, lk_pyramid_image(prev.pixels.data(), next.pixels.data(), SIZE, SIZE,
                                          &USUAL, points, found, status));
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
}

TEST(LucasKanade, WindowsMayNotLeaveTheImageHoweverFar) {
    const Picture texture = waves(64, 64);
    const unsigned char* const pixels = texture.pixels.data();
    const auto mismatch = [&](float gx, float gy, int level = 0, float x = 32) {
        float g[2] = {gx, 0};
        float v[2] = {0, gy};
        float b[2] = {7, 7};
        return getMismatchVector(pixels, pixels, 64, 64, 5, level, at(x, 32), g, v, b);
    };
    // The window ends 5 pixels from the point; the image holds 0 <= x < 64.
    EXPECT_LE(0, mismatch(26.99F, 0));
    EXPECT_EQ(-1, mismatch(27, 0));
    EXPECT_LE(0, mismatch(0, -27));
    EXPECT_EQ(-1, mismatch(0, std::nextafter(-27.0F, -30.0F)));
    for (float wild : {NOT_A_NUMBER, -1e30F, 3e9F}) {
        SCOPED_TRACE(wild);
        EXPECT_EQ(-1, mismatch(wild, 0));
        EXPECT_EQ(-1, mismatch(0, wild, 2));
        EXPECT_EQ(0, mismatch(0, wild, 0, wild));  // no samples, so none that leaves
    }
}

TEST(LucasKanade, BordersAreTrackedUpToTheirExactLimit) {
    const Picture texture = waves(200, 160);
    LK_Params params = USUAL;
    params.border_x = 40;
    params.border_y = 30;
    // Each second one is outside.
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
        SCOPED_TRACE(i);
        EXPECT_EQ(i % 2 == 0 ? 1 : 0, status[i]);
        EXPECT_EQ(i % 2 == 0 ? points[i].y : 0, found[i].y);
        EXPECT_TRUE(found[i].response == 17 && found[i].reserved == 99);
    }
}

TEST(LucasKanade, ResidualLimitIsAMeanOf25) {
    const Picture prev = noise(60, 60, 3, 200);
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
