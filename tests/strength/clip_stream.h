// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "common/synthetic/scene.h"
#include "common/synthetic/shake_metrics.h"
#include "tests/pipeline/stream_helpers.h"

// Made-up clips through the library.

namespace test_support {

// Fills the planes of a frame with its picture.
using Renderer = std::function<void(int frame, const video_io::Planes& planes)>;
using Path = std::vector<synthetic::PathPoint>;

struct Stabilized {
    VideoStabilizerOptions options;
    int width, height;
    std::vector<synthetic::Affine> steps;    // by frame: from frame i + 1 to frame i, as reported
    std::vector<synthetic::Affine> origins;  // by frame: from steady to shaky, before the crop
    std::vector<VideoStabilizerReport> reports;

    int count(std::int32_t VideoStabilizerReport::*flag) const {
        return static_cast<int>(std::count_if(reports.begin(), reports.end(),
                                              [flag](const auto& r) { return r.*flag != 0; }));
    }
};

inline synthetic::Affine inverse(const Matrix& m) {
    const auto at = [&m](std::size_t i) { return static_cast<double>(m[i]); };
    const double det = at(0) * at(4) - at(1) * at(3);
    return {at(4) / det,  -at(1) / det, (at(1) * at(5) - at(2) * at(4)) / det,
            -at(3) / det, at(0) / det,  (at(2) * at(3) - at(0) * at(5)) / det};
}

inline synthetic::Affine product(const synthetic::Affine& m, const synthetic::Affine& n) {
    return {m.a * n.a + m.b * n.d, m.a * n.b + m.b * n.e, m.map_x(n.c, n.f),
            m.d * n.a + m.e * n.d, m.d * n.b + m.e * n.e, m.map_y(n.c, n.f)};
}

// Where a steady picture looks; `view` maps positions of its shaky one, which `back` leads to.
inline synthetic::PathPoint steady_point(const Stabilized& stabilized,
                                         const synthetic::Affine& view,
                                         const synthetic::Affine& back) {
    const double centre_x = 0.5 * stabilized.width;
    const double centre_y = 0.5 * stabilized.height;
    const double shift = stabilized.options.whole_shift != 0
                             ? 1
                             : static_cast<double>(stabilized.options.crop_ratio);
    // The position of the shaky picture that becomes the centre of the steady one.
    const double x = centre_x + shift * (back.map_x(centre_x, centre_y) - centre_x);
    const double y = centre_y + shift * (back.map_y(centre_x, centre_y) - centre_y);
    return {view.map_x(x, y), view.map_y(x, y),
            std::atan2(view.d - view.b, view.a + view.e) +
                std::atan2(back.d - back.b, back.a + back.e)};
}

inline synthetic::ClipSettings clip_settings(int width, int height) {
    synthetic::ClipSettings settings;
    settings.camera.width = width;
    settings.camera.height = height;
    return settings;
}

inline Stabilized stabilize(int width, int height, int frames,
                            const VideoStabilizerOptions& options, const Renderer& render,
                            const std::function<void(Frame*)>& visit = {}) {
    const StabilizerPtr s = make_stabilizer(packed(width, height), true, &options);
    const auto make = [&](int number) {
        Frame* const frame =
            frame_create(width, height, width, width / 2, PIX_FMT_YUV420P, nullptr);
        unsigned char* const v = frame->plane_uv + width * height / 4;
        render(number, {frame->plane_y, frame->plane_uv, v, width, width / 2});
        frame->timestamp = number;
        return frame;
    };
    const Ending ending = run_stream(s.get(), frames, make, visit);
    EXPECT_EQ(ending.popped, frames);
    Stabilized result{options, width, height, {}, {}, ending.reports};
    for (const Matrix& motion : ending.motions) {
        result.steps.push_back(inverse(motion));
    }
    for (const Matrix& correction : ending.corrections) {
        result.origins.push_back(inverse(correction));
    }
    return result;
}

inline Stabilized stabilize(const synthetic::ShakyClip& clip, int frames,
                            const VideoStabilizerOptions& options) {
    return stabilize(
        clip.width(), clip.height(), frames, options,
        [&clip](int frame, const video_io::Planes& planes) { clip.render(frame, planes); });
}

// Where the steady pictures look that are made of what the true camera saw.
inline Path steady_path(const synthetic::ShakyClip& clip, const Stabilized& stabilized) {
    Path path;
    for (const synthetic::Affine& back : stabilized.origins) {
        const synthetic::Pose pose = clip.path().shaky(static_cast<int>(path.size()));
        path.push_back(steady_point(
            stabilized, synthetic::picture_to_scene(pose, clip.width(), clip.height()), back));
    }
    return path;
}

// The same by the motions that the observer was told.
inline Path told_path(const Stabilized& stabilized) {
    Path path;
    synthetic::Affine view;  // to positions of the first picture
    for (const synthetic::Affine& back : stabilized.origins) {
        if (!path.empty()) {
            view = product(view, stabilized.steps[path.size() - 1]);
        }
        path.push_back(steady_point(stabilized, view, back));
    }
    return path;
}

// Where the true camera looked.
inline Path true_path(const synthetic::ShakyClip& clip, int frames) {
    const std::vector<synthetic::Affine> uncorrected(static_cast<std::size_t>(frames));
    return steady_path(clip, {{}, clip.width(), clip.height(), {}, uncorrected, {}});
}

// How far the outermost samples of all pictures lie outside the source, pixels; 0 when none does.
inline double outside(const Stabilized& stabilized) {
    const double last_x = stabilized.width - 1;
    const double last_y = stabilized.height - 1;
    double most = 0;
    std::size_t frame = 0;
    for (const synthetic::Affine& back : stabilized.origins) {
        const double ratio = static_cast<double>(stabilized.reports.at(frame++).crop);
        for (const double side_x : {-0.5, 0.5}) {
            for (const double side_y : {-0.5, 0.5}) {
                const double x = last_x * (0.5 + ratio * side_x);
                const double y = last_y * (0.5 + ratio * side_y);
                const double from_x = back.map_x(x, y);
                const double from_y = back.map_y(x, y);
                most = std::max({most, -from_x, -from_y, from_x - last_x, from_y - last_y});
            }
        }
    }
    return most;
}

}  // namespace test_support
