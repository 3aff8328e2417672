// SPDX-License-Identifier: Apache-2.0

#pragma once

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

    int count(std::int32_t VideoStabilizerReport::*flag) const;
};

synthetic::ClipSettings clip_settings(int width, int height);

Stabilized stabilize(int width, int height, int frames, const VideoStabilizerOptions& options,
                     const Renderer& render);
Stabilized stabilize(const synthetic::ShakyClip& clip, int frames,
                     const VideoStabilizerOptions& options);

// Where the true camera looked, and where the steady pictures made of it look.
Path true_path(const synthetic::ShakyClip& clip, int frames);
Path steady_path(const synthetic::ShakyClip& clip, const Stabilized& stabilized);
// The same by the motions that the observer was told.
Path told_path(const Stabilized& stabilized);

// How far the outermost samples of all pictures lie outside the source, pixels; 0 when none does.
double outside(const Stabilized& stabilized);

}  // namespace test_support
