// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

#include "motion/camera_pose.h"
#include "path/crop_planner.h"
#include "rolling_shutter/line_motion.h"

namespace videostabilizer {

struct PathPlannerSettings {
    int width;          // picture size, pixels
    int height;         //
    int look_ahead;     // later frames known when a frame is planned
    double sigma;       // time constant of the smoothing, frames
    double crop_ratio;  // part of the width and height that is shown, 0.5..1
    // Instead of it, where crop_most is not 0: bounds of the part, which is planned for each frame.
    double crop_least = 0;
    double crop_most = 0;
};

// Settings that may change from frame to frame.
struct PathChange {
    double sigma;
    double crop_ratio;
    double crop_least;  // read where the crop adapts
    double crop_most;   //
    double crop_speed;  // the most that the logarithm of crop_ratio changes by from frame to frame
};

struct PlannedPose {
    CameraPose pose;    // of the steady picture, relative to its frame
    bool guarded;       // the limits change it
    double granted;     // 0..1: part of the correction without limits that is made
    double crop;        // part of the width and height that is shown
    double line_share;  // 0..1: part of what lines are moved by for which there is room
};

// Plans a smooth camera path along the shaky one, such that every steady picture lies within its
// source picture.
//
// For frame n the poses p(n) .. p(n + look_ahead) are found that minimise
//
//     sum of |p(k) - c(k)|^2 + A |p(k) - p(k-1)|^2 + B |p(k) - 2 p(k-1) + p(k-2)|^2
//
// within the limits of each frame, where c is the shaky path and p(n-1), p(n-2) were planned before.
// Of these p(n) is kept. Away from the limits this is a linear smoothing with weights of about
// exp(-|i| / sigma), for A = sigma^2, rounded off by B. A limit within the look-ahead bends the path
// before it is reached, under the same costs, so that the path meets and leaves limits smoothly. The
// shaky path itself is within all limits, so a plan always exists.
//
// A crop that adapts is planned first, by CropPlanner, from what the path without limits needs in each
// frame of the look-ahead.
//
// The method is model predictive control (receding horizon). The quadratic programme is solved with
// the alternating direction method of multipliers (S. Boyd et al., "Distributed optimization and
// statistical learning via the alternating direction method of multipliers", 2011), whose linear
// system is pentadiagonal. Time and memory are linear in the look-ahead; nothing is allocated after
// construction.
//
// Threads: owner only.
class PathPlanner {
  public:
    explicit PathPlanner(const PathPlannerSettings& settings);  // throws std::bad_alloc

    // The path goes on from where it is. The crop changes slowly, but with the next scene at once.
    void change(const PathChange& change);

    // The next frame is the first of a scene: it does not continue the path planned before.
    void begin_scene();

    // Plans a frame. camera[k] is the pose of the k-th frame from this one on, relative to this one:
    // camera[0] is the default pose; count is 1..look_ahead + 1.
    // lines[k]: how far the lines of each of them are moved as well; null: none are.
    PlannedPose plan(const CameraPose* camera, int count, const LineReach* lines = nullptr);

    // Goes on to the next frame, whose pose relative to the planned one is `step`.
    void advance(const CameraPose& step);

  private:
    // A pose without its zoom, the angle as the shift in pixels that it makes at turn_lever_.
    struct Point {
        double x = 0;
        double y = 0;
        double turn = 0;

        Point operator+(const Point& p) const { return {x + p.x, y + p.y, turn + p.turn}; }
        Point operator-(const Point& p) const { return {x - p.x, y - p.y, turn - p.turn}; }
        friend Point operator*(double f, const Point& p) { return {f * p.x, f * p.y, f * p.turn}; }
    };
    // The limits of one frame: |x| + lever_x |turn| <= room_x, and likewise y, with the shift in the
    // axes of the frame.
    struct Limits {
        double cosine, sine;  // of the frame's angle
        double room_x, room_y;
        double lever_x, lever_y;
        double line_share;  // see PlannedPose
    };

    void factorise(std::size_t count, double extra);
    void solve(std::size_t count, std::vector<Point>& x) const;
    void set_costs();
    void approach_crop(std::size_t count);
    template <class IntoLimits>
    void find_path(std::size_t count, const std::array<Point, 2>& before, IntoLimits into_limits);
    void pull_to(std::size_t count, const std::array<Point, 2>& before, std::vector<Point>& pull);
    Point point_of(const CameraPose& pose) const;
    Point wish(std::size_t count);
    void plan_zoom(const CameraPose* camera, std::size_t count);
    void plan_crop(const CameraPose* camera, std::size_t count);
    void set_limits(const CameraPose* camera, std::size_t count);
    static Point into_limits(const Limits& limits, const Point& centre, const Point& point);

    PathPlannerSettings settings_;
    double half_width_;                        // between the centres of the outermost pixels
    double half_height_;                       //
    double turn_lever_;                        // pixels
    double speed_cost_ = 0;                    // A
    double change_cost_ = 0;                   // B
    double shown_;                             // of the last frame, on its way to crop_ratio
    double crop_speed_ = 0;                    // see PathChange
    std::optional<CropPlanner> crop_planner_;  // with a crop that adapts
    int past_ = 0;          // planned frames that the next one continues: 0, 1 or 2
    CameraPose before_[2];  // their poses, the last first, relative to the next frame
    CameraPose wished_[2];  // likewise, without limits

    // One element per frame from the planned one on.
    std::vector<double> diagonal_, below_, below2_;  // factorised system
    std::vector<double> zoom_;                       // planned
    std::vector<double> crop_;                       // planned; as needed, while it is planned
    std::vector<Limits> limits_;
    std::vector<LineReach> lines_;
    std::vector<Point> shaky_, pull_, free_, held_, dual_;
};

}  // namespace videostabilizer
