#pragma once

#include <functional>
#include <vector>

#include "apps/scene.h"
#include "apps/shake_metrics.h"
#include "videostabilizer/videostabilizer.h"

// Made-up clips through the library.

namespace test_support {

// Fills the planes of a frame with its picture.
using Renderer = std::function<void(int frame, const apps::Planes& planes)>;

struct Stabilized {
    videostabilizer::VideoStabilizerOptions options;
    int width, height;
    std::vector<apps::Affine> corrections;  // by frame, before the crop
    std::vector<videostabilizer::VideoStabilizerReport> reports;

    int count(std::int32_t videostabilizer::VideoStabilizerReport::*flag) const;
};

videostabilizer::VideoStabilizerOptions strength(videostabilizer::VideoStabilizerStrength strength);

Stabilized stabilize(int width, int height, int frames,
                     const videostabilizer::VideoStabilizerOptions& options,
                     const Renderer& render);
Stabilized stabilize(const apps::ShakyClip& clip, int frames,
                     const videostabilizer::VideoStabilizerOptions& options);

// Where the true camera looked, and where the steady pictures made of it look.
std::vector<apps::PathPoint> true_path(const apps::ShakyClip& clip, int frames);
std::vector<apps::PathPoint> steady_path(const apps::ShakyClip& clip, const Stabilized& stabilized);

// How far the outermost samples of all pictures lie outside the source, pixels; 0 when none does.
double outside(const Stabilized& stabilized);

}  // namespace test_support
