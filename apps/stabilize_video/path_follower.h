#pragma once

#include <videostabilizer/stabilizer.h>

#include <array>
#include <cstdint>
#include <exception>

#include "apps/byte_io.h"

namespace apps {

// Writes the camera path that the stabilizer measures, and the steadier one that it makes of it, as
// CSV: one line per frame. Positions are sums of the steps from frame to frame at the picture
// centre, in pixels of the picture, starting at 0; x and y tell where the camera looks (right and
// down), a positive angle that it turns clockwise, a zoom above 1 that it has come closer. The
// steady path tells what the steady pictures show: the warp stage shortens the shift of a
// correction by its crop ratio, and so does the recorder. The enlargement by the crop, the same for
// all pictures, is left out of the zoom.
//
// Threads: the observer's functions run on the stabilizer's worker; check() when that has ended, or
//          at any time from the thread that owns `sink` while the worker is not running.
class PathRecorder {
  public:
    // Writes the heading. `sink` must outlive the recorder. The centre is that of the frames that
    // the stabilizer sees.
    PathRecorder(ByteSink& sink, double centre_x, double centre_y);

    // To be given to video_stabilizer_set_observer; valid as long as the recorder. `crop_ratio` is
    // that of the stabilizer's warp stage.
    videostabilizer::VideoStabilizerObserver observer(double crop_ratio);

    // Throws the OutputError that the worker met, if any.
    void check() const;

  private:
    struct View {
        double x = 0;
        double y = 0;
        double angle = 0;  // radians
        double zoom = 1;
    };
    struct Entry {
        View view;
        videostabilizer::MotionLog log;
    };

    View moved(const View& view, const float matrix[9]) const;
    Entry& entry(std::int32_t frame);
    void write_line(std::int32_t frame, const float correction[9]);

    ByteSink& sink_;
    double centre_x_;
    double centre_y_;
    double crop_ratio_ = 1;
    // The corrections of frames follow their motions by ten frames; a ring that holds more than
    // that.
    std::array<Entry, 32> entries_{};
    std::exception_ptr failure_;
};

}  // namespace apps
