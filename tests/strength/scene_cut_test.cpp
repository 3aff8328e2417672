// Scene cuts: found where there are any, and as far as the smoothing reaches.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "tests/strength/clip_stream.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;

apps::ShakyClip clip_of(std::uint64_t seed) {
    apps::ClipSettings settings;
    settings.camera.width = WIDTH;
    settings.camera.height = HEIGHT;
    settings.camera.seed = seed;
    return apps::ShakyClip(settings);
}

// How far two corrections move the picture's corners apart at most, pixels.
double difference(const apps::Affine& a, const apps::Affine& b) {
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
    constexpr int FIRST = 40;   // frames of the scenes
    constexpr int SECOND = 40;  //
    const apps::ShakyClip first = clip_of(1);
    const apps::ShakyClip second = clip_of(2);
    VideoStabilizerOptions only_cuts = strength(STABILIZER_GENTLE);
    only_cuts.scene_cuts = 1;
    for (const VideoStabilizerOptions& options : {only_cuts, strength(STABILIZER_STANDARD)}) {
        SCOPED_TRACE(options.edge_guard != 0 ? "planned path" : "filter");
        const Stabilized joined = stabilize(WIDTH, HEIGHT, FIRST + SECOND, options,
                                            [&](int frame, const apps::Planes& planes) {
                                                if (frame < FIRST) {
                                                    first.render(frame, planes);
                                                } else {
                                                    second.render(frame - FIRST, planes);
                                                }
                                            });
        std::vector<int> starts;
        for (const VideoStabilizerReport& report : joined.reports) {
            if (report.scene_start != 0) starts.push_back(report.frame);
        }
        EXPECT_EQ(starts, std::vector<int>{FIRST});

        // Each scene comes out as it does by itself, up to what the estimates differ by from one
        // run to the next, and that the filter leaves out the newest frame of a stream. The cut
        // itself is known one frame late.
        const Stabilized alone[] = {stabilize(first, FIRST, options),
                                    stabilize(second, SECOND, options)};
        for (int frame = 0; frame < FIRST + SECOND; ++frame) {
            if (frame == FIRST - options.look_ahead) continue;
            SCOPED_TRACE(frame);
            const auto at = static_cast<std::size_t>(frame < FIRST ? frame : frame - FIRST);
            const Stabilized& scene = alone[frame < FIRST ? 0 : 1];
            EXPECT_LT(difference(joined.corrections[static_cast<std::size_t>(frame)],
                                 scene.corrections[at]),
                      2.0);
        }
    }
}

// What spoils single estimates without being a cut.
TEST(SceneCut, IsNotSeenInFlashesBlursAndThingsThatPassBy) {
    const apps::ShakyClip clip = clip_of(3);
    apps::ClipSettings settings;
    settings.camera.width = WIDTH;
    settings.camera.height = HEIGHT;
    settings.foreground = 0.7;
    const apps::ShakyClip crossed(settings);
    settings.foreground = 0;
    settings.camera.pan = 4;
    settings.camera.shake = 4;
    const apps::ShakyClip whipped(settings);
    const struct {
        const char* name;
        Renderer render;
    } cases[] = {
        {"flash",
         [&](int frame, const apps::Planes& planes) {
             clip.render(frame, planes);
             if (frame % 20 == 13) std::fill_n(planes.y, WIDTH * HEIGHT, 250);
         }},
        {"covered lens",
         [&](int frame, const apps::Planes& planes) {
             clip.render(frame, planes);
             if (frame % 30 >= 20 && frame % 30 < 23) std::fill_n(planes.y, WIDTH * HEIGHT, 16);
         }},
        {"strong shake",
         [&](int frame, const apps::Planes& planes) { whipped.render(frame, planes); }},
        {"something large passes",
         [&](int frame, const apps::Planes& planes) { crossed.render(frame, planes); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Stabilized result =
            stabilize(WIDTH, HEIGHT, 90, strength(STABILIZER_STANDARD), c.render);
        EXPECT_EQ(result.count(&VideoStabilizerReport::scene_start), 0);
    }
}

}  // namespace
