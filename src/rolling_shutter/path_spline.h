// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "motion/camera_pose.h"

namespace videostabilizer {

// The camera's path between pictures: a B-spline of degree 11 through its poses, shift, turn and zoom each
// on its own. Hands tremble at up to 12 Hz, where a spline of degree 3 would show three fifths of the
// speed at 30 pictures per second, and this one 98 %.
//
// The coefficients are found by recursive filters (M. Unser, A. Aldroubi and M. Eden, "B-spline signal
// processing", 1993). Beyond its ends the path goes on as its odd reflection: without acceleration. Where that ends it
// keeps its mean speed.
//
// Threads: owner only.
class PathSpline {
  public:
    explicit PathSpline(std::size_t most_poses);  // throws std::bad_alloc

    // Poses of consecutive pictures, all relative to one; 1 or more.
    void fit(const CameraPose* poses, std::size_t count);

    // The pose at a time in pictures after the first one, from -1 to `count`.
    CameraPose at(double time) const;

  private:
    static constexpr std::size_t PARTS = 4;  // x, y, angle, zoom
    using Parts = std::array<double, PARTS>;

    void filter(double pole);

    std::vector<Parts> coefficients_;
    std::size_t most_;
};

}  // namespace videostabilizer
