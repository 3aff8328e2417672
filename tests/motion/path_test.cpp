// SPDX-License-Identifier: Apache-2.0

// The path of the stated interface (composition, repair and smoothing of motions), and the planned
// one with what it is planned from.

#include <functional>
#include <memory>
#include <random>

#include "path/crop.h"
#include "path/motion_history.h"
#include "path/path_planner.h"
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

constexpr double PI = 3.14159265358979323846;

using Poses = std::vector<CameraPose>;

// How far the outermost samples of a steady picture lie outside its source, pixels.
double outside(const PathPlannerSettings& s, const PlannedPose& planned) {
    const PictureCentre half = picture_centre(s.width, s.height);
    double most = 0;
    for (const double x : {-half.x, half.x}) {
        for (const double y : {-half.y, half.y}) {
            const CameraPose from =
                pose_after(planned.pose, {planned.crop * x, planned.crop * y, 0, 0});
            most = std::max({most, std::abs(from.x) - half.x, std::abs(from.y) - half.y});
        }
    }
    return most;
}

struct Planned {
    Poses shaky, path;   // relative to the first frame
    double outside = 0;  // pixels
    int guarded = 0;
    std::vector<double> crops;
};

Planned plan(const PathPlannerSettings& settings, std::size_t frames,
             const std::function<CameraPose(int)>& pose, std::size_t cut = 0) {
    PathPlanner planner(settings);
    Planned result;
    Poses& shaky = result.shaky;
    for (std::size_t n = 0; n < frames; ++n) {
        shaky.push_back(pose(static_cast<int>(n)));
    }
    for (std::size_t n = 0; n < frames; ++n) {
        Poses camera;
        const auto end = n + static_cast<std::size_t>(settings.look_ahead) + 1;
        for (std::size_t k = n; k < std::min(end, frames); ++k) {
            camera.push_back(pose_seen_from(shaky[k], shaky[n]));
        }
        if (n == cut) {
            planner.begin_scene();
        }
        const PlannedPose planned = planner.plan(camera.data(), static_cast<int>(camera.size()));
        result.outside = std::max(result.outside, outside(settings, planned));
        result.guarded += planned.guarded ? 1 : 0;
        result.crops.push_back(planned.crop);
        EXPECT_TRUE(planned.granted >= 0 && planned.granted <= 1);
        result.path.push_back(pose_after(shaky[n], planned.pose));
        if (camera.size() > 1) {
            planner.advance(camera[1]);
        }
    }
    return result;
}

// The largest change of speed, pixels.
double jerk(const Poses& path) {
    double most = 0;
    for (std::size_t n = 2; n < path.size(); ++n) {
        most = std::max(most, std::hypot(path[n].x - 2 * path[n - 1].x + path[n - 2].x,
                                         path[n].y - 2 * path[n - 1].y + path[n - 2].y));
    }
    return most;
}

TEST(PathPlanner, StaysWithinTheSourceWhateverTheCameraDoes) {
    std::mt19937 generator(7);
    const auto random = [&generator] {  // -1..1
        return static_cast<double>(generator()) / 2147483647.5 - 1;
    };
    const auto pose = [&random](int path, int n) -> CameraPose {
        switch (path) {
            case 0:
                return {200 * random(), 150 * random(), 0.3 * random(), 0.2 * random()};
            case 1:
                return {25.0 * n, -9.0 * n, 0.35 * std::sin(2 * PI * n / 40), 0};
            case 2:
                return {0, 0, 0, 0.5 * std::sin(2 * PI * n / 50)};
            case 3:  // after the scene cut, a zoom without shake
                return n < 45 ? CameraPose{120.0 * (n % 2), 0, 0, 0}
                              : CameraPose{0, 0, 0, 0.02 * n};
            default:
                return {30.0 * n + 20 * random(), 40 * std::sin(n / 3.0),
                        0.3 * std::sin(n / 9.0) + 0.02 * random(), 0.01 * n};
        }
    };
    const PathPlannerSettings settings[] = {
        {1280, 720, 10, 10, 0.9},
        {270, 480, 20, 14, 0.9},
        {640, 360, 1, 3, 0.95},
        {640, 360, 60, 30, 0.6},
        {1280, 720, 30, 1000, 0.9},
        {640, 360, 10, 0.25, 0.8},
        {640, 360, 20, 14, 0, 0.65, 0.95},
        {1280, 720, 1, 10, 0, 0.5, 0.99},
    };
    for (const PathPlannerSettings& s : settings) {
        for (int path = 0; path < 5; ++path) {
            SCOPED_TRACE(testing::Message() << s.width << " x " << s.height << ", look-ahead "
                                            << s.look_ahead << ", path " << path);
            EXPECT_EQ(plan(
                          s, 90, [&](int n) { return pose(path, n); }, 45)
                          .outside,
                      0);
        }
    }
}

// The picture is enlarged before a shake begins, and nobody sees it zoom.
TEST(PathPlanner, ShowsAsMuchAsThePathAllows) {
    const auto swing = [](int n) {  // from frame 100 to 200
        return n >= 100 && n < 200 ? 60 * std::sin(2 * PI * n / 12.5) : 0;
    };
    const PathPlannerSettings settings = {640, 360, 20, 14, 0, 0.65, 0.95};
    const auto crops = plan(settings, 500, [&](int n) {
                           return CameraPose{swing(n), 0, 0, 0};
                       }).crops;
    EXPECT_EQ(crops[79], 0.95);
    EXPECT_LT(crops[99], 0.935);
    EXPECT_LT(crops[150], 0.87);
    EXPECT_GT(crops[499], 0.93);
    double before = 0;
    for (std::size_t n = 1; n < crops.size(); ++n) {
        const double speed = std::log(crops[n] / crops[n - 1]);
        EXPECT_GE(speed, -0.00201);
        EXPECT_LE(speed, 0.00051);
        EXPECT_LE(std::abs(speed - before), 0.000101);
        before = speed;
    }
    // A scene begins with the crop that it needs.
    EXPECT_LT(plan(settings, 60,
                   [&](int n) {
                       return CameraPose{swing(n + 110), 0, 0, 0};
                   })
                  .crops[0],
              0.87);
}

// With more shake than room the limits are met all the time. Clamping at the limits would pass every
// knock on; the planned path must not.
TEST(PathPlanner, MeetsTheLimitsWithoutJerks) {
    const auto wave = [](int n, double period) { return std::sin(2 * PI * n / period); };
    const struct {
        std::function<CameraPose(int)> pose;
        double share;  // of the camera's own jerks that may be left
    } cases[] = {
        {[&](int n) -> CameraPose {
             return {90 * wave(n, 35) + 12 * wave(n, 7), 60 * wave(n, 28) + 8 * wave(n, 5), 0, 0};
         },
         1.0 / 6},
        // Turns, slow or quick, take room away from a shift that could be followed.
        {[&](int n) -> CameraPose {
             return {0, 60 * wave(n, 28), 0.01 * wave(n, 31), 0};
         },
         0.7},
        {[&](int n) -> CameraPose {
             return {0, 60 * wave(n, 28), 0.04 * wave(n, 7), 0};
         },
         1},
    };
    for (const auto& c : cases) {
        const Planned planned = plan({1280, 720, 20, 14, 0.9}, 200, c.pose);
        EXPECT_GT(planned.guarded, 150);
        EXPECT_LT(jerk(planned.path), c.share * jerk(planned.shaky));
    }
}

// From standing still to a fast pan: the picture starts to move gently, and then keeps up.
TEST(PathPlanner, FollowsAPanInsteadOfHangingAtTheLimit) {
    constexpr double SPEED = 12;  // pixels per frame
    for (const int look_ahead : {10, 20, 30}) {
        SCOPED_TRACE(look_ahead);
        const PathPlannerSettings settings = {1280, 720, look_ahead, 1.0 * look_ahead, 0.9};
        const Poses path = plan(settings, 200, [](int n) {
                               return CameraPose{SPEED * std::max(0, n - 60), 0, 0, 0};
                           }).path;
        double fastest = 0;
        for (std::size_t n = 1; n < path.size(); ++n) {
            fastest = std::max(fastest, path[n].x - path[n - 1].x);
        }
        EXPECT_LT(jerk(path), SPEED / 4);
        EXPECT_LT(fastest, 1.25 * SPEED);
        EXPECT_NEAR(path[150].x - path[149].x, SPEED, 0.05);
    }
}

// Steps of a shift right each: 'x' is not found, 'X' not found and strange.
TEST(MotionHistory, ClosesGapsAndTellsThemFromSceneCuts) {
    const struct {
        const char* steps;  // shifts in pixels
        double shift;       // wanted for step k
        int k;
        bool repaired, cut;
    } cases[] = {
        {"2222", 2, 2, false, false},  {"222x66", 4, 3, true, false},
        {"222xx8", 4, 3, true, false}, {"222xx8", 6, 4, true, false},
        {"24x", 3, 2, true, false},    {"x46", 5, 0, true, false},
        {"222X22", 0, 3, false, true}, {"X2", 0, 0, false, true},
        {"22XX22", 2, 2, true, false}, {"22X922", 2 + (13 / 3.0 - 2) / 2, 2, true, false},
        {"222X", 2, 3, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.steps << ", step " << c.k);
        MotionHistory history(100, 100, 10, true, true);  // 7 pixels are a large step
        std::int64_t k = 0;
        for (const char* step = c.steps; *step != '\0'; ++step, ++k) {
            const bool found = *step >= '0' && *step <= '9';
            const double shift = found ? *step - '0' : 0;
            CameraStep camera;
            camera.pose.x = shift;
            camera.found = found;
            camera.strange = *step == 'X';
            history.add(k, camera);
        }
        expect_pose(history.step(c.k), {c.shift, 0, 0, 0}, 1e-5, 0);
        EXPECT_EQ(history.is_repaired(c.k), c.repaired);
        EXPECT_EQ(history.is_cut(c.k), c.cut);
        EXPECT_EQ(history.scene_around(c.k + 1).first, c.cut ? c.k + 1 : 0);
        EXPECT_EQ(history.scene_around(c.k).end, c.cut ? c.k + 1 : k + 1);
    }
}

TEST(CameraPose, ConvertsToMotionsAndBack) {
    const PictureCentre centre = picture_centre(640, 480);
    const CameraPose first = {12, -7, 0.2, 0.1};
    const CameraPose second = {-30, 4, -0.35, -0.2};
    for (const CameraPose& pose : {first, second, pose_after(first, second)}) {
        float motion[9];
        motion_of_pose(pose, centre, motion);
        CameraPose back;
        ASSERT_TRUE(pose_of_motion(motion, centre, back));
        expect_pose(back, pose, 1e-3, 1e-6);
    }
    expect_pose(pose_seen_from(pose_after(first, second), first), second, 1e-9, 1e-12);
    CameraPose none;
    const float mirrored[9] = {-1, 0, 0, 0, 1, 0, 0, 0, 1};
    EXPECT_FALSE(pose_of_motion(mirrored, centre, none));
}

TEST(Crop, EnlargesTheCorrectedPictureAboutItsCentre) {
    Mat<float> correction(3, 3);
    const float shifted[9] = {1, 0, 10, 0, 1, -4, 0, 0, 1};
    std::copy_n(shifted, 9, correction.data);
    fold_in_crop(picture_centre(101, 51), 0.5, correction);
    expect_motion(correction, {2, 0, 20 - 50, 0, 2, -8 - 25}, 0, 0);
}

}  // namespace
}  // namespace videostabilizer
