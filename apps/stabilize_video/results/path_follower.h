// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <videostabilizer/stabilizer.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <vector>

#include "common/video_io/byte_io.h"

namespace apps {

// Where a camera looks: x and y right and down, in pixels of the steady pictures; a positive angle
// is a clockwise rotation; the zoom is relative to the start.
struct CameraView {
    double x = 0;
    double y = 0;
    double angle = 0;  // radians
    double zoom = 1;
};

// One frame on the camera path.
struct FollowedFrame {
    CameraView shaky;                  // as filmed
    CameraView steady;                 // what the steady picture shows
    videostabilizer::MotionLog log{};  // of the motion from the frame before; zero for the first
    videostabilizer::VideoStabilizerReport report{};  // of the correction
};

// Builds two paths from what an observer is told: that of the camera, and the steady one of the
// corrected pictures. The camera starts at 0.
//
// The steady position is the sum of the motions from one steady picture to the next at the picture's
// centre, which is what a viewer sees; the camera's is offset from it by the correction. So the two
// never drift apart, and walks and turns of any length keep their scale and axes. Without
// whole_shift the warp stage crops before it corrects, which is taken into account; the enlargement
// by the crop, the same for all pictures, is left out.
//
// Threads: the observer's functions, and with them the listeners, run on the stabilizer's worker;
//          everything else is owner only, while the worker does not run.
class PathFollower {
  public:
    using Listener = std::function<void(const FollowedFrame&)>;

    // The size of the picture that the stabilizer corrects, pixels.
    PathFollower(int width, int height);

    // Passes every frame, in order, to `listener`.
    void add(Listener listener) { listeners_.push_back(std::move(listener)); }

    // For video_stabilizer_set_observer; valid as long as the follower. `stage_crop_ratio` is the
    // crop ratio of the warp stage: 1 with whole_shift.
    videostabilizer::VideoStabilizerObserver observer(double stage_crop_ratio);

    // Rethrows the first exception of a listener, if any.
    void check() const;

  private:
    // (x, y) -> (a x + b y + c, d x + e y + f), in pixels.
    struct Motion {
        double a = 1, b = 0, c = 0;
        double d = 0, e = 1, f = 0;
    };
    struct Point {
        double x, y;
    };

    static Motion motion_of(const float matrix[9]);
    static Point mapped(const Motion& motion, Point p);
    static Point mapped_back(const Motion& motion, Point p);
    static void turn(const Motion& motion, CameraView& view);

    Motion shown(const float correction[9]) const;
    void move(const float matrix[9], const videostabilizer::MotionLog& log);
    void correct(const float correction[9]);
    void report(const videostabilizer::VideoStabilizerReport& report);

    Point centre_;        // between the centres of the outermost pixels
    Point stage_centre_;  // about which the warp stage crops
    double stage_crop_ratio_ = 1;
    bool is_first_ = true;
    FollowedFrame now_;
    Motion motion_;      // from the frame before
    Motion correction_;  // of the frame before, then of this one
    std::vector<Listener> listeners_;
    std::exception_ptr failure_;
};

// Writes the path as CSV, one line per frame, angles in degrees. `sink` outlives the object.
class PathCsv {
  public:
    // Writes the heading. Throws OutputError.
    explicit PathCsv(video_io::ByteSink& sink);

    void write(const FollowedFrame& point);

  private:
    video_io::ByteSink* sink_;
};

}  // namespace apps
