// SPDX-License-Identifier: Apache-2.0

// The path of the stated interface: composition, repair and smoothing of motions.

#include <memory>

#include "tests/motion/test_support.h"
#include "videostabilizer/gaussian_motion_filter.h"
#include "videostabilizer/motion_path.h"

namespace videostabilizer {
namespace {

constexpr std::size_t SLOTS = 21;

TEST(GetMotion, MapsPointsAlongThePathAndBack) {
    std::vector<Affine> path;  // of motions that differ from slot to slot and do not commute
    for (std::size_t i = 0; i < SLOTS; ++i) {
        const float t = static_cast<float>(i);
        path.push_back({1.0F + 0.01F * t, 0.02F * t, 3.0F - t, -0.03F * t, 0.9F, 2.0F * t});
    }
    const History history(path);
    const int cases[][2] = {{5, 5}, {3, 4}, {3, 5},   {2, 7},  {4, 3},
                            {7, 2}, {9, 1}, {19, 24}, {45, 40}};
    for (const auto& [from, to] : cases) {
        SCOPED_TRACE(testing::Message() << "from " << from << " to " << to);
        KeyPoint start{37, -11, 0, 0};
        KeyPoint end = start;
        for (int i = std::min(from, to); i < std::max(from, to); ++i) {
            end = move_point(path[static_cast<std::size_t>(i) % SLOTS], end);
        }
        if (to < from) {
            std::swap(start, end);
        }
        auto* m = new Mat<float>(3, 3);
        const std::unique_ptr<Mat<float>> result(getMotion(m, from, to, history.motions));
        EXPECT_EQ(result.get() == m, (to - from) % 2 == 0);
        Affine rows;
        std::copy_n(result->data, 6, rows.begin());
        expect_motion(*result, rows, 0, 0);  // the last row
        EXPECT_NEAR(move_point(rows, start).x, end.x, 1e-3F);
        EXPECT_NEAR(move_point(rows, start).y, end.y, 1e-3F);
    }
}

TEST(GetMotion, GivesZerosForSingularPathsAndTheIdentityForEmptyOnes) {
    const History singular({{1, 2, 5, 2, 4, 6}, IDENTITY});
    const std::unique_ptr<Mat<float>> zeros(
        getMotion(new Mat<float>(3, 3), 2, 0, singular.motions));
    expect_motion(*zeros, {0, 0, 0, 0, 0, 0}, 0, 0);
    const std::unique_ptr<Mat<float>> identity(getMotion(new Mat<float>(3, 3), 0, 1, {}));
    expect_motion(*identity, IDENTITY, 0, 0);
}

// Slot i moves by 10 i pixels, a failed one by none; track ratios are 0.8, but 0.4 after frame 4.
TEST(CheckMotions, BlendsFailedMotionsWithTheirGoodNeighbours) {
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
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Affine> path(SLOTS, IDENTITY);
        std::vector<MotionLog> logs(SLOTS);
        for (std::size_t i = 0; i < SLOTS; ++i) {
            path[i][2] = 10.0F * static_cast<float>(i);
            logs[i] = {50, 40, i <= 4 ? 0.8F : 0.4F, 0};
        }
        for (const std::size_t i : c.failed) {
            path[i][2] = 0;
            logs[i].status = 1;
        }
        History history(path);
        check_motions(history.motions, logs, c.from, c.to);
        expect_motion(*history.motions[c.slot], {1, 0, c.shift, 0, 1, 0}, 1e-6F, 1e-4F);
        EXPECT_EQ(logs[c.slot].status, c.status);
    }
}

using FilterPtr = std::unique_ptr<GaussianMotionFilter, decltype(&gaussian_motion_filter_delete)>;

FilterPtr make_filter(int radius) {
    return {gaussian_motion_filter_create(radius, -1.0F), gaussian_motion_filter_delete};
}

TEST(GaussianMotionFilter, NormalisesItsWeights) {
    const FilterPtr filter = make_filter(2);
    const auto expect_weights = [&filter](int radius, float stdev, float sigma_squared) {
        SCOPED_TRACE(testing::Message() << "radius " << radius << ", stdev " << stdev);
        gaussian_motion_filter_set_params(filter.get(), radius, stdev);
        EXPECT_NEAR(filter->sigma, std::sqrt(sigma_squared), 1e-6F);
        ASSERT_EQ(filter->weights.size(), static_cast<std::size_t>(2 * radius + 1));
        const float* const centre = filter->weights.data() + radius;
        float sum = 0;
        for (int i = -radius; i <= radius; ++i) {
            EXPECT_NEAR(centre[i] / centre[0], std::exp(static_cast<float>(-i * i) / sigma_squared),
                        1e-6F);
            sum += centre[i];
        }
        EXPECT_NEAR(sum, 1, 1e-6F);
    };
    expect_weights(10, -1, 10);
    expect_weights(3, 2.5F, 6.25F);
    expect_weights(4, 0, 4);
    expect_weights(9, NAN, 9);
}

TEST(GaussianMotionFilter, AveragesTheTransformsOverItsSpan) {
    const History panning(std::vector<Affine>(64, Affine{1, 0, 1, 0, 1, 0}));
    const History zooming(std::vector<Affine>(64, Affine{2, 0, 0, 0, 2, 0}));
    // exp(-1) as the weight of the neighbours of a radius-1 filter, relative to the centre.
    const float e = std::exp(-1.0F);
    const struct {
        const char* name;
        const History& history;
        int radius, idx, first, last;
        float zoom, shift, tolerance;
    } cases[] = {
        {"full span stops one frame short", panning, 10, 50, 0, 60, 1, -8.1e-5F, 2e-6F},
        {"start of the stream", panning, 10, 0, 0, 10, 1, 1.488F, 1e-3F},
        {"only the frame before", panning, 1, 50, 0, 50, 1, -1, 1e-6F},
        {"the frame before and itself", panning, 1, 50, 0, 60, 1, -e / (1 + e), 1e-6F},
        {"both directions of a zoom", zooming, 1, 5, 0, 60, (0.5F * e + 1) / (1 + e), 0, 1e-6F},
        {"cut at first", panning, 10, 50, 50, 51, 1, 0, 1e-6F},
        {"no frames yet", panning, 10, 0, 0, 0, 1, 0, 0},
        {"NaN weights", panning, 0, 5, 0, 60, 1, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Mat<float>*> motions = c.history.motions;
        std::vector<MotionLog> no_logs;
        Mat<float> out(3, 3);
        std::fill_n(out.data, 9, 7.0F);
        gaussian_motion_filter_stabilize(make_filter(c.radius).get(), out, c.idx, motions, no_logs,
                                         c.first, c.last);
        expect_motion(out, {c.zoom, 0, c.shift, 0, c.zoom, 0}, 1e-6F, c.tolerance);
    }
}

}  // namespace
}  // namespace videostabilizer
