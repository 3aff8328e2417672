// SPDX-License-Identifier: Apache-2.0

// Scene cuts: found where there are any, and as far as the smoothing reaches. Frames in which nothing
// can be tracked.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "tests/strength/clip_stream.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;

// A clip of which some pictures are of one grey level.
Stabilized with_grey(const synthetic::ShakyClip& clip, int frames,
                     const VideoStabilizerOptions& options, int level,
                     const std::function<bool(int frame)>& is_grey) {
    return stabilize(WIDTH, HEIGHT, frames, options,
                     [&](int frame, const video_io::Planes& planes) {
                         clip.render(frame, planes);
                         if (is_grey(frame)) {
                             std::fill_n(planes.y, WIDTH * HEIGHT, level);
                         }
                     });
}

// How far two corrections move the picture's corners apart at most, pixels.
double difference(const synthetic::Affine& a, const synthetic::Affine& b) {
    double most = 0;
    for (const double x : {0.0, WIDTH - 1.0}) {
        for (const double y : {0.0, HEIGHT - 1.0}) {
            most = std::max({most, std::abs(a.map_x(x, y) - b.map_x(x, y)),
                             std::abs(a.map_y(x, y) - b.map_y(x, y))});
        }
    }
    return most;
}

TEST(SceneCut, SeparatesWhatIsBeforeFromWhatIsBehind) {
    constexpr int LENGTH = 40;  // frames of a scene
    synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
    const synthetic::ShakyClip first(settings);
    settings.camera.seed = 2;
    const synthetic::ShakyClip second(settings);
    VideoStabilizerOptions only_cuts = options_for(STABILIZER_GENTLE);
    only_cuts.scene_cuts = 1;
    for (const VideoStabilizerOptions& options : {only_cuts, options_for(STABILIZER_STANDARD)}) {
        SCOPED_TRACE(options.edge_guard != 0 ? "planned path" : "filter");
        const Stabilized joined = stabilize(
            WIDTH, HEIGHT, 2 * LENGTH, options, [&](int frame, const video_io::Planes& planes) {
                (frame < LENGTH ? first : second).render(frame % LENGTH, planes);
            });
        // Each scene comes out as it does by itself, up to what the estimates differ by from one
        // run to the next, and that the filter leaves out the newest frame of a stream. The cut
        // itself is known one frame late.
        const Stabilized alone[] = {stabilize(first, LENGTH, options),
                                    stabilize(second, LENGTH, options)};
        for (int frame = 0; frame < 2 * LENGTH; ++frame) {
            SCOPED_TRACE(frame);
            const auto at = static_cast<std::size_t>(frame);
            EXPECT_EQ(joined.reports.at(at).scene_start, frame == LENGTH ? 1 : 0);
            if (frame != LENGTH - options.look_ahead) {
                EXPECT_LT(
                    difference(joined.origins.at(at), alone[at / LENGTH].origins.at(at % LENGTH)),
                    2.0);
            }
        }
    }
}

// What spoils single estimates without being a cut.
TEST(SceneCut, IsNotSeenInFlashesBlursAndThingsThatPassBy) {
    const struct {
        const char* name;
        double shake, foreground;
        int grey, first, last, period;  // the pictures that are grey
    } cases[] = {
        {"flash", 1, 0, 250, 13, 13, 20},
        {"covered lens", 1, 0, 16, 20, 22, 30},
        {"strong shake", 4, 0, 0, 1, 0, 1},
        {"something large passes", 1, 0.7, 0, 1, 0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
        settings.camera.pan = settings.camera.shake = c.shake;
        settings.foreground = c.foreground;
        const Stabilized result = with_grey(
            synthetic::ShakyClip(settings), 90, options_for(STABILIZER_STANDARD), c.grey,
            [&](int frame) { return frame % c.period >= c.first && frame % c.period <= c.last; });
        EXPECT_EQ(result.count(&VideoStabilizerReport::scene_start), 0);
    }
}

constexpr int GAP = 40;  // the first frame without features

// How far the picture is displaced, pixels: the true steady path behind the gap, held against the
// straight line on from before it.
double jump(const Path& path, int length) {
    constexpr int BASE = 5;  // frames that tell the speed
    const auto at = [&path](int frame) { return path[static_cast<std::size_t>(frame)]; };
    const int before = GAP - 1;
    const int after = GAP + length;
    const auto miss = [&](double synthetic::PathPoint::*axis) {
        const double speed_before = (at(before).*axis - at(before - BASE).*axis) / BASE;
        const double speed_after = (at(after + BASE).*axis - at(after).*axis) / BASE;
        return at(after).*axis - at(before).*axis -
               0.5 * (speed_before + speed_after) * (after - before);
    };
    return std::hypot(miss(&synthetic::PathPoint::x), miss(&synthetic::PathPoint::y));
}

TEST(Repair, LetsThePictureNeitherJumpNorDrift) {
    constexpr int FRAMES = 80;
    synthetic::ClipSettings settings = clip_settings(WIDTH, HEIGHT);
    settings.camera.pan = 3;
    settings.camera.shake = 0.2;
    const synthetic::ShakyClip clip(settings);
    VideoStabilizerOptions options = options_for(STABILIZER_STANDARD);
    const synthetic::PathPoint wanted = steady_path(clip, stabilize(clip, FRAMES, options)).back();
    for (const int length : {1, 2, 5}) {
        SCOPED_TRACE(length);
        double jumps[2];
        for (const int repairs : {0, 1}) {
            options.repair_motions = repairs;
            const Stabilized result = with_grey(clip, FRAMES, options, 128, [&](int frame) {
                return frame >= GAP && frame < GAP + length;
            });
            // The steps into the gap, through it and out of it.
            EXPECT_EQ(result.count(&VideoStabilizerReport::repaired), repairs * (length + 1));
            const Path path = steady_path(clip, result);
            jumps[repairs] = jump(path, length);
            if (repairs != 0) {
                EXPECT_EQ(result.count(&VideoStabilizerReport::scene_start), 0);
                // Once the gap is out of reach, the picture is where it would be without it.
                EXPECT_NEAR(path.back().x, wanted.x, 1);
                EXPECT_NEAR(path.back().y, wanted.y, 1);
                EXPECT_EQ(outside(result), 0);
            }
        }
        EXPECT_LT(jumps[1], 3.5);
        EXPECT_LT(jumps[1], 0.4 * jumps[0]);
    }
}

}  // namespace
