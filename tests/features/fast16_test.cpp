#include "videostabilizer/fast16.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "features/fast16_variants.h"
#include "tests/features/picture.h"
#include "tests/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace videostabilizer {

static bool operator==(const KeyPoint& a, const KeyPoint& b) {
    return a.x == b.x && a.y == b.y && a.response == b.response && a.reserved == b.reserved;
}

}  // namespace videostabilizer

namespace {

using namespace videostabilizer;

struct Settings {
    int threshold = 25;
    int suppression = 1;
    int cell_size = 8;
    int border_x = 3;
    int border_y = 3;
};

class Detector {
  public:
    Detector(const Settings& s, int width, int height) {
        EXPECT_EQ(0, fast16_init(&params, s.threshold, s.suppression, s.cell_size, 0, s.border_x,
                                 s.border_y, width, height));
        spoil_scratch();
    }
    ~Detector() { fast16_fini(&params); }
    Detector(const Detector&) = delete;
    Detector& operator=(const Detector&) = delete;

    std::vector<KeyPoint> run(const Picture& picture) {
        std::vector<KeyPoint> found(3, KeyPoint{1, 2, 3, 4});
        fast16(picture.pixels.data(), found, picture.width, picture.height, &params);
        return found;
    }

    std::vector<KeyPoint> run(const Picture& picture, const CornerVariant& variant) {
        spoil_scratch();
        std::vector<KeyPoint> found;
        detect_corners(variant, picture.pixels.data(), found, picture.width, picture.height,
                       params);
        return found;
    }

    FastParams params;

  private:
    // Nothing may depend on what the scratch memory held.
    void spoil_scratch() const {
        std::memset(params.buffer, 0xA5, 15 * static_cast<std::size_t>(params.width) + 368);
    }
};

// Whether 9 consecutive pixels of the circle, those at a rounded distance of 3, all pass.
bool passes(const Picture& picture, int x, int y, int threshold) {
    static constexpr int X[] = {3, 3, 2, 1, 0, -1, -2, -3, -3, -3, -2, -1, 0, 1, 2, 3};
    int darker = 0;
    int brighter = 0;
    for (std::size_t k = 0; k < 24; ++k) {
        const int difference = picture.at(x + X[k % 16], y + X[(k + 12) % 16]) - picture.at(x, y);
        darker = difference < -threshold ? darker + 1 : 0;
        brighter = difference > threshold ? brighter + 1 : 0;
        if (darker == 9 || brighter == 9) {
            return true;
        }
    }
    return false;
}

// The detector by its definition: score = largest passing threshold, strict 3x3 maxima, first one
// in scan order per cell and band.
std::vector<KeyPoint> corners_by_definition(const Picture& picture, const Settings& s) {
    const int threshold = std::clamp(s.threshold, 0, 255);
    Picture scores(picture.width, picture.height, [&](int x, int y) {
        if (x < s.border_x || x >= picture.width - s.border_x || y < s.border_y ||
            y >= picture.height - s.border_y || !passes(picture, x, y, threshold)) {
            return 255;  // no corner: no score gets that high
        }
        int score = threshold;
        while (passes(picture, x, y, score + 1)) {
            ++score;
        }
        return score;
    });
    const auto neighbour = [&](int x, int y) { return scores.at(x, y) % 255; };
    std::vector<KeyPoint> corners;
    std::set<std::pair<int, int>> taken;  // band, cell
    for (int y = s.border_y; y < picture.height - s.border_y; ++y) {
        for (int x = s.border_x; x < picture.width - s.border_x; ++x) {
            const int score = scores.at(x, y);
            bool kept = score != 255;
            for (int n = 0; kept && s.suppression != 0 && n < 9; ++n) {
                kept = n == 4 || score > neighbour(x + n % 3 - 1, y + n / 3 - 1);
            }
            if (kept && taken.emplace((y + 1) / (s.cell_size / 2), x / s.cell_size).second) {
                const int response = s.suppression != 0 ? score : 0;
                corners.push_back({static_cast<float>(x), static_cast<float>(y),
                                   static_cast<float>(response), 0});
            }
        }
    }
    return corners;
}

TEST(Fast16, FindsExactlyTheCornersOfTheDefinition) {
    std::mt19937 random(20240611);
    const auto noise = [&](int, int) { return static_cast<int>(random() % 256); };
    const auto coarse_noise = [&](int, int) { return static_cast<int>(random() % 4) * 20; };
    const auto dots = [&](int, int) { return random() % 23 == 0 ? 255 : 0; };
    const auto holes = [&](int, int) { return random() % 17 == 0 ? 0 : 90; };

    const struct {
        int width;
        int height;
        std::function<int(int, int)> level;
        Settings settings;
        bool any_corners;
    } cases[] = {
        {97, 61, noise, {25, 1, 8, 3, 3}, true},
        {50, 50, noise, {-5, 1, 6, 3, 4}, true},
        {120, 80, coarse_noise, {10, 1, 4, 3, 3}, true},  // equal scores abound
        {131, 77, dots, {25, 1, 16, 5, 9}, true},
        {131, 77, dots, {254, 1, 16, 5, 9}, true},
        {90, 90, holes, {25, 1, 9, 3, 3}, true},
        {513, 30, dots, {25, 1, 8, 3, 3}, true},  // 64 cells and a column
        {1000, 24, dots, {25, 0, 2, 3, 3}, true},
        {300, 7, dots, {25, 0, 4, 3, 3}, true},  // one row
        {7, 200, dots, {25, 0, 4, 3, 3}, true},
        {60, 6, dots, {25, 1, 4, 3, 3}, false},  // no row
        {1, 1, noise, {25, 1, 4, 3, 3}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Detector detector(c.settings, c.width, c.height);
        for (int pass = 0; pass < 3; ++pass) {  // other pictures, same scratch memory
            const Picture picture(c.width, c.height, c.level);
            const std::vector<KeyPoint> expected = corners_by_definition(picture, c.settings);
            EXPECT_EQ(c.any_corners, !expected.empty());
            EXPECT_EQ(expected, detector.run(picture));
            for (const CornerVariant& variant : corner_variants) {
                if (cpu_supports(variant.level)) {
                    EXPECT_EQ(expected, detector.run(picture, variant)) << variant.name;
                }
            }
        }
    }
}

// Rows shorter than a vector, as long as some, and longer by any rest.
TEST(Fast16, VariantsFindTheCornersOfThePlainScan) {
    std::mt19937 random(7);
    const std::function<int(int, int)> kinds[] = {
        [&](int, int) { return static_cast<int>(random() % 256); },
        [&](int, int) { return random() % 2 == 0 ? 0 : 255; },
        [&](int, int) { return random() % 29 == 0 ? 255 - static_cast<int>(random() % 90) : 60; },
        [](int x, int y) { return x / 5 % 2 == y / 7 % 2 ? 180 : 70; },
        [](int x, int) { return x % 6 < 3 ? 255 : 0; },
        [](int x, int y) { return x + y < 40 ? 0 : 255; },
    };
    std::size_t corners = 0;
    for (int width = 6; width < 120; ++width) {
        for (const auto& kind : kinds) {
            const Settings settings = {static_cast<int>(random() % 60) - 5,
                                       static_cast<int>(random() % 4), 2 + width % 9,
                                       3 + width % 5 / 2, 3 + width % 7 / 3};
            const Picture picture(width, 9 + width % 16, kind);
            Detector detector(settings, picture.width, picture.height);
            const std::vector<KeyPoint> expected = detector.run(picture, corner_variants[0]);
            corners += expected.size();
            for (const CornerVariant& variant : corner_variants) {
                if (cpu_supports(variant.level)) {
                    ASSERT_EQ(expected, detector.run(picture, variant))
                        << variant.name << ", " << width << " columns, picture " << &kind - kinds
                        << ", threshold " << settings.threshold;
                }
            }
        }
    }
    EXPECT_GT(corners, 5000U);
}

TEST(Fast16, ScoreOfADotIsTheLargestPassingThreshold) {
    for (const auto& [level, score] : {std::pair(160, 59), {40, 59}, {126, 25}, {125, 24}}) {
        const Picture dot(40, 40,
                          [grey = level](int x, int y) { return x == 20 && y == 17 ? grey : 100; });
        const std::vector<KeyPoint> found = Detector({}, 40, 40).run(dot);
        ASSERT_EQ(score < 25 ? 0U : 1U, found.size());
        EXPECT_TRUE(score < 25 || found[0] == (KeyPoint{20, 17, static_cast<float>(score), 0}));
        int pixel[25];
        makeOffsets(pixel, 40, 16);
        for (int threshold : {0, 25, 59, 60, 80}) {
            EXPECT_EQ(std::max(score, threshold - 1),
                      cornerScore16(&dot.pixels[dot.index(20, 17)], pixel, threshold));
        }
    }
}

TEST(Fast16, InitFillsEveryFieldAndReportsNoMemory) {
    Detector detector({300, 7, 12, 4, 5}, 33, 44);
    const FastParams& p = detector.params;
    EXPECT_THAT((std::array{p.threshold, p.nonmax_suppression, p.cell_size, p.reserved, p.border_x,
                            p.border_y, p.width, p.height}),
                ElementsAre(255, 7, 12, 0, 4, 5, 33, 44));
    test_support::clear_log();
    FastParams params;
    EXPECT_EQ(-1, fast16_init(&params, 25, 1, 8, 6, 3, 3, -1, 44));
    EXPECT_EQ(nullptr, params.buffer);
    EXPECT_THAT(test_support::log_lines(),
                ElementsAre(test_support::LogLine{6, "log_utils", "OUT OF MEMORY!!!"}));
    fast16_fini(&params);
}

TEST(Fast16, CallsThatCannotBeServedFindNothing) {
    const Picture dot(40, 40, [](int x, int y) { return x == 20 && y == 20 ? 200 : 0; });
    const Settings unserved[] = {
        {25, 1, 1, 3, 3}, {25, 1, 8, 2, 3}, {25, 1, 8, 3, 2}, {25, 1, 8, 1 << 30, 1 << 30}};
    for (const Settings& settings : unserved) {
        EXPECT_THAT(Detector(settings, 40, 40).run(dot), IsEmpty()) << &settings - unserved;
    }
    EXPECT_THAT(Detector({}, 41, 40).run(dot), IsEmpty()) << "other width";
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

}  // namespace
