// SPDX-License-Identifier: Apache-2.0

#include "path/motion_history.h"

#include <algorithm>
#include <cmath>

#include "path/frame_numbers.h"

namespace videostabilizer {

namespace {

// Except for SPEED_STEPS, half and twice the values change no result in the clips of docs/strength.md,
// in which the ranges in the comments were measured.

// Of the picture's diagonal; the largest step of a handheld camera, also while walking, is 0.03 of it.
constexpr double CALM_SHARE = 0.05;

// Steps on either side of a gap whose mean is the speed there; measured: see docs/strength.md. Gaps
// of one step are closed best by 1, gaps of four steps in a shaky picture by 3.
constexpr int SPEED_STEPS = 3;

// No camera moves so far from one picture to the next. What does is not used, for the numbers' sake: paths
// over hundreds of steps stay finite.
constexpr double FARTHEST_SHARE = 4;  // of the picture's diagonal
constexpr double LARGEST_TURN = 4;    // radians
constexpr double LARGEST_ZOOM = 1;    // logarithm

// Steps kept beyond the reach: SPEED_STEPS beside a gap of up to 5.
constexpr int SPARE_STEPS = 8;

}  // namespace

MotionHistory::MotionHistory(int width, int height, int reach, bool repairs, bool finds_cuts,
                             int kept)
    : centre_(picture_centre(width, height)),
      calm_(CALM_SHARE * std::hypot(width, height)),
      reach_(reach),
      repairs_(repairs),
      finds_cuts_(finds_cuts),
      ring_(static_cast<std::size_t>(std::max(2 * reach, kept) + SPARE_STEPS)) {}

// False for what is not a number.
bool MotionHistory::is_plausible(const CameraPose& pose) const {
    return std::hypot(pose.x, pose.y) < FARTHEST_SHARE / CALM_SHARE * calm_ &&
           std::abs(pose.angle) < LARGEST_TURN && std::abs(pose.zoom) < LARGEST_ZOOM;
}

void MotionHistory::add(std::int64_t k, const CameraStep& step) {
    const bool found = step.found && is_plausible(step.pose);
    ring_[ring_slot(k, ring_.size())] = {found ? step.pose : CameraPose{}, found, step.strange};
    steps_ = k + 1;
}

void MotionHistory::improve(std::int64_t k, const CameraPose& pose) {
    if (is_plausible(pose)) {
        ring_[ring_slot(k, ring_.size())].pose = pose;
    }
}

bool MotionHistory::is_known(std::int64_t k) const {
    return k >= 0 && k < steps_ && steps_ - k <= static_cast<std::int64_t>(ring_.size());
}

const MotionHistory::Step& MotionHistory::at(std::int64_t k) const {
    return ring_[ring_slot(k, ring_.size())];
}

bool MotionHistory::was_found(std::int64_t k) const {
    return is_known(k) && at(k).found;
}

bool MotionHistory::was_calm(std::int64_t k) const {
    return was_found(k) && std::hypot(at(k).pose.x, at(k).pose.y) < calm_;
}

bool MotionHistory::is_cut(std::int64_t k) const {
    return finds_cuts_ && is_known(k) && !at(k).found && at(k).strange &&
           (k == 0 || was_calm(k - 1)) && was_calm(k + 1);
}

bool MotionHistory::is_repaired(std::int64_t k) const {
    return repairs_ && is_known(k) && !at(k).found && !is_cut(k);
}

// The mean of the nearest steps beside the gap around k, after it (direction 1) or before it (-1).
// False when none was found, or they belong to another scene.
bool MotionHistory::speed_beside(std::int64_t k, int direction, CameraPose& speed) const {
    while (is_known(k) && !at(k).found && !is_cut(k)) {
        k += direction;
    }
    speed = {};
    int count = 0;
    for (; count < SPEED_STEPS && was_found(k); k += direction, ++count) {
        const CameraPose& step = at(k).pose;
        speed = {speed.x + step.x, speed.y + step.y, speed.angle + step.angle,
                 speed.zoom + step.zoom};
    }
    if (count == 0) {
        return false;
    }
    const double share = 1.0 / count;
    speed = {share * speed.x, share * speed.y, share * speed.angle, share * speed.zoom};
    return true;
}

CameraPose MotionHistory::step(std::int64_t k) const {
    if (!is_repaired(k)) {
        return is_known(k) ? at(k).pose : CameraPose{};
    }
    std::int64_t before = k;  // the nearest steps outside the gap
    std::int64_t after = k;
    while (is_known(before) && is_repaired(before)) {
        --before;
    }
    while (is_known(after) && is_repaired(after)) {
        ++after;
    }
    CameraPose speed_before;
    CameraPose speed_after;
    const bool has_before = speed_beside(k, -1, speed_before);
    const bool has_after = speed_beside(k, 1, speed_after);
    if (!has_before || !has_after) {
        return has_before ? speed_before : speed_after;
    }
    const double share = static_cast<double>(k - before) / static_cast<double>(after - before);
    const auto between = [share](double from, double to) { return from + share * (to - from); };
    return {between(speed_before.x, speed_after.x), between(speed_before.y, speed_after.y),
            between(speed_before.angle, speed_after.angle),
            between(speed_before.zoom, speed_after.zoom)};
}

MotionHistory::Scene MotionHistory::scene_around(std::int64_t n) const {
    Scene scene = {n, n + 1};
    while (scene.first > 0 && n - scene.first < reach_ && is_known(scene.first - 1) &&
           !is_cut(scene.first - 1)) {
        --scene.first;
    }
    while (scene.end <= steps_ && scene.end - n <= reach_ && !is_cut(scene.end - 1)) {
        ++scene.end;
    }
    return scene;
}

}  // namespace videostabilizer
