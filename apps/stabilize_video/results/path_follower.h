#pragma once

#include <videostabilizer/stabilizer.h>

#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <vector>

#include "apps/byte_io.h"

namespace apps {

// Where a camera looks: x and y to the right and down, in pixels of the picture; a positive angle
// is a turn clockwise; a zoom above 1, that it has come closer.
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

// Puts the motions that the stabilizer measures together to the path of the camera, and the
// corrections to the steadier one. Positions are sums of the steps from frame to frame at the
// picture centre, starting at 0. The steady path tells what the steady pictures show: where the
// warp stage shortens the shift of a correction, so does the follower. The enlargement by the crop,
// the same for all pictures, is left out of the zoom.
//
// Threads: the observer's functions, and so the listeners, run on the stabilizer's worker; all else
//          while the worker does not run.
class PathFollower {
  public:
    using Listener = std::function<void(const FollowedFrame&)>;

    // The centre is that of the frames that the stabilizer sees.
    PathFollower(double centre_x, double centre_y) : centre_x_(centre_x), centre_y_(centre_y) {}

    // Has every point told to `listener`, in the order of the frames.
    void add(Listener listener) { listeners_.push_back(std::move(listener)); }

    // To be given to video_stabilizer_set_observer; valid as long as the follower. `shift_ratio` is
    // the part of a correction's shift that the warp stage makes: its crop ratio.
    videostabilizer::VideoStabilizerObserver observer(double shift_ratio);

    // Throws the first exception that a listener has thrown, if any.
    void check() const;

  private:
    CameraView moved(const CameraView& view, const float matrix[9]) const;
    FollowedFrame& point(std::int32_t frame);
    void correct(std::int32_t frame, const float correction[9]);
    void report(const videostabilizer::VideoStabilizerReport& report);

    double centre_x_;
    double centre_y_;
    double shift_ratio_ = 1;
    // Frames whose motion is known but whose correction is not; the first has the number first_.
    std::deque<FollowedFrame> points_{FollowedFrame{}};
    std::int32_t first_ = 0;
    std::vector<Listener> listeners_;
    std::exception_ptr failure_;
};

// Writes the path as CSV, one line per frame: angles in degrees, status 0 where the motion from the
// frame before was found. `sink` outlives the object.
class PathCsv {
  public:
    // Writes the heading. Throws OutputError.
    explicit PathCsv(ByteSink& sink);

    void write(const FollowedFrame& point);

  private:
    ByteSink* sink_;
};

}  // namespace apps
