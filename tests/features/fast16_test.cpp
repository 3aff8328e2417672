#include "videostabilizer/fast16.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <ostream>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "tests/features/picture.h"
#include "tests/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace videostabilizer {

static bool operator==(const KeyPoint& a, const KeyPoint& b) {
    return a.x == b.x && a.y == b.y && a.response == b.response && a.reserved == b.reserved;
}

static std::ostream& operator<<(std::ostream& out, const KeyPoint& point) {
    return out << "(" << point.x << ", " << point.y << "; " << point.response << ", "
               << point.reserved << ")";
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
        // Nothing may depend on what the scratch memory held.
        std::memset(params.buffer, 0xA5, 15 * static_cast<std::size_t>(width) + 368);
    }
    ~Detector() { fast16_fini(&params); }
    Detector(const Detector&) = delete;
    Detector& operator=(const Detector&) = delete;

    std::vector<KeyPoint> run(const Picture& picture) {
        std::vector<KeyPoint> found(3, KeyPoint{1, 2, 3, 4});
        fast16(picture.pixels.data(), found, picture.width, picture.height, &params);
        return found;
    }

    FastParams params;
};

// The pixels at a rounded distance of 3, by angle.
std::vector<std::pair<int, int>> circle() {
    std::vector<std::pair<int, int>> points;
    for (int y = -4; y <= 4; ++y) {
        for (int x = -4; x <= 4; ++x) {
            if (std::lround(std::hypot(x, y)) == 3) {
                points.emplace_back(x, y);
            }
        }
    }
    std::sort(points.begin(), points.end(), [](const auto& a, const auto& b) {
        return std::atan2(a.second, a.first) < std::atan2(b.second, b.first);
    });
    return points;
}

bool passes(const Picture& picture, int x, int y, int threshold) {
    static const std::vector<std::pair<int, int>> points = circle();
    const auto run_of_nine = [&](std::size_t start, int sign) {
        for (std::size_t k = 0; k < 9; ++k) {
            const auto [dx, dy] = points[(start + k) % 16];
            if (sign * (picture.at(x + dx, y + dy) - picture.at(x, y)) <= threshold) {
                return false;
            }
        }
        return true;
    };
    for (std::size_t start = 0; start < 16; ++start) {
        if (run_of_nine(start, 1) || run_of_nine(start, -1)) {
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
    const auto squares = [](int x, int y) {
        return x % 20 < 8 && y % 18 < 9 ? 180 + x % 20 + y % 18 : 40;
    };

    const struct {
        const char* name;
        int width;
        int height;
        std::function<int(int, int)> level;
        Settings settings;
        bool any_corners;
    } cases[] = {
        {"noise", 97, 61, noise, {25, 1, 8, 3, 3}, true},
        {"noise without suppression", 64, 40, noise, {25, 0, 2, 3, 3}, true},
        {"noise, threshold below 0", 50, 50, noise, {-5, 1, 6, 3, 4}, true},
        {"noise, threshold 0, no suppression", 50, 50, noise, {0, 0, 3, 4, 3}, true},
        {"equal scores abound", 120, 80, coarse_noise, {10, 1, 4, 3, 3}, true},
        {"dots", 131, 77, dots, {25, 1, 16, 5, 9}, true},
        {"dots, highest threshold", 131, 77, dots, {254, 1, 16, 5, 9}, true},
        {"dots, threshold above 255", 131, 77, dots, {300, 1, 16, 5, 9}, false},
        {"holes", 90, 90, holes, {25, 1, 9, 3, 3}, true},
        {"squares", 100, 70, squares, {25, 1, 2, 3, 3}, true},
        {"64 cells", 512, 30, dots, {25, 1, 8, 3, 3}, true},
        {"a column past 64 cells", 513, 30, dots, {25, 1, 8, 3, 3}, true},
        {"175 cells", 700, 30, noise, {10, 1, 4, 3, 3}, true},
        {"500 cells", 1000, 24, dots, {25, 0, 2, 3, 3}, true},
        {"cell as large as the image", 60, 60, dots, {25, 1, 60, 3, 3}, true},
        {"one row", 300, 7, dots, {25, 0, 4, 3, 3}, true},
        {"one column", 7, 200, dots, {25, 0, 4, 3, 3}, true},
        {"no row", 60, 6, dots, {25, 1, 4, 3, 3}, false},
        {"no column", 6, 60, dots, {25, 1, 4, 3, 3}, false},
        {"less than the border rows", 60, 5, dots, {25, 1, 4, 3, 3}, false},
        {"less than the border columns", 5, 60, dots, {25, 1, 4, 3, 3}, false},
        {"a single pixel", 1, 1, noise, {25, 1, 4, 3, 3}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Detector detector(c.settings, c.width, c.height);
        for (int pass = 0; pass < 3; ++pass) {  // other pictures, same scratch memory
            const Picture picture(c.width, c.height, c.level);
            const std::vector<KeyPoint> expected = corners_by_definition(picture, c.settings);
            EXPECT_EQ(c.any_corners, !expected.empty());
            EXPECT_EQ(expected, detector.run(picture));
        }
    }
}

TEST(Fast16, ScoreIsTheLargestPassingThreshold) {
    std::mt19937 random(7);
    int corners = 0;
    for (int n = 0; n < 3000; ++n) {
        // Darker or brighter surroundings mostly, or hardly any corner would come up.
        const int low = static_cast<int>(random() % 128);
        const Picture picture(7, 7, [&](int x, int y) {
            return x == 3 && y == 3 ? static_cast<int>(random() % 256)
                                    : std::min(255, low + static_cast<int>(random() % 128));
        });
        int pixel[25];
        makeOffsets(pixel, 7, 16);
        const unsigned char* const centre = &picture.pixels[picture.index(3, 3)];
        int best = -1;
        while (best < 255 && passes(picture, 3, 3, best + 1)) {
            ++best;
        }
        corners += best >= 0 ? 1 : 0;
        for (int threshold : {0, 1, 25, best}) {
            if (threshold >= 0) {
                EXPECT_EQ(std::max(best, threshold - 1), cornerScore16(centre, pixel, threshold));
            }
        }
    }
    EXPECT_GT(corners, 500);
}

TEST(Fast16, FindsASingleDotAndDropsEqualNeighbours) {
    const auto on_grey = [](std::vector<std::pair<int, int>> dots, int level) {
        return Picture(40, 40, [=](int x, int y) {
            return std::find(dots.begin(), dots.end(), std::pair(x, y)) != dots.end() ? level : 100;
        });
    };
    const auto detect = [](const Settings& settings, const Picture& picture) {
        return Detector(settings, picture.width, picture.height).run(picture);
    };
    const Settings plain;
    EXPECT_THAT(detect(plain, on_grey({}, 0)), IsEmpty());
    EXPECT_THAT(detect(plain, on_grey({{20, 17}}, 160)), ElementsAre(KeyPoint{20, 17, 59, 0}));
    EXPECT_THAT(detect(plain, on_grey({{20, 17}}, 40)), ElementsAre(KeyPoint{20, 17, 59, 0}));
    EXPECT_THAT(detect(plain, on_grey({{20, 17}}, 126)), ElementsAre(KeyPoint{20, 17, 25, 0}));
    EXPECT_THAT(detect(plain, on_grey({{20, 17}}, 125)), IsEmpty());
    EXPECT_THAT(detect(plain, on_grey({{20, 17}, {21, 17}}, 160)), IsEmpty());
    EXPECT_THAT(detect(plain, on_grey({{20, 17}, {19, 18}}, 160)), IsEmpty());
    // One cell: bands of 4 rows begin at rows 15 and 19, and the first corner in a band stays.
    EXPECT_THAT(detect(plain, on_grey({{20, 16}, {17, 18}}, 160)),
                ElementsAre(KeyPoint{20, 16, 59, 0}));
    EXPECT_THAT(detect(plain, on_grey({{20, 16}, {17, 19}}, 160)),
                ElementsAre(KeyPoint{20, 16, 59, 0}, KeyPoint{17, 19, 59, 0}));
    EXPECT_THAT(detect({25, 0, 8, 3, 3}, on_grey({{20, 17}, {21, 17}}, 160)),
                ElementsAre(KeyPoint{20, 17, 0, 0}));
}

TEST(Fast16, InitFillsEveryFieldAndReportsNoMemory) {
    for (const auto& [given, stored] :
         {std::pair(-5, 0), {0, 0}, {25, 25}, {255, 255}, {300, 255}}) {
        Detector detector({given, 7, 12, 4, 5}, 33, 44);
        const FastParams& p = detector.params;
        EXPECT_THAT((std::array{p.threshold, p.nonmax_suppression, p.cell_size, p.reserved,
                                p.border_x, p.border_y, p.width, p.height}),
                    ElementsAre(stored, 7, 12, 0, 4, 5, 33, 44));
        for (int d = -255; d <= 255; ++d) {
            ASSERT_EQ(d > stored ? 2 : d < -stored ? 1 : 0, p.threshold_tab[d + 255]) << d;
        }
    }

    test_support::clear_log();
    FastParams params;
    EXPECT_EQ(-1, fast16_init(&params, 25, 1, 8, 6, 3, 3, -1, 44));
    EXPECT_EQ(nullptr, params.buffer);
    EXPECT_EQ(6, params.reserved);
    EXPECT_EQ(4, params.pixel[2] - params.pixel[14]);  // (2, 2) and (-2, 2)
    EXPECT_THAT(test_support::log_lines(),
                ElementsAre(test_support::LogLine{6, "log_utils", "OUT OF MEMORY!!!"}));
    fast16_fini(&params);
}

TEST(Fast16, CallsThatCannotBeServedFindNothing) {
    const Picture dot(40, 40, [](int x, int y) { return x == 20 && y == 20 ? 200 : 0; });
    const struct {
        const char* name;
        Settings settings;
        int init_width;
    } cases[] = {
        {"other width", {25, 1, 8, 3, 3}, 41},
        {"width 0", {25, 1, 8, 3, 3}, 0},
        {"cell size 1", {25, 1, 1, 3, 3}, 40},
        {"cell size 0", {25, 1, 0, 3, 3}, 40},
        {"negative cell", {25, 1, -8, 3, 3}, 40},
        {"border_x 2", {25, 1, 8, 2, 3}, 40},
        {"border_y 2", {25, 1, 8, 3, 2}, 40},
        {"negative borders", {25, 1, 8, -9, -9}, 40},
        {"huge borders", {25, 1, 8, 1 << 30, 1 << 30}, 40},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_THAT(Detector(c.settings, c.init_width, 40).run(dot), IsEmpty());
    }
}

TEST(Fast16, OffsetsGoRoundACircleFromBelow) {
    for (const auto& [size, radius] : {std::pair(16, 3), {12, 2}, {8, 1}}) {
        SCOPED_TRACE(size);
        constexpr int stride = 1000;
        int pixel[25];
        makeOffsets(pixel, stride, size);
        std::set<int> distinct;
        EXPECT_EQ(radius * stride, pixel[0]);
        EXPECT_EQ(radius * stride + 1, pixel[1]);  // to the right first
        for (int k = 0; k < size; ++k) {
            distinct.insert(pixel[k]);
            const long dy = std::lround(pixel[k] / double{stride});
            const long dx = pixel[k] - dy * stride;
            EXPECT_EQ(radius, std::lround(std::hypot(dx, dy) - 0.1)) << k;
            EXPECT_EQ(-pixel[k], pixel[(k + size / 2) % size]) << k;
        }
        EXPECT_EQ(static_cast<std::size_t>(size), distinct.size());
        for (int k = size; k < 25; ++k) {
            EXPECT_EQ(pixel[k - size], pixel[k]) << k;
        }
    }
}

}  // namespace
