// Frames in which nothing can be followed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "tests/strength/clip_stream.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;
constexpr int FRAMES = 80;
constexpr int GAP = 40;  // the first frame without features

// A pan with little shake, whose pictures are grey for a while.
Stabilized with_gap(const apps::ShakyClip& clip, int length, bool repairs) {
    VideoStabilizerOptions options = strength(STABILIZER_STANDARD);
    options.repair_motions = repairs ? 1 : 0;
    return stabilize(WIDTH, HEIGHT, FRAMES, options,
                     [&clip, length](int frame, const apps::Planes& planes) {
                         clip.render(frame, planes);
                         if (frame >= GAP && frame < GAP + length) {
                             std::fill_n(planes.y, WIDTH * HEIGHT, 128);
                         }
                     });
}

// How far the picture is displaced, pixels: the true steady path behind the gap, held against the
// straight line on from before it.
double jump(const std::vector<apps::PathPoint>& path, int length) {
    constexpr int BASE = 5;  // frames that tell the speed
    const auto at = [&path](int frame) { return path[static_cast<std::size_t>(frame)]; };
    const int before = GAP - 1;
    const int after = GAP + length;
    const auto miss = [&](double apps::PathPoint::*axis) {
        const double speed_before = (at(before).*axis - at(before - BASE).*axis) / BASE;
        const double speed_after = (at(after + BASE).*axis - at(after).*axis) / BASE;
        return at(after).*axis - at(before).*axis -
               0.5 * (speed_before + speed_after) * (after - before);
    };
    return std::hypot(miss(&apps::PathPoint::x), miss(&apps::PathPoint::y));
}

TEST(Repair, LetsThePictureNeitherJumpNorDrift) {
    apps::ClipSettings settings;
    settings.camera.width = WIDTH;
    settings.camera.height = HEIGHT;
    settings.camera.pan = 3;
    settings.camera.shake = 0.2;
    const apps::ShakyClip clip(settings);
    const Stabilized whole = stabilize(clip, FRAMES, strength(STABILIZER_STANDARD));
    for (const int length : {1, 2, 5}) {
        SCOPED_TRACE(length);
        const Stabilized repaired = with_gap(clip, length, true);
        const Stabilized left = with_gap(clip, length, false);
        // The steps into the gap, through it and out of it.
        EXPECT_EQ(repaired.count(&VideoStabilizerReport::repaired), length + 1);
        EXPECT_EQ(repaired.count(&VideoStabilizerReport::scene_start), 0);
        EXPECT_EQ(left.count(&VideoStabilizerReport::repaired), 0);
        const double jump_repaired = jump(steady_path(clip, repaired), length);
        const double jump_left = jump(steady_path(clip, left), length);
        EXPECT_LT(jump_repaired, 3.5);
        EXPECT_LT(jump_repaired, 0.4 * jump_left);
        // Once the gap is out of reach, the picture is where it would be without it.
        const auto last = steady_path(clip, repaired).back();
        const auto wanted = steady_path(clip, whole).back();
        EXPECT_NEAR(last.x, wanted.x, 1);
        EXPECT_NEAR(last.y, wanted.y, 1);
        EXPECT_EQ(outside(repaired), 0);
    }
}

}  // namespace
