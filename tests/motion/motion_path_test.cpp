#include "videostabilizer/motion_path.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

constexpr std::size_t SLOTS = 21;

TEST(GetMotion, CarriesPointsAlongThePathAndBack) {
    std::vector<Affine> path;  // of motions that differ from slot to slot and do not commute
    for (std::size_t i = 0; i < SLOTS; ++i) {
        const float t = static_cast<float>(i);
        path.push_back({1.0F + 0.01F * t, 0.02F * t, 3.0F - t, -0.03F * t, 0.9F, 2.0F * t});
    }
    const History history(path);
    const struct {
        int from;
        int to;
    } cases[] = {{5, 5}, {3, 4}, {3, 5}, {2, 7}, {4, 3}, {7, 2}, {9, 1}, {19, 24}, {45, 40}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "from " << c.from << " to " << c.to);
        KeyPoint start{37, -11, 0, 0};
        KeyPoint end = start;
        for (int i = std::min(c.from, c.to); i < std::max(c.from, c.to); ++i) {
            end = move_point(path[static_cast<std::size_t>(i) % SLOTS], end);
        }
        if (c.to < c.from) {
            std::swap(start, end);
        }
        auto* m = new Mat<float>(3, 3);
        const std::unique_ptr<Mat<float>> result(getMotion(m, c.from, c.to, history.motions));
        EXPECT_EQ(result.get() == m, (c.to - c.from) % 2 == 0);
        Affine rows;
        std::copy_n(result->data, 6, rows.begin());
        EXPECT_TRUE(is_motion(*result, rows, 0, 0));  // the last row
        EXPECT_NEAR(move_point(rows, start).x, end.x, 1e-3F);
        EXPECT_NEAR(move_point(rows, start).y, end.y, 1e-3F);
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
    const struct {
        const char* name;
        std::vector<std::size_t> failed;
        int from, to;
        std::size_t slot;
        float shift;  // wanted, pixels
        int status;
    } cases[] = {
        {"both neighbours", {4}, 0, 9, 4, (0.2F * 30 + 0.1F * 50) / 1.3F, 2},
        {"first of the range", {4}, 4, 9, 4, 0.1F * 50 / 1.1F, 2},
        {"last of the range", {4}, 0, 5, 4, 0.2F * 30 / 1.2F, 2},
        {"second of two", {4, 5}, 0, 9, 5, 0.1F * 60 / 1.1F, 2},
        {"across the end of the ring", {0}, 20, 23, 0, (0.1F * 200 + 0.2F * 10) / 1.3F, 2},
        {"outside the range", {4}, 5, 9, 4, 0, 1},
        {"good motion", {4}, 0, 9, 3, 30, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Affine> path(SLOTS, IDENTITY);
        std::vector<MotionLog> logs(SLOTS);
        for (std::size_t i = 0; i < SLOTS; ++i) {
            const bool failed = std::count(c.failed.begin(), c.failed.end(), i) != 0;
            path[i][2] = failed ? 0.0F : 10.0F * static_cast<float>(i);
            logs[i] = {50, 40, i <= 4 ? 0.8F : 0.4F, failed ? 1 : 0};
        }
        History history(path);
        check_motions(history.motions, logs, c.from, c.to);
        EXPECT_TRUE(is_motion(*history.motions[c.slot], {1, 0, c.shift, 0, 1, 0}, 1e-6F, 1e-4F));
        EXPECT_EQ(logs[c.slot].status, c.status);
    }
}

}  // namespace
}  // namespace videostabilizer
