#include "apps/stabilize_video/path_follower.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <string>

#include "apps/camera_path.h"
#include "tests/apps/memory_io.h"

namespace {

constexpr double DEGREES = 180 / 3.14159265358979323846;

void to_matrix(const apps::Affine& m, float matrix[9]) {
    const double values[9] = {m.a, m.b, m.c, m.d, m.e, m.f, 0, 0, 1};
    std::copy(values, values + 9, matrix);
}

// Shown the true motions of a known path and corrections onto its steady path, the follower
// tells of these two paths.
TEST(PathFollower, WritesThePathThatTheMotionsComeFrom) {
    apps::CameraSettings settings;
    settings.width = 640;
    settings.height = 480;
    const apps::CameraPath path(settings);
    constexpr int FRAMES = 60;
    constexpr int DELAY = 10;
    constexpr double CROP = 0.9;

    MemorySink sink;
    apps::PathCsv csv(sink);
    apps::PathFollower follower(320, 240);
    follower.add([&](const apps::FollowedFrame& point) { csv.write(point); });
    const videostabilizer::VideoStabilizerObserver observer = follower.observer(CROP);
    for (int newest = 0; newest < FRAMES + DELAY; ++newest) {
        float matrix[9];
        if (newest > 0 && newest < FRAMES) {
            const videostabilizer::MotionLog log = {100 + newest, 90, 0.5F, 0};
            to_matrix(apps::true_motion(path.shaky(newest - 1), path.shaky(newest), 640, 480),
                      matrix);
            observer.on_motion(observer.ctx, newest - 1, matrix, &log);
        }
        if (newest >= DELAY) {
            const int frame = newest - DELAY;
            to_matrix(apps::true_motion(path.shaky(frame), path.steady(frame), 640, 480), matrix);
            observer.on_correction(observer.ctx, frame, matrix);
            videostabilizer::VideoStabilizerReport report{};
            report.frame = frame;
            observer.on_report(observer.ctx, &report);
        }
    }
    follower.check();

    std::istringstream lines(sink.bytes);
    std::string line;
    std::getline(lines, line);
    const apps::Pose start = path.shaky(0);
    int frame = 0;
    for (; std::getline(lines, line); ++frame) {
        SCOPED_TRACE(line);
        apps::Pose shaky;
        apps::Pose steady;
        int number = -1, inliers = -1, points = -1, status = -1;
        double ratio = -1;
        ASSERT_EQ(
            std::sscanf(line.c_str(), "%d,%lf,%lf,%lf,%lf,%lf,%lf,%lf,%lf,%d,%d,%lf,%d", &number,
                        &shaky.x, &shaky.y, &shaky.angle, &shaky.zoom, &steady.x, &steady.y,
                        &steady.angle, &steady.zoom, &inliers, &points, &ratio, &status),
            13);
        EXPECT_EQ(number, frame);
        EXPECT_EQ(points, frame == 0 ? 0 : 100 + frame);
        EXPECT_EQ(inliers, frame == 0 ? 0 : 90);
        // Steps are summed in the pixels of pictures that are turned a little each way.
        constexpr double PIXELS = 0.5;
        const apps::Pose true_shaky = path.shaky(frame);
        const apps::Pose true_steady = path.steady(frame);
        EXPECT_NEAR(shaky.x, true_shaky.x - start.x, PIXELS);
        EXPECT_NEAR(shaky.y, true_shaky.y - start.y, PIXELS);
        EXPECT_NEAR(shaky.angle, (true_shaky.angle - start.angle) * DEGREES, 1e-3);
        EXPECT_NEAR(shaky.zoom, true_shaky.zoom / start.zoom, 1e-4);
        // The crop takes its share of the shift.
        const double shown_x = true_shaky.x + CROP * (true_steady.x - true_shaky.x);
        const double shown_y = true_shaky.y + CROP * (true_steady.y - true_shaky.y);
        EXPECT_NEAR(steady.x, shown_x - start.x, PIXELS);
        EXPECT_NEAR(steady.y, shown_y - start.y, PIXELS);
        EXPECT_NEAR(steady.angle, -start.angle * DEGREES, 1e-3);
        EXPECT_NEAR(steady.zoom, 1 / start.zoom, 1e-4);
    }
    EXPECT_EQ(frame, FRAMES);
}

}  // namespace
