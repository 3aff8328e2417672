// SPDX-License-Identifier: Apache-2.0

#include "path/crop_planner.h"

#include <algorithm>
#include <cmath>

namespace videostabilizer {

namespace {

// "Measured": the effect of half and twice the value is in docs/strength.md.

// Of the logarithm of the crop, from frame to frame: at 30 frames per second the shown part shrinks by
// at most 6 % and grows by at most 1.5 % in a second; measured. Shake comes back: what opens between two
// bursts has to close again.
constexpr double FASTEST_CLOSING = 0.002;
constexpr double FASTEST_OPENING = 0.0005;
constexpr double LARGEST_CHANGE = 0.0001;  // of the speed, from frame to frame; measured
constexpr double TIME_CONSTANT = 20;       // frames: of the approach to the goal; measured

// The part that is granted of the margin that the path without limits needs: within a little less it
// bends little; measured.
constexpr double GRANTED_MARGIN = 0.8;

// The logarithm of less would be of no use, or none: the path may leave the picture altogether.
constexpr double SMALLEST_GOAL = 0.01;

}  // namespace

CropPlanner::CropPlanner(double least, double most, int look_ahead)
    : least_(std::log(least)),
      most_(std::log(most)),
      state_{most_, 0},
      plan_(static_cast<std::size_t>(look_ahead) + 1) {}

void CropPlanner::set_bounds(double least, double most) {
    least_ = std::log(least);
    most_ = std::log(most);
}

void CropPlanner::begin_scene() {
    continues_ = false;
}

double CropPlanner::shown() const {
    return std::exp(continues_ ? state_.crop : most_);
}

CropPlanner::State CropPlanner::after(const State& state, double goal) const {
    const double wanted =
        std::clamp((goal - state.crop) / TIME_CONSTANT, -FASTEST_CLOSING, FASTEST_OPENING);
    State next = state;
    next.speed += std::clamp(wanted - state.speed, -LARGEST_CHANGE, LARGEST_CHANGE);
    next.crop = std::clamp(state.crop + next.speed, std::min(least_, state.crop),
                           std::max(most_, state.crop));
    next.speed = next.crop - state.crop;
    return next;
}

const std::vector<double>& CropPlanner::plan(const std::vector<double>& needs, std::size_t count) {
    // The goals: the least of the needs from each frame on.
    double goal = most_;
    for (std::size_t k = count; k-- > 0;) {
        const double shown = 1 - GRANTED_MARGIN * (1 - needs[k]);
        goal = std::min(goal, std::log(std::max(shown, SMALLEST_GOAL)));
        plan_[k] = std::max(goal, least_);
    }
    State state = continues_ ? state_ : State{plan_[0], 0};
    for (std::size_t k = 0; k < count; ++k) {
        if (k > 0 || continues_) {
            state = after(state, plan_[k]);
        }
        if (k == 0) {
            state_ = state;
        }
        plan_[k] = std::exp(state.crop);
    }
    continues_ = true;
    return plan_;
}

}  // namespace videostabilizer
