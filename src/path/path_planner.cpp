// SPDX-License-Identifier: Apache-2.0

#include "path/path_planner.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace videostabilizer {

namespace {

// "Measured": the effect of half and twice the value is in docs/strength.md.

// Distance of the outermost samples from the source's edges, pixels. The warp clamps positions at
// size - 1.001, and computes them in single precision: some ten roundings of 2^-24 of up to 8192
// pixels, 0.005 together.
constexpr double SAFETY = 0.02;

// A rotation costs as much as the shift that it makes at this many half diagonals from the centre.
// Where the crop limits both, a larger weight removes more rotation and less shift; measured.
constexpr double TURN_WEIGHT = 2.5;

// The part of the crop margin that corrections of the zoom may use; measured.
constexpr double ZOOM_SHARE = 0.15;

// B / A^2. The smoothing is a second-order low-pass applied forwards and backwards, with
// B / A^2 = 1 / (4 d^2 - 2)^2 for a damping ratio d: 1/8 is d = 1.1, slightly more than critical
// damping (1/4), so that the path does not overshoot.
constexpr double CHANGE_SHARE = 0.125;

// Of the alternating direction method. They decide how many iterations a plan takes, and how far from
// the optimal path it may end.
constexpr double PENALTY = 120;        // of 30, 60, 120 and 240 the fewest iterations; measured
constexpr double RELAXATION = 1.6;     // 1.5 to 1.8 is usual (S. Boyd et al., 3.4.3); measured
constexpr int MOST_ITERATIONS = 100;   // measured
constexpr double CLOSE_ENOUGH = 0.02;  // pixels; measured

// Pixels: smaller differences from the path without limits are invisible, and not reported.
constexpr double NOTICEABLE = 0.1;

// The part of the crop margin that lines may be moved by; the rest is left to the path.
constexpr double LINE_SHARE = 0.9;

// The part of `wanted` that is not more than `most`.
double share_of(double wanted, double most) {
    return wanted > most ? most / wanted : 1;
}

// Of points of the path, in pixels.
template <class Point>
double length(const Point& p) {
    return std::sqrt(p.x * p.x + p.y * p.y + p.turn * p.turn);
}

template <class Point>
double largest(const Point& p) {
    return std::max({std::abs(p.x), std::abs(p.y), std::abs(p.turn)});
}

}  // namespace

PathPlanner::PathPlanner(const PathPlannerSettings& settings)
    : settings_(settings),
      half_width_(0.5 * (settings.width - 1)),
      half_height_(0.5 * (settings.height - 1)),
      turn_lever_(TURN_WEIGHT * std::hypot(half_width_, half_height_)),
      shown_(settings.crop_ratio) {
    set_costs();
    const auto longest = static_cast<std::size_t>(settings.look_ahead) + 1;
    for (std::vector<double>* const list : {&diagonal_, &below_, &below2_, &zoom_, &crop_}) {
        list->resize(longest);
    }
    for (std::vector<Point>* const list : {&shaky_, &pull_, &free_, &held_, &dual_}) {
        list->resize(longest);
    }
    limits_.resize(longest);
    lines_.resize(longest);
    if (settings.crop_most > 0) {
        crop_planner_.emplace(settings.crop_least, settings.crop_most, settings.look_ahead);
    } else {
        std::fill(crop_.begin(), crop_.end(), settings.crop_ratio);
    }
}

void PathPlanner::set_costs() {
    speed_cost_ = settings_.sigma * settings_.sigma;
    change_cost_ = CHANGE_SHARE * speed_cost_ * speed_cost_;
}

void PathPlanner::change(const PathChange& change) {
    settings_.sigma = change.sigma;
    settings_.crop_ratio = change.crop_ratio;
    crop_speed_ = change.crop_speed;
    set_costs();
    if (crop_planner_) {
        crop_planner_->set_bounds(change.crop_least, change.crop_most);
    }
}

void PathPlanner::begin_scene() {
    past_ = 0;
    shown_ = settings_.crop_ratio;
    std::fill(crop_.begin(), crop_.end(), shown_);
    if (crop_planner_) {
        crop_planner_->begin_scene();
    }
}

// Factorises the matrix of the quadratic cost, plus `extra` on its diagonal, into L D L'. It is
// pentadiagonal.
void PathPlanner::factorise(std::size_t count, double extra) {
    const double a = speed_cost_;
    const double b = change_cost_;
    for (std::size_t k = 0; k < count; ++k) {
        const std::size_t after = count - 1 - k;  // later frames
        const std::size_t before = k + static_cast<std::size_t>(past_);
        // The differences that frame k is part of: as the newest, the middle and the oldest.
        double main = 1 + extra;
        main += a * ((before >= 1 ? 1 : 0) + (after >= 1 ? 1 : 0));
        main += b * ((before >= 2 ? 1 : 0) + (before >= 1 && after >= 1 ? 4 : 0) +
                     (after >= 2 ? 1 : 0));
        // The elements for frames k - 1 and k - 2.
        double first = 0;
        double second = 0;
        if (k >= 1) {
            first = -a - 2 * b * ((before >= 2 ? 1 : 0) + (after >= 1 ? 1 : 0));
        }
        if (k >= 2) {
            second = b;
        }
        below2_[k] = k >= 2 ? second / diagonal_[k - 2] : 0;
        if (k >= 2) {
            first -= below2_[k] * diagonal_[k - 2] * below_[k - 1];
        }
        below_[k] = k >= 1 ? first / diagonal_[k - 1] : 0;
        diagonal_[k] = main;
        if (k >= 1) {
            diagonal_[k] -= below_[k] * below_[k] * diagonal_[k - 1];
        }
        if (k >= 2) {
            diagonal_[k] -= below2_[k] * below2_[k] * diagonal_[k - 2];
        }
    }
}

// Solves the factorised system in place.
void PathPlanner::solve(std::size_t count, std::vector<Point>& x) const {
    for (std::size_t k = 1; k < count; ++k) {
        x[k] = x[k] - below_[k] * x[k - 1];
        if (k >= 2) {
            x[k] = x[k] - below2_[k] * x[k - 2];
        }
    }
    for (std::size_t k = 0; k < count; ++k) {
        x[k] = (1 / diagonal_[k]) * x[k];
    }
    for (std::size_t k = count - 1; k-- > 0;) {
        x[k] = x[k] - below_[k + 1] * x[k + 1];
        if (k + 2 < count) {
            x[k] = x[k] - below2_[k + 2] * x[k + 2];
        }
    }
}

// The right side of the system: the shaky path and the poses planned before.
void PathPlanner::pull_to(std::size_t count, const std::array<Point, 2>& before,
                          std::vector<Point>& pull) {
    std::copy_n(shaky_.begin(), count, pull.begin());
    if (past_ >= 1) {
        pull[0] = pull[0] + speed_cost_ * before[0];
        if (count >= 2) {
            pull[0] = pull[0] + 2 * change_cost_ * before[0];
            pull[1] = pull[1] - change_cost_ * before[0];
        }
    }
    if (past_ >= 2) {
        pull[0] = pull[0] + change_cost_ * (2 * before[0] - before[1]);
    }
}

// Leaves the optimal path in held_, exactly within the limits. into_limits(k, p) projects p onto the
// limits of frame k.
template <class IntoLimits>
void PathPlanner::find_path(std::size_t count, const std::array<Point, 2>& before,
                            IntoLimits into_limits) {
    pull_to(count, before, pull_);
    factorise(count, 0);
    std::copy_n(pull_.begin(), count, free_.begin());
    solve(count, free_);
    bool within = true;
    for (std::size_t k = 0; k < count; ++k) {
        held_[k] = into_limits(k, free_[k]);
        within = within && largest(held_[k] - free_[k]) == 0;
    }
    if (within) {
        return;
    }

    // Alternates between the path of least cost (free_) and its projection onto the limits (held_).
    factorise(count, PENALTY);
    std::fill_n(dual_.begin(), count, Point{});
    for (int iteration = 0; iteration < MOST_ITERATIONS; ++iteration) {
        for (std::size_t k = 0; k < count; ++k) {
            free_[k] = pull_[k] + PENALTY * (held_[k] - dual_[k]);
        }
        solve(count, free_);
        for (std::size_t k = 0; k < count; ++k) {
            dual_[k] = dual_[k] + RELAXATION * free_[k] + (1 - RELAXATION) * held_[k];
        }
        double change = 0;
        for (std::size_t k = 0; k < count; ++k) {
            const Point point = into_limits(k, dual_[k]);
            change = std::max({change, largest(point - held_[k]), largest(point - free_[k])});
            dual_[k] = dual_[k] - point;
            held_[k] = point;
        }
        if (change < CLOSE_ENOUGH) {
            break;
        }
    }
}

// The crop of a stream whose host has changed it.
void PathPlanner::approach_crop(std::size_t count) {
    const double factor = std::exp(crop_speed_);
    double shown = shown_;
    for (std::size_t k = 0; k < count; ++k) {
        shown = std::clamp(settings_.crop_ratio, shown / factor, shown * factor);
        crop_[k] = shown;
    }
    shown_ = crop_[0];
}

// The zoom is planned first and separately: the limits of the other corrections depend on it.
void PathPlanner::plan_zoom(const CameraPose* camera, std::size_t count) {
    // In pixels at the corner, for CLOSE_ENOUGH.
    const double unit = std::hypot(half_width_, half_height_);
    const auto zoom_room = [this](std::size_t k) {
        return ZOOM_SHARE * (1 - (crop_planner_ ? crop_planner_->shown() : crop_[k]));
    };
    for (std::size_t k = 0; k < count; ++k) {
        shaky_[k] = {unit * camera[k].zoom, 0, 0};
    }
    find_path(count, {Point{unit * before_[0].zoom, 0, 0}, Point{unit * before_[1].zoom, 0, 0}},
              [&](std::size_t k, const Point& point) {
                  const double room = unit * zoom_room(k);
                  return Point{std::clamp(point.x, shaky_[k].x - room, shaky_[k].x + room), 0, 0};
              });
    for (std::size_t k = 0; k < count; ++k) {
        zoom_[k] = held_[k].x / unit;
    }
}

// From the path without limits, in free_.
void PathPlanner::plan_crop(const CameraPose* camera, std::size_t count) {
    for (std::size_t k = 0; k < count; ++k) {
        const double cosine = std::cos(camera[k].angle);
        const double sine = std::sin(camera[k].angle);
        const Point off = free_[k] - shaky_[k];
        const double scale = std::exp(camera[k].zoom);
        const double x = scale * std::abs(cosine * off.x + sine * off.y);
        const double y = scale * std::abs(cosine * off.y - sine * off.x);
        const double turn = std::abs(off.turn) / turn_lever_;
        // The limits of set_limits, solved for the part that is shown.
        const double across =
            (half_width_ - SAFETY - x - lines_[k].x) / (half_width_ + half_height_ * turn);
        const double down =
            (half_height_ - SAFETY - y - lines_[k].y) / (half_height_ + half_width_ * turn);
        crop_[k] = std::min(across, down) * std::exp(zoom_[k] - camera[k].zoom);
    }
    const std::vector<double>& plan = crop_planner_->plan(crop_, count);
    std::copy_n(plan.begin(), count, crop_.begin());
}

void PathPlanner::set_limits(const CameraPose* camera, std::size_t count) {
    for (std::size_t k = 0; k < count; ++k) {
        // Source pixels per output pixel, and per pixel of the planned frame. A steady picture
        // rotated by t needs half (width cos t + height sin t) horizontally; with cos t <= 1 and
        // sin t <= t these limits are on the safe side.
        const double shown = crop_[k] * std::exp(camera[k].zoom - zoom_[k]);
        const double scale = std::exp(-camera[k].zoom);
        Limits& limits = limits_[k];
        limits.cosine = std::cos(camera[k].angle);
        limits.sine = std::sin(camera[k].angle);
        const double room_x = std::max(0.0, half_width_ * (1 - shown) - SAFETY);
        const double room_y = std::max(0.0, half_height_ * (1 - shown) - SAFETY);
        limits.line_share = std::min(share_of(lines_[k].x, LINE_SHARE * room_x),
                                     share_of(lines_[k].y, LINE_SHARE * room_y));
        limits.room_x = scale * (room_x - limits.line_share * lines_[k].x);
        limits.room_y = scale * (room_y - limits.line_share * lines_[k].y);
        limits.lever_x = scale * shown * half_height_ / turn_lever_;
        limits.lever_y = scale * shown * half_width_ / turn_lever_;
    }
}

// Projects a point onto a frame's limits. For a given turn the nearest shift is the clamped one, and
// the squared distance is a convex function of the turn, quadratic between the turns where clamping
// starts. Its minimum is the least of the minima of the four quadratics.
PathPlanner::Point PathPlanner::into_limits(const Limits& limits, const Point& centre,
                                            const Point& point) {
    const Point off = point - centre;
    const double x = limits.cosine * off.x + limits.sine * off.y;
    const double y = limits.cosine * off.y - limits.sine * off.x;
    const double turn = std::abs(off.turn);
    // How far the shift alone is outside.
    const double over_x = std::abs(x) - limits.room_x;
    const double over_y = std::abs(y) - limits.room_y;
    const double a = limits.lever_x;
    const double b = limits.lever_y;
    if (over_x + a * turn <= 0 && over_y + b * turn <= 0) {
        return point;
    }
    const double most = std::min(limits.room_x / a, limits.room_y / b);
    const double candidates[] = {turn, (turn - a * over_x) / (1 + a * a),
                                 (turn - b * over_y) / (1 + b * b),
                                 (turn - a * over_x - b * over_y) / (1 + a * a + b * b)};
    double best = 0;
    double least = -1;
    for (const double candidate : candidates) {
        const double u = std::clamp(candidate, 0.0, most);
        const double out_x = std::max(0.0, over_x + a * u);
        const double out_y = std::max(0.0, over_y + b * u);
        const double square = (turn - u) * (turn - u) + out_x * out_x + out_y * out_y;
        if (least < 0 || square < least) {
            least = square;
            best = u;
        }
    }
    const double room_x = limits.room_x - a * best;
    const double room_y = limits.room_y - b * best;
    const double in_x = std::clamp(x, -room_x, room_x);
    const double in_y = std::clamp(y, -room_y, room_y);
    return centre + Point{limits.cosine * in_x - limits.sine * in_y,
                          limits.sine * in_x + limits.cosine * in_y, std::copysign(best, off.turn)};
}

PathPlanner::Point PathPlanner::point_of(const CameraPose& pose) const {
    return {pose.x, pose.y, turn_lever_ * pose.angle};
}

// The first point of the path without limits.
PathPlanner::Point PathPlanner::wish(std::size_t count) {
    pull_to(count, {point_of(wished_[0]), point_of(wished_[1])}, free_);
    factorise(count, 0);
    solve(count, free_);
    return free_[0];
}

PlannedPose PathPlanner::plan(const CameraPose* camera, int frames, const LineReach* lines) {
    const auto count = static_cast<std::size_t>(frames);
    for (std::size_t k = 0; k < count; ++k) {
        lines_[k] = lines != nullptr ? lines[k] : LineReach{};
    }
    if (!crop_planner_) {
        approach_crop(count);
    }
    plan_zoom(camera, count);
    for (std::size_t k = 0; k < count; ++k) {
        shaky_[k] = point_of(camera[k]);
    }
    const Point wished = wish(count);
    if (crop_planner_) {
        plan_crop(camera, count);
    }
    set_limits(camera, count);
    find_path(count, {point_of(before_[0]), point_of(before_[1])},
              [this](std::size_t k, const Point& point) {
                  return into_limits(limits_[k], shaky_[k], point);
              });

    const Point made = held_[0];
    const double missing = length(wished - made);
    PlannedPose planned{};
    planned.pose = {made.x, made.y, made.turn / turn_lever_, zoom_[0]};
    planned.guarded = missing > NOTICEABLE;
    planned.granted = planned.guarded ? std::max(0.0, 1 - missing / length(wished)) : 1;
    planned.crop = crop_[0];
    planned.line_share = limits_[0].line_share;
    before_[1] = before_[0];
    before_[0] = planned.pose;
    wished_[1] = wished_[0];
    wished_[0] = {wished.x, wished.y, wished.turn / turn_lever_, zoom_[0]};
    past_ = std::min(past_ + 1, 2);
    return planned;
}

void PathPlanner::advance(const CameraPose& step) {
    for (int i = 0; i < 2; ++i) {
        before_[i] = pose_seen_from(before_[i], step);
        wished_[i] = pose_seen_from(wished_[i], step);
    }
}

}  // namespace videostabilizer
