// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <vector>

#include "camera_motion/texture_sites.h"

namespace videostabilizer {

// What the parts of the picture have shown lately: the background, which moves with the camera; people
// and things, which move on their own; or a fixed overlay (a date, a logo, dirt on the lens). The
// background was seen in most of the picture, along its borders above all, and stays where it was seen:
// so the camera's motion is told from that of a face that fills the picture.
//
// Threads: owner only.
class SceneLayers {
  public:
    SceneLayers(int width, int height);  // of the pictures of the grid; throws std::bad_alloc

    // Nothing is known of the next picture.
    void begin_scene();

    // 0..1: how much what is seen in a cell tells of the camera.
    double trust(std::size_t cell) const { return trust_[cell]; }
    std::size_t cell_at(double x, double y) const;  // of the grid, pixels

    // What a cell has shown.
    enum class Seen { CAMERA, OTHER, FIXED };
    // `moves`: the camera does; otherwise what is fixed cannot be told from the rest.
    void tell(std::size_t cell, Seen seen, bool moves);

  private:
    void rate(std::size_t cell);

    CellGrid grid_;
    std::vector<double> place_;   // 0..1, larger towards the borders
    std::vector<double> camera_;  // 0..1: how often it has moved with the camera
    std::vector<double> fixed_;   // 0..1: how often it has stayed although the camera moved
    std::vector<double> trust_;
};

}  // namespace videostabilizer
