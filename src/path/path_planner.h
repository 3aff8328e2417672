#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "motion/camera_pose.h"

namespace videostabilizer {

struct PathPlannerSettings {
    int width;          // picture size, pixels
    int height;         //
    int look_ahead;     // later frames that are known when a frame is planned
    double sigma;       // time constant of the smoothing, frames
    double crop_ratio;  // shown part of the picture, 0.5..1
};

struct PlannedPose {
    CameraPose pose;  // of the steady picture, seen from its own frame
    bool guarded;     // it is not where it would be if no source had edges
    double granted;   // 0..1: the part of that correction which was made
};

// Plans the path of a camera that moves smoothly past the shaky one, of which it may not lose
// sight: every steady picture lies within its source picture.
//
// For the newest frame n to be planned, the poses p(n) .. p(n + look_ahead) are chosen that make
//
//     sum of |p(k) - c(k)|^2 + A |p(k) - p(k-1)|^2 + B |p(k) - 2 p(k-1) + p(k-2)|^2
//
// the least, c being the shaky path and p(n-1), p(n-2) what was planned before, subject to the
// limits of each frame; and of those p(n) is kept. Where no limit is near this is a linear
// smoothing with weights of about exp(-|i| / sigma), for A = sigma^2, rounded by B. Where one is
// near the path leans away as soon as the limit is in sight, follows it and leaves it as smoothly:
// the same costs rule the way to it. Since every frame is within its own limits, there is always a
// plan for the next.
//
// The method is model predictive control (receding horizon); its quadratic programme is solved by
// the alternating direction method of multipliers (S. Boyd et al., "Distributed optimization and
// statistical learning via the alternating direction method of multipliers", 2011), whose linear
// system is pentadiagonal. Time and memory grow linearly with the look-ahead; nothing is allocated
// after construction.
//
// Threads: one at a time.
class PathPlanner {
  public:
    explicit PathPlanner(const PathPlannerSettings& settings);  // throws std::bad_alloc

    // Forgets what was planned: the next frame has nothing to do with the ones before.
    void begin_scene();

    // Plans the next frame. camera[k] is the pose of the k-th frame from it on, seen from it, so
    // that camera[0] is the default pose; count is 1 up to look_ahead + 1.
    PlannedPose plan(const CameraPose* camera, int count);

    // The frame after the planned one is next; `step` is its pose seen from the planned one.
    void advance(const CameraPose& step);

  private:
    // A pose without its zoom, and the turn in pixels, as its shift at turn_lever_.
    struct Point {
        double x = 0;
        double y = 0;
        double turn = 0;

        Point operator+(const Point& p) const { return {x + p.x, y + p.y, turn + p.turn}; }
        Point operator-(const Point& p) const { return {x - p.x, y - p.y, turn - p.turn}; }
        friend Point operator*(double f, const Point& p) { return {f * p.x, f * p.y, f * p.turn}; }
    };
    // What one frame allows: with the shift turned into the axes of the frame,
    // |x| + lever_x |turn| <= room_x, and likewise y.
    struct Limits {
        double cosine, sine;  // of the frame's angle
        double room_x, room_y;
        double lever_x, lever_y;
    };

    void factorise(std::size_t count, double extra);
    void solve(std::size_t count, std::vector<Point>& x) const;
    template <class IntoLimits>
    void find_path(std::size_t count, const std::array<Point, 2>& before, IntoLimits into_limits);
    void pull_to(std::size_t count, const std::array<Point, 2>& before, std::vector<Point>& pull);
    Point point_of(const CameraPose& pose) const;
    Point wish(std::size_t count);
    void plan_zoom(const CameraPose* camera, std::size_t count);
    void set_limits(const CameraPose* camera, std::size_t count);
    static Point into_limits(const Limits& limits, const Point& centre, const Point& point);

    PathPlannerSettings settings_;
    double half_width_;     // of the picture, between the centres of its outermost pixels
    double half_height_;    //
    double turn_lever_;     // pixels
    double zoom_room_;      // largest correction of the zoom, either way
    double speed_cost_;     // A
    double change_cost_;    // B
    int past_ = 0;          // planned frames that the next one continues: 0, 1 or 2
    CameraPose before_[2];  // these frames, the last one first, seen from the next
    CameraPose wished_[2];  // likewise, had there never been an edge

    // By frame, from the one that is planned on.
    std::vector<double> diagonal_, below_, below2_;  // the factorised system
    std::vector<double> zoom_;                       // planned
    std::vector<Limits> limits_;
    std::vector<Point> shaky_, pull_, free_, held_, dual_;
};

}  // namespace videostabilizer
