#include "apps/stabilize_video/path_recorder.h"

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace apps {

namespace {

constexpr double DEGREES = 180 / 3.14159265358979323846;

constexpr const char* HEADING =
    "frame,x,y,angle_deg,zoom,steady_x,steady_y,steady_angle_deg,steady_zoom,"
    "inliers,points,track_ratio,status\n";

}  // namespace

PathRecorder::PathRecorder(ByteSink& sink, double centre_x, double centre_y)
    : sink_(sink), centre_x_(centre_x), centre_y_(centre_y) {
    sink_.write(reinterpret_cast<const unsigned char*>(HEADING), std::strlen(HEADING));
}

PathRecorder::Entry& PathRecorder::entry(std::int32_t frame) {
    return entries_[static_cast<std::size_t>(frame) % entries_.size()];
}

// The view after `matrix` has carried positions of one picture to the next.
PathRecorder::View PathRecorder::moved(const View& view, const float matrix[9]) const {
    const double a = matrix[0], b = matrix[1], c = matrix[2];
    const double d = matrix[3], e = matrix[4], f = matrix[5];
    const double det = a * e - b * d;
    View next = view;
    if (!std::isnormal(det) || det < 0) return next;  // no camera moves like this
    // The position of the earlier picture that arrives at the centre: there the camera looks now.
    const double to_x = centre_x_ - c;
    const double to_y = centre_y_ - f;
    next.x += (e * to_x - b * to_y) / det - centre_x_;
    next.y += (a * to_y - d * to_x) / det - centre_y_;
    // The picture turns against the camera, and grows as the camera comes closer.
    next.angle -= std::atan2(d - b, a + e);
    next.zoom *= std::sqrt(det);
    return next;
}

void PathRecorder::write_line(std::int32_t frame, const float correction[9]) {
    const Entry& now = entry(frame);
    View steady = moved(now.view, correction);
    steady.x = now.view.x + crop_ratio_ * (steady.x - now.view.x);
    steady.y = now.view.y + crop_ratio_ * (steady.y - now.view.y);
    char line[512];
    const int length = std::snprintf(
        line, sizeof line, "%d,%.4f,%.4f,%.6f,%.8f,%.4f,%.4f,%.6f,%.8f,%d,%d,%.4f,%d\n", frame,
        now.view.x, now.view.y, now.view.angle * DEGREES, now.view.zoom, steady.x, steady.y,
        steady.angle * DEGREES, steady.zoom, now.log.ninliers, now.log.npoints,
        static_cast<double>(now.log.track_ratio), now.log.status);
    try {
        sink_.write(reinterpret_cast<const unsigned char*>(line), static_cast<std::size_t>(length));
    } catch (...) {  // nothing may be thrown through the library
        if (!failure_) failure_ = std::current_exception();
    }
}

videostabilizer::VideoStabilizerObserver PathRecorder::observer(double crop_ratio) {
    crop_ratio_ = crop_ratio;
    videostabilizer::VideoStabilizerObserver observer{};
    observer.ctx = this;
    observer.on_motion = [](void* ctx, std::int32_t frame, const float motion[9],
                            const videostabilizer::MotionLog* log) {
        auto& self = *static_cast<PathRecorder*>(ctx);
        self.entry(frame + 1) = {self.moved(self.entry(frame).view, motion), *log};
    };
    observer.on_correction = [](void* ctx, std::int32_t frame, const float correction[9]) {
        static_cast<PathRecorder*>(ctx)->write_line(frame, correction);
    };
    return observer;
}

void PathRecorder::check() const {
    if (failure_) std::rethrow_exception(failure_);
}

}  // namespace apps
