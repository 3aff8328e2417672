#include "videostabilizer/motion_path.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

constexpr std::size_t SLOTS = 21;

// Motions that differ from slot to slot and do not commute.
std::vector<Affine> shaky_path() {
    std::vector<Affine> path;
    for (std::size_t i = 0; i < SLOTS; ++i) {
        const float t = static_cast<float>(i);
        path.push_back({1.0F + 0.01F * t, 0.02F * t, 3.0F - t, -0.03F * t, 0.9F, 2.0F * t});
    }
    return path;
}

TEST(GetMotion, CarriesPointsAlongThePathAndBack) {
    const std::vector<Affine> path = shaky_path();
    const History history(path);
    const struct {
        int from;
        int to;
    } cases[] = {{5, 5}, {3, 4}, {3, 5}, {2, 7}, {4, 3}, {7, 2}, {9, 1}, {19, 24}, {45, 40}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "from " << c.from << " to " << c.to);
        const KeyPoint early{37, -11, 0, 0};
        KeyPoint late = early;
        for (int i = std::min(c.from, c.to); i < std::max(c.from, c.to); ++i) {
            late = move_point(path[static_cast<std::size_t>(i) % SLOTS], late);
        }
        const KeyPoint& start = c.to < c.from ? late : early;
        const KeyPoint& end = c.to < c.from ? early : late;

        auto* m = new Mat<float>(3, 3);
        const std::unique_ptr<Mat<float>> result(getMotion(m, c.from, c.to, history.motions));
        EXPECT_EQ(result.get() == m, (c.to - c.from) % 2 == 0);
        const float* rows = result->data;
        const KeyPoint moved =
            move_point({rows[0], rows[1], rows[2], rows[3], rows[4], rows[5]}, start);
        EXPECT_NEAR(moved.x, end.x, 1e-3F);
        EXPECT_NEAR(moved.y, end.y, 1e-3F);
        EXPECT_EQ(rows[6], 0.0F);
        EXPECT_EQ(rows[7], 0.0F);
        EXPECT_EQ(rows[8], 1.0F);
    }
}

TEST(GetMotion, DegenerateHistories) {
    const History singular({{1, 2, 5, 2, 4, 6}, IDENTITY});
    const History empty({});
    const std::unique_ptr<Mat<float>> collapsed(
        getMotion(new Mat<float>(3, 3), 2, 0, singular.motions));
    EXPECT_TRUE(is_motion(*collapsed, {0, 0, 0, 0, 0, 0}, 0, 0));
    const std::unique_ptr<Mat<float>> unmoved(getMotion(new Mat<float>(3, 3), 0, 1, empty.motions));
    EXPECT_TRUE(is_motion(*unmoved, IDENTITY, 0, 0));
}

TEST(CheckMotions, BlendsFailedMotionsWithTheirGoodNeighbours) {
    // Slot i moves by 10 i pixels, a failed one by none; track ratios are 0.8, but 0.4 after
    // frame 4.
    struct Case {
        const char* name;
        std::vector<std::size_t> failed;
        int from, to;
        std::size_t slot;
        float shift;  // wanted, pixels
        int status;
    };
    const Case cases[] = {
        {"both neighbours", {4}, 0, 9, 4, (0.2F * 30 + 0.1F * 50) / 1.3F, 2},
        {"first of the range", {4}, 4, 9, 4, 0.1F * 50 / 1.1F, 2},
        {"last of the range", {4}, 0, 5, 4, 0.2F * 30 / 1.2F, 2},
        {"alone in the range", {4}, 4, 5, 4, 0, 2},
        {"first of two", {4, 5}, 0, 9, 4, 0.2F * 30 / 1.2F, 2},
        {"second of two", {4, 5}, 0, 9, 5, 0.1F * 60 / 1.1F, 2},
        {"between two failed ones", {4, 5, 6}, 0, 9, 5, 0, 2},
        {"across the end of the ring", {0}, 20, 23, 0, (0.1F * 200 + 0.2F * 10) / 1.3F, 2},
        {"outside the range", {4}, 5, 9, 4, 0, 1},
        {"range that runs backwards", {4}, 9, 0, 4, 0, 1},
        {"good motion", {4}, 0, 9, 3, 30, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Affine> path(SLOTS, IDENTITY);
        std::vector<MotionLog> logs(SLOTS);
        for (std::size_t i = 0; i < SLOTS; ++i) {
            path[i][2] = 10.0F * static_cast<float>(i);
            logs[i] = {50, 40, i <= 4 ? 0.8F : 0.4F, 0};
        }
        for (const std::size_t i : c.failed) {
            path[i] = IDENTITY;
            logs[i].status = 1;
        }
        History history(path);
        check_motions(history.motions, logs, c.from, c.to);
        Affine wanted = IDENTITY;
        wanted[2] = c.shift;
        EXPECT_TRUE(is_motion(*history.motions[c.slot], wanted, 1e-6F, 1e-4F));
        EXPECT_EQ(logs[c.slot].status, c.status);
    }
}

TEST(PrintMat, PrintsRowsBetweenHyphens) {
    const std::string line = "Mat" + std::string(45, '-') + "\n";
    const std::unique_ptr<Mat<float>> m(new_motion({1, 0, -2.5F, 0, 1, 0}));
    testing::internal::CaptureStdout();
    print_mat(*m);
    print_mat(Mat<float>::noMat());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), line +
                                                          "1.000000, 0.000000, -2.500000, \n"
                                                          "0.000000, 1.000000, 0.000000, \n"
                                                          "0.000000, 0.000000, 1.000000, \n" +
                                                          line + line + line);
}

}  // namespace
}  // namespace videostabilizer
