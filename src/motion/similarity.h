// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cmath>

#include "motion/camera_pose.h"

namespace videostabilizer {

// (x, y) -> (a x - b y + c, b x + a y + d), in pixels relative to the picture's centre.
struct Similarity {
    double a, b, c, d;

    double map_x(double x, double y) const { return a * x - b * y + c; }
    double map_y(double x, double y) const { return b * x + a * y + d; }
};

// The motion of positions for a step of the camera: the inverse of the step, as in motion_of_pose.
inline Similarity similarity_of_step(const CameraPose& step) {
    const double scale = std::exp(step.zoom);
    Similarity s{};
    s.a = scale * std::cos(step.angle);
    s.b = -scale * std::sin(step.angle);
    s.c = -s.a * step.x + s.b * step.y;
    s.d = -s.b * step.x - s.a * step.y;
    return s;
}

inline CameraPose step_of_similarity(const Similarity& s) {
    const double square = s.a * s.a + s.b * s.b;
    return {-(s.a * s.c + s.b * s.d) / square, -(s.a * s.d - s.b * s.c) / square,
            -std::atan2(s.b, s.a), 0.5 * std::log(square)};
}

}  // namespace videostabilizer
