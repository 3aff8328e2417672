// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/results/path_follower.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "common/synthetic/camera_path.h"
#include "common/video_io/output_file.h"
#include "tests/apps/run_program.h"

namespace {

void to_matrix(const synthetic::Affine& m, float matrix[9]) {
    const double values[9] = {m.a, m.b, m.c, m.d, m.e, m.f, 0, 0, 1};
    std::copy(values, values + 9, matrix);
}

void expect_view(const apps::CameraView& view, const synthetic::Pose& pose,
                 const synthetic::Pose& start) {
    // The poses are those of a point half a pixel beside the centre that is followed.
    EXPECT_NEAR(view.x, pose.x - start.x, 0.1);
    EXPECT_NEAR(view.y, pose.y - start.y, 0.1);
    EXPECT_NEAR(view.angle, pose.angle - start.angle, 2e-5);
    EXPECT_NEAR(view.zoom, pose.zoom / start.zoom, 1e-4);
}

// Given the true motions of a known path and corrections onto its steady path, it finds both.
TEST(PathFollower, FollowsTheCameraAndTheSteadyPictures) {
    const synthetic::CameraPath path({640, 480});
    constexpr double CROP = 0.9;
    std::vector<apps::FollowedFrame> frames;
    apps::PathFollower follower(640, 480);
    follower.add([&](const apps::FollowedFrame& frame) { frames.push_back(frame); });
    const videostabilizer::VideoStabilizerObserver observer = follower.observer(CROP);
    const synthetic::Pose start = path.shaky(0);
    for (int i = 0; i < 60; ++i) {
        SCOPED_TRACE(i);
        const synthetic::Pose shaky = path.shaky(i);
        synthetic::Pose steady = path.steady(i);
        float matrix[9];
        if (i > 0) {
            const videostabilizer::MotionLog log = {100 + i, 90, 0.5F, 0};
            to_matrix(synthetic::true_motion(path.shaky(i - 1), shaky, 640, 480), matrix);
            observer.on_motion(observer.ctx, i - 1, matrix, &log);
        }
        to_matrix(synthetic::true_motion(shaky, steady, 640, 480), matrix);
        observer.on_correction(observer.ctx, i, matrix);
        videostabilizer::VideoStabilizerReport report{};
        report.frame = i;
        observer.on_report(observer.ctx, &report);

        const apps::FollowedFrame& frame = frames.at(static_cast<std::size_t>(i));
        EXPECT_EQ(frame.report.frame, i);
        EXPECT_EQ(frame.log.npoints, i == 0 ? 0 : 100 + i);
        expect_view(frame.shaky, shaky, start);
        // The crop reduces the shift.
        steady.x = shaky.x + CROP * (steady.x - shaky.x);
        steady.y = shaky.y + CROP * (steady.y - shaky.y);
        expect_view(frame.steady, steady, start);
    }
}

TEST(PathFollower, WritesCsv) {
    const Folder folder;
    video_io::OutputFile file(folder.file("path.csv"));
    apps::PathCsv csv(file.sink());
    csv.write({{1.5, -2, 0.5, 1}, {0, 0, 0, 1.25}, {100, 90, 0.5F, 1}, {}});
    file.commit();
    const std::string text = read_file(folder.file("path.csv"));
    EXPECT_EQ(text.substr(text.find('\n') + 1),
              "0,1.5000,-2.0000,28.647890,1.00000000,0.0000,0.0000,0.000000,1.25000000,90,100,"
              "0.5000,1\n");
}

}  // namespace
