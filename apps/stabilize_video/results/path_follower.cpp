#include "apps/stabilize_video/path_follower.h"

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

// The point of a frame, made if the frame is the newest.
FollowedFrame& PathFollower::point(std::int32_t frame) {
    const auto index = static_cast<std::size_t>(frame - first_);
    if (points_.size() <= index) points_.resize(index + 1);
    return points_[index];
}

// The view after `matrix` has carried positions of one picture to the next.
CameraView PathFollower::moved(const CameraView& view, const float matrix[9]) const {
    const auto element = [matrix](int i) { return static_cast<double>(matrix[i]); };
    const double a = element(0), b = element(1), c = element(2);
    const double d = element(3), e = element(4), f = element(5);
    const double det = a * e - b * d;
    CameraView next = view;
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

void PathFollower::correct(std::int32_t frame, const float correction[9]) {
    FollowedFrame& now = point(frame);
    now.steady = moved(now.shaky, correction);
    now.steady.x = now.shaky.x + shift_ratio_ * (now.steady.x - now.shaky.x);
    now.steady.y = now.shaky.y + shift_ratio_ * (now.steady.y - now.shaky.y);
}

void PathFollower::report(const videostabilizer::VideoStabilizerReport& report) {
    FollowedFrame& now = point(report.frame);
    now.report = report;
    try {
        for (const Listener& listener : listeners_) {
            listener(now);
        }
    } catch (...) {  // nothing may be thrown through the library
        if (!failure_) failure_ = std::current_exception();
    }
    for (; first_ < report.frame; ++first_) {
        points_.pop_front();
    }
}

videostabilizer::VideoStabilizerObserver PathFollower::observer(double shift_ratio) {
    shift_ratio_ = shift_ratio;
    videostabilizer::VideoStabilizerObserver observer{};
    observer.ctx = this;
    observer.on_motion = [](void* ctx, std::int32_t frame, const float motion[9],
                            const videostabilizer::MotionLog* log) {
        auto& self = *static_cast<PathFollower*>(ctx);
        const CameraView view = self.moved(self.point(frame).shaky, motion);
        FollowedFrame& next = self.point(frame + 1);
        next.shaky = view;
        next.log = *log;
    };
    observer.on_correction = [](void* ctx, std::int32_t frame, const float correction[9]) {
        static_cast<PathFollower*>(ctx)->correct(frame, correction);
    };
    observer.on_report = [](void* ctx, const videostabilizer::VideoStabilizerReport* report) {
        static_cast<PathFollower*>(ctx)->report(*report);
    };
    return observer;
}

void PathFollower::check() const {
    if (failure_) std::rethrow_exception(failure_);
}

PathCsv::PathCsv(ByteSink& sink) : sink_(&sink) {
    sink_->write(reinterpret_cast<const unsigned char*>(HEADING), std::strlen(HEADING));
}

void PathCsv::write(const FollowedFrame& point) {
    char line[512];
    const int length = std::snprintf(
        line, sizeof line, "%d,%.4f,%.4f,%.6f,%.8f,%.4f,%.4f,%.6f,%.8f,%d,%d,%.4f,%d\n",
        point.report.frame, point.shaky.x, point.shaky.y, point.shaky.angle * DEGREES,
        point.shaky.zoom, point.steady.x, point.steady.y, point.steady.angle * DEGREES,
        point.steady.zoom, point.log.ninliers, point.log.npoints,
        static_cast<double>(point.log.track_ratio), point.log.status);
    sink_->write(reinterpret_cast<const unsigned char*>(line), static_cast<std::size_t>(length));
}

}  // namespace apps
