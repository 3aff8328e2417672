// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/results/path_follower.h"

#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

namespace apps {

namespace {

constexpr double DEGREES = 180 / 3.14159265358979323846;

constexpr const char* HEADING =
    "frame,x,y,angle_deg,zoom,steady_x,steady_y,steady_angle_deg,steady_zoom,"
    "inliers,points,track_ratio,status,crop,readout,readout_confidence\n";

}  // namespace

PathFollower::PathFollower(int width, int height)
    : centre_{0.5 * (width - 1), 0.5 * (height - 1)}, stage_centre_{0.5 * width, 0.5 * height} {}

// No motion for a matrix that collapses or mirrors the picture, as no camera does.
PathFollower::Motion PathFollower::motion_of(const float matrix[9]) {
    const auto element = [matrix](int i) { return static_cast<double>(matrix[i]); };
    const Motion motion{element(0), element(1), element(2), element(3), element(4), element(5)};
    const double det = motion.a * motion.e - motion.b * motion.d;
    return std::isnormal(det) && det > 0 ? motion : Motion{};
}

PathFollower::Point PathFollower::mapped(const Motion& m, Point p) {
    return {m.a * p.x + m.b * p.y + m.c, m.d * p.x + m.e * p.y + m.f};
}

PathFollower::Point PathFollower::mapped_back(const Motion& m, Point p) {
    const double det = m.a * m.e - m.b * m.d;
    const double x = p.x - m.c;
    const double y = p.y - m.f;
    return {(m.e * x - m.b * y) / det, (m.a * y - m.d * x) / det};
}

// The picture turns against the camera, and grows as the camera comes closer.
void PathFollower::turn(const Motion& m, CameraView& view) {
    view.angle -= std::atan2(m.d - m.b, m.a + m.e);
    view.zoom *= std::sqrt(m.a * m.e - m.b * m.d);
}

// The whole transform of the picture, but for its enlargement. With crop ratio r the stage first
// enlarges by 1 / r about its own centre k, then applies the correction, L p + t. Enlarged back by r
// about the centre c, that is L p + r t + (1 - r) (c - L k).
PathFollower::Motion PathFollower::shown(const float correction[9]) const {
    Motion m = motion_of(correction);
    const double r = stage_crop_ratio_;
    const Point k = stage_centre_;
    m.c = r * m.c + (1 - r) * (centre_.x - m.a * k.x - m.b * k.y);
    m.f = r * m.f + (1 - r) * (centre_.y - m.d * k.x - m.e * k.y);
    return m;
}

void PathFollower::move(const float matrix[9], const videostabilizer::MotionLog& log) {
    motion_ = motion_of(matrix);
    now_.log = log;
    turn(motion_, now_.shaky);
}

void PathFollower::correct(const float correction[9]) {
    const Motion before = std::exchange(correction_, shown(correction));
    const Point shaky = mapped(correction_, centre_);  // the camera's view, in the steady picture
    if (is_first_) {
        now_.steady.x = centre_.x - shaky.x;
        now_.steady.y = centre_.y - shaky.y;
        is_first_ = false;
    } else {
        // The centre of this steady picture, in the last one.
        const Point now = mapped(before, mapped_back(motion_, mapped_back(correction_, centre_)));
        now_.steady.x += now.x - centre_.x;
        now_.steady.y += now.y - centre_.y;
    }
    now_.shaky.x = now_.steady.x + shaky.x - centre_.x;
    now_.shaky.y = now_.steady.y + shaky.y - centre_.y;
    now_.steady.angle = now_.shaky.angle;
    now_.steady.zoom = now_.shaky.zoom;
    turn(correction_, now_.steady);
}

void PathFollower::report(const videostabilizer::VideoStabilizerReport& report) {
    now_.report = report;
    try {
        for (const Listener& listener : listeners_) {
            listener(now_);
        }
    } catch (...) {  // nothing may be thrown through the library
        if (!failure_) {
            failure_ = std::current_exception();
        }
    }
}

videostabilizer::VideoStabilizerObserver PathFollower::observer(double stage_crop_ratio) {
    stage_crop_ratio_ = stage_crop_ratio;
    videostabilizer::VideoStabilizerObserver observer{};
    observer.ctx = this;
    observer.on_motion = [](void* ctx, std::int32_t, const float motion[9],
                            const videostabilizer::MotionLog* log) {
        static_cast<PathFollower*>(ctx)->move(motion, *log);
    };
    observer.on_correction = [](void* ctx, std::int32_t, const float correction[9]) {
        static_cast<PathFollower*>(ctx)->correct(correction);
    };
    observer.on_report = [](void* ctx, const videostabilizer::VideoStabilizerReport* report) {
        static_cast<PathFollower*>(ctx)->report(*report);
    };
    return observer;
}

void PathFollower::check() const {
    if (failure_) {
        std::rethrow_exception(failure_);
    }
}

PathCsv::PathCsv(video_io::ByteSink& sink) : sink_(&sink) {
    sink_->write(reinterpret_cast<const unsigned char*>(HEADING), std::strlen(HEADING));
}

void PathCsv::write(const FollowedFrame& point) {
    char line[512];
    const int length = std::snprintf(
        line, sizeof line,
        "%d,%.4f,%.4f,%.6f,%.8f,%.4f,%.4f,%.6f,%.8f,%d,%d,%.4f,%d,%.6f,%.4f,%.4f\n",
        point.report.frame, point.shaky.x, point.shaky.y, point.shaky.angle * DEGREES,
        point.shaky.zoom, point.steady.x, point.steady.y, point.steady.angle * DEGREES,
        point.steady.zoom, point.log.ninliers, point.log.npoints,
        static_cast<double>(point.log.track_ratio), point.log.status,
        static_cast<double>(point.report.crop), static_cast<double>(point.report.readout),
        static_cast<double>(point.report.readout_confidence));
    sink_->write(reinterpret_cast<const unsigned char*>(line), static_cast<std::size_t>(length));
}

}  // namespace apps
