#include "motion/path_planner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "motion/camera_pose.h"

namespace videostabilizer {
namespace {

constexpr double PI = 3.14159265358979323846;

using Poses = std::vector<CameraPose>;

struct Planned {
    Poses path;      // seen from the first frame
    double outside;  // how far samples lie outside the source, pixels
    int guarded;
};

// The outermost samples of one picture.
double outside(const PathPlannerSettings& settings, const CameraPose& pose) {
    float m[9];
    motion_of_pose(pose, picture_centre(settings.width, settings.height), m);
    const double det = static_cast<double>(m[0] * m[4] - m[1] * m[3]);
    const double last_x = settings.width - 1;
    const double last_y = settings.height - 1;
    double most = 0;
    for (const double corner_x : {-0.5 * last_x, 0.5 * last_x}) {
        for (const double corner_y : {-0.5 * last_y, 0.5 * last_y}) {
            const double x =
                0.5 * last_x + settings.crop_ratio * corner_x - static_cast<double>(m[2]);
            const double y =
                0.5 * last_y + settings.crop_ratio * corner_y - static_cast<double>(m[5]);
            const double from_x =
                (static_cast<double>(m[4]) * x - static_cast<double>(m[1]) * y) / det;
            const double from_y =
                (static_cast<double>(m[0]) * y - static_cast<double>(m[3]) * x) / det;
            most = std::max({most, -from_x, -from_y, from_x - last_x, from_y - last_y});
        }
    }
    return most;
}

Planned plan(const PathPlannerSettings& settings, const Poses& shaky) {
    PathPlanner planner(settings);
    Planned result{{}, 0, 0};
    const int frames = static_cast<int>(shaky.size());
    for (int n = 0; n < frames; ++n) {
        const auto now = static_cast<std::size_t>(n);
        const int count = std::min(settings.look_ahead, frames - 1 - n) + 1;
        Poses camera;
        for (int k = 0; k < count; ++k) {
            camera.push_back(pose_seen_from(shaky[now + static_cast<std::size_t>(k)], shaky[now]));
        }
        const PlannedPose planned = planner.plan(camera.data(), count);
        result.outside = std::max(result.outside, outside(settings, planned.pose));
        result.guarded += planned.guarded ? 1 : 0;
        EXPECT_GE(planned.granted, 0);
        EXPECT_LE(planned.granted, 1);
        result.path.push_back(pose_after(shaky[now], planned.pose));
        if (n + 1 < frames) {
            planner.advance(pose_seen_from(shaky[now + 1], shaky[now]));
        }
    }
    return result;
}

Poses make_path(int frames, const std::function<CameraPose(int)>& pose) {
    Poses path;
    for (int n = 0; n < frames; ++n) {
        path.push_back(pose(n));
    }
    return path;
}

// Root mean square of the change of speed, pixels.
double change_of_speed(const Poses& path) {
    double sum = 0;
    for (std::size_t n = 1; n + 1 < path.size(); ++n) {
        sum += std::pow(path[n + 1].x - 2 * path[n].x + path[n - 1].x, 2) +
               std::pow(path[n + 1].y - 2 * path[n].y + path[n - 1].y, 2);
    }
    return std::sqrt(sum / static_cast<double>(path.size() - 2));
}

TEST(PathPlanner, StaysWithinTheSourceWhateverTheCameraDoes) {
    std::mt19937 generator(7);
    const auto random = [&generator] {  // -1..1
        return static_cast<double>(generator()) / 2147483647.5 - 1;
    };
    const std::function<CameraPose(int)> paths[] = {
        [&](int) {
            return CameraPose{200 * random(), 150 * random(), 0.3 * random(), 0.2 * random()};
        },
        [](int n) {
            return CameraPose{0, 0, 0.35 * std::sin(2 * PI * n / 40), 0};
        },
        [](int n) {
            return CameraPose{25.0 * n, -9.0 * n, 0, 0};
        },
        [](int n) {
            return CameraPose{0, 0, 0, 0.5 * std::sin(2 * PI * n / 50)};
        },
        [&](int n) {
            return CameraPose{30.0 * n + 20 * random(), 40 * std::sin(n / 3.0),
                              0.3 * std::sin(n / 9.0) + 0.02 * random(), 0.01 * n};
        },
    };
    const PathPlannerSettings settings[] = {
        {1280, 720, 10, 10, 0.9}, {270, 480, 20, 14, 0.9},    {640, 360, 1, 3, 0.95},
        {640, 360, 60, 30, 0.6},  {1280, 720, 30, 1000, 0.9}, {640, 360, 10, 0.25, 0.8},
    };
    for (const PathPlannerSettings& s : settings) {
        for (const auto& path : paths) {
            SCOPED_TRACE(std::to_string(s.width) + " x " + std::to_string(s.height) + ", path " +
                         std::to_string(&path - paths) + ", look-ahead " +
                         std::to_string(s.look_ahead));
            EXPECT_EQ(plan(s, make_path(90, path)).outside, 0);
        }
    }
}

// Where there is more shake than room, the limits are met all the time. Cutting off at the limits
// would hand every knock on; the planned path must not.
TEST(PathPlanner, MeetsTheLimitsWithoutJerks) {
    const PathPlannerSettings settings = {1280, 720, 20, 14, 0.9};
    const Poses shaky = make_path(200, [](int n) {
        return CameraPose{90 * std::sin(2 * PI * n / 35) + 12 * std::sin(2 * PI * n / 7),
                          60 * std::sin(2 * PI * n / 28) + 8 * std::sin(2 * PI * n / 5), 0, 0};
    });
    const Planned planned = plan(settings, shaky);
    EXPECT_GT(planned.guarded, 150);
    const double before = change_of_speed(shaky);
    EXPECT_LT(change_of_speed(planned.path), before / 7);
}

// From standing still to a fast pan: the picture gets going gently, and then keeps up with it.
TEST(PathPlanner, FollowsAPanInsteadOfHangingAtTheLimit) {
    constexpr double SPEED = 12;  // pixels per frame
    constexpr int START = 60;
    for (const int look_ahead : {10, 20, 30}) {
        SCOPED_TRACE(look_ahead);
        const Planned planned = plan({1280, 720, look_ahead, static_cast<double>(look_ahead), 0.9},
                                     make_path(200, [](int n) {
                                         return CameraPose{SPEED * std::max(0, n - START), 0, 0, 0};
                                     }));
        double fastest = 0;
        double jerk = 0;
        for (std::size_t n = 2; n < planned.path.size(); ++n) {
            const double speed = planned.path[n].x - planned.path[n - 1].x;
            fastest = std::max(fastest, speed);
            jerk = std::max(jerk, std::abs(speed - planned.path[n - 1].x + planned.path[n - 2].x));
        }
        EXPECT_LT(jerk, SPEED / 4);
        EXPECT_LT(fastest, 1.25 * SPEED);
        EXPECT_NEAR(planned.path[150].x - planned.path[149].x, SPEED, 0.05);
    }
}

TEST(PathPlanner, LeavesASteadyCameraAlone) {
    const Poses pan = make_path(60, [](int n) { return CameraPose{2.0 * n, -1.0 * n, 0, 0}; });
    const Planned planned = plan({640, 360, 10, 3, 0.9}, pan);
    for (std::size_t n = 20; n < 40; ++n) {  // away from the ends, which see one side only
        EXPECT_NEAR(planned.path[n].x - planned.path[n - 1].x, 2, 0.01);
        EXPECT_NEAR(planned.path[n].y - planned.path[n - 1].y, -1, 0.01);
    }
    EXPECT_EQ(planned.guarded, 0);
}

TEST(CameraPose, AndMotionsAreTwoViewsOfTheSame) {
    const PictureCentre centre = picture_centre(640, 480);
    const CameraPose first = {12, -7, 0.2, 0.1};
    const CameraPose second = {-30, 4, -0.35, -0.2};
    for (const CameraPose& pose : {first, second, pose_after(first, second)}) {
        float motion[9];
        motion_of_pose(pose, centre, motion);
        CameraPose back;
        ASSERT_TRUE(pose_of_motion(motion, centre, back));
        EXPECT_NEAR(back.x, pose.x, 1e-3);
        EXPECT_NEAR(back.y, pose.y, 1e-3);
        EXPECT_NEAR(back.angle, pose.angle, 1e-6);
        EXPECT_NEAR(back.zoom, pose.zoom, 1e-6);
    }
    const CameraPose again = pose_seen_from(pose_after(first, second), first);
    EXPECT_NEAR(again.x, second.x, 1e-9);
    EXPECT_NEAR(again.angle, second.angle, 1e-12);
    CameraPose none;
    const float mirrored[9] = {-1, 0, 0, 0, 1, 0, 0, 0, 1};
    EXPECT_FALSE(pose_of_motion(mirrored, centre, none));
}

}  // namespace
}  // namespace videostabilizer
