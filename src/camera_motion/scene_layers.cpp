// SPDX-License-Identifier: Apache-2.0

#include "camera_motion/scene_layers.h"

#include <algorithm>
#include <cmath>

namespace videostabilizer {

namespace {

constexpr double LEARNING = 0.12;     // of what is seen; a memory of some eight pictures
constexpr double UNKNOWN = 0.5;       // of the camera's share before anything was seen
constexpr double AT_CENTRE = 0.5;     // weight there, with 1 at the borders
constexpr double LEAST_SHARE = 0.15;  // so that a cell can become background again
constexpr double MOSTLY_FIXED = 0.6;

}  // namespace

SceneLayers::SceneLayers(int width, int height)
    : grid_(width, height),
      place_(grid_.count()),
      camera_(grid_.count()),
      fixed_(grid_.count()),
      trust_(grid_.count()) {
    for (int r = 0; r < grid_.rows; ++r) {
        for (int c = 0; c < grid_.columns; ++c) {
            const double x = std::min(width - 1.0, (c + 0.5) * grid_.side) / width - 0.5;
            const double y = std::min(height - 1.0, (r + 0.5) * grid_.side) / height - 0.5;
            const double out = std::min(1.0, 2 * std::max(std::abs(x), std::abs(y)));
            place_[grid_.index(c, r)] = AT_CENTRE + (1 - AT_CENTRE) * out * out;
        }
    }
    begin_scene();
}

void SceneLayers::begin_scene() {
    std::fill(camera_.begin(), camera_.end(), UNKNOWN);
    std::fill(fixed_.begin(), fixed_.end(), 0);
    for (std::size_t cell = 0; cell < trust_.size(); ++cell) {
        rate(cell);
    }
}

std::size_t SceneLayers::cell_at(double x, double y) const {
    const int column = std::clamp(static_cast<int>(x / grid_.side), 0, grid_.columns - 1);
    const int row = std::clamp(static_cast<int>(y / grid_.side), 0, grid_.rows - 1);
    return grid_.index(column, row);
}

void SceneLayers::tell(std::size_t cell, Seen seen, bool moves) {
    if (!moves && fixed_[cell] > MOSTLY_FIXED) {
        return;
    }

    const auto learn = [](double& share, double now) { share += LEARNING * (now - share); };
    if (moves) {
        learn(fixed_[cell], seen == Seen::FIXED ? 1 : 0);
    }
    learn(camera_[cell], seen == Seen::CAMERA ? 1 : 0);
    rate(cell);
}

void SceneLayers::rate(std::size_t cell) {
    trust_[cell] = fixed_[cell] > MOSTLY_FIXED
                       ? 0
                       : place_[cell] * (LEAST_SHARE + (1 - LEAST_SHARE) * camera_[cell]);
}

}  // namespace videostabilizer
