#include "motion/motion_history.h"

#include <algorithm>
#include <cmath>

namespace videostabilizer {

namespace {

constexpr std::size_t ENOUGH_CORNERS = 24;
constexpr std::size_t STRANGE_SHARE = 10;  // corners for each one that moved with the others

constexpr double CALM_SHARE = 0.05;  // of the picture's diagonal

// No hand turns or zooms like this from one frame to the next; a fit to too few points does.
constexpr double LARGEST_TURN = 0.5;  // radians
constexpr double LARGEST_ZOOM = 0.4;  // logarithm

// Steps on either side of a gap that tell the speed there: enough to even out a single one, few
// enough to be of the same swing of the hand.
constexpr int SPEED_STEPS = 3;

// Steps beyond the reach that are kept for the speed beside a gap.
constexpr int SPARE_STEPS = 8;

}  // namespace

MotionHistory::MotionHistory(int width, int height, int reach, bool repairs, bool finds_cuts)
    : centre_(picture_centre(width, height)),
      calm_(CALM_SHARE * std::hypot(width, height)),
      reach_(reach),
      repairs_(repairs),
      finds_cuts_(finds_cuts),
      ring_(static_cast<std::size_t>(2 * reach + SPARE_STEPS)) {}

CameraPose* MotionHistory::add(const float motion[9], const MotionLog& log, std::size_t corners) {
    Step& step = ring_[static_cast<std::size_t>(steps_) % ring_.size()];
    step.found = log.status == 0 && pose_of_motion(motion, centre_, step.pose) &&
                 std::abs(step.pose.angle) <= LARGEST_TURN &&
                 std::abs(step.pose.zoom) <= LARGEST_ZOOM;
    const auto together = static_cast<std::size_t>(std::max(log.ninliers, 0));
    step.strange = corners >= ENOUGH_CORNERS && together * STRANGE_SHARE < corners;
    if (!step.found) {
        step.pose = {};
    }
    ++steps_;
    return step.found ? &step.pose : nullptr;
}

bool MotionHistory::is_known(int k) const {
    return k >= 0 && k < steps_ && steps_ - k <= static_cast<int>(ring_.size());
}

const MotionHistory::Step& MotionHistory::at(int k) const {
    return ring_[static_cast<std::size_t>(k) % ring_.size()];
}

bool MotionHistory::was_found(int k) const {
    return is_known(k) && at(k).found;
}

bool MotionHistory::was_calm(int k) const {
    return was_found(k) && std::hypot(at(k).pose.x, at(k).pose.y) < calm_;
}

bool MotionHistory::is_cut(int k) const {
    return finds_cuts_ && is_known(k) && !at(k).found && at(k).strange &&
           (k == 0 || was_calm(k - 1)) && was_calm(k + 1);
}

bool MotionHistory::is_repaired(int k) const {
    return repairs_ && is_known(k) && !at(k).found && !is_cut(k);
}

// The mean of the steps nearest to the gap around k in one direction, 1 or -1. False when nothing
// was found there, or it belongs to another scene.
bool MotionHistory::speed_beside(int k, int direction, CameraPose& speed) const {
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

CameraPose MotionHistory::step(int k) const {
    if (!is_repaired(k)) {
        return is_known(k) ? at(k).pose : CameraPose{};
    }
    int before = k;  // the nearest steps outside of the gap
    int after = k;
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
    const double share = static_cast<double>(k - before) / (after - before);
    const auto between = [share](double from, double to) { return from + share * (to - from); };
    return {between(speed_before.x, speed_after.x), between(speed_before.y, speed_after.y),
            between(speed_before.angle, speed_after.angle),
            between(speed_before.zoom, speed_after.zoom)};
}

MotionHistory::Scene MotionHistory::scene_around(int n) const {
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
