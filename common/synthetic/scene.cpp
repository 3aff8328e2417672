// SPDX-License-Identifier: Apache-2.0

#include "common/synthetic/scene.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "common/synthetic/deterministic.h"

namespace synthetic {

namespace {

// The scene is painted for pictures 360 units high, so that windows and roofs are corners also in the
// decimated image that the stabilizer analyses (480 x 270 of 1920 x 1080).
constexpr double UNITS_PER_PICTURE = 360;

constexpr double FOREGROUND_SECONDS = 5;  // period

constexpr double MIDDLE_GREY = 118;

double unit_of(const CameraSettings& camera) {
    return std::max(1.0, std::min(camera.width, camera.height) / UNITS_PER_PICTURE);
}

int even_size(double reach) {
    return 2 * static_cast<int>(std::ceil(reach)) + 4;
}

// Motion blur: views this many pixels apart at the corners look like one.
constexpr double SUB_FRAME_PIXELS = 1;
constexpr int FEWEST_SUB_FRAMES = 4;
constexpr int MOST_SUB_FRAMES = 32;

Painting paint(const ClipSettings& settings, const CameraPath& path) {
    using Painter = Painting (*)(int, int, double, std::uint64_t);
    const Painter painter = settings.scenery == Scenery::WALLS   ? paint_walls
                            : settings.scenery == Scenery::PAPER ? paint_paper
                                                                 : paint_town;
    Painting painting = painter(even_size(path.reach_x()), even_size(path.reach_y()),
                                unit_of(settings.camera), settings.camera.seed);
    if (settings.scene_contrast < 1) {
        for (std::uint8_t& level : painting.y) {
            level = static_cast<std::uint8_t>(
                std::floor(MIDDLE_GREY + settings.scene_contrast * (level - MIDDLE_GREY) + 0.5));
        }
    }
    return painting;
}

// Beyond the edges the nearest sample is taken.
void sample_line(const SourcePlane& source, const Affine& view, const Line& line) {
    const std::int64_t last_x = source.last_x();
    const std::int64_t last_y = source.last_y();
    follow_line(line, view, [&](unsigned char& sample, std::int64_t x, std::int64_t y) {
        sample = static_cast<unsigned char>(source.at(std::clamp<std::int64_t>(x, 0, last_x),
                                                      std::clamp<std::int64_t>(y, 0, last_y)));
    });
}

// The part of a row or column between columns `left` and `right`; `view` maps from `left` on.
Line part_of(const Line& line, int left, int right) {
    Line part = line;
    if (line.is_row) {
        part.x = 0;
        part.to += left * line.step;
        part.count = right - left;
    } else {
        part.x = line.x - left;
        part.count = line.x >= left && line.x < right ? line.count : 0;
    }
    return part;
}

}  // namespace

ShakyClip::ShakyClip(const ClipSettings& settings)
    : settings_(settings),
      path_(settings.camera),
      painting_(paint(settings, path_)),
      actors_(settings.actors, settings.camera),
      sensor_(settings.sensor, settings.shutter, settings.camera, settings.noise) {}

ShakyClip::Moment ShakyClip::moment_at(double frame) const {
    Moment moment;
    moment.view = picture_to_scene(path_.shaky(frame), width(), height());
    moment.view.c += 0.5 * painting_.width;  // the path's origin is the painting's centre
    moment.view.f += 0.5 * painting_.height;
    if (settings_.foreground > 0) {
        // A strip of the painting that moves to and fro in the scene, seen by the same camera. Its
        // edges stay vertical in the picture.
        const double turns = frame / settings_.camera.fps / FOREGROUND_SECONDS;
        const double walked = 0.5 * (1 - settings_.foreground) * width() * sin_turns(turns);
        const double middle = 0.5 * width() + walked - path_.shaky(frame).x + path_.steady(frame).x;
        const double half = 0.5 * settings_.foreground * width();
        moment.left = std::clamp(static_cast<int>(middle - half), 0, width()) & ~1;
        moment.right = std::clamp(static_cast<int>(middle + half), 0, width()) & ~1;
        moment.moved = moment.view;
        moment.moved.c += moment.view.a * moment.left - walked;
        moment.moved.f += moment.view.d * moment.left;
    }
    moment.actors = actors_.at(frame, path_);
    return moment;
}

// Draws line i of luma (plane 0) or of both chroma planes (plane 1).
void ShakyClip::draw_line(int plane, const Moment& moment, const video_io::Planes& planes,
                          int i) const {
    const bool luma = plane == 0;
    const int divisor = luma ? 1 : 2;
    const int columns = luma ? width() : (width() + 1) / 2;
    const int rows = luma ? height() : (height() + 1) / 2;
    const std::ptrdiff_t stride = luma ? planes.stride_y : planes.stride_uv;
    const bool is_row = !settings_.shutter.by_columns;
    const auto line_of = [&](unsigned char* samples) -> Line {
        return is_row ? Line{samples + i * stride, 1, columns, 0, i, true}
                      : Line{samples + i, stride, rows, i, 0, false};
    };
    const auto draw = [&](unsigned char* samples, const std::vector<std::uint8_t>& source) {
        const SourcePlane from(source, painting_.width / divisor, painting_.height / divisor);
        const Line line = line_of(samples);
        sample_line(from, luma ? moment.view : chroma_view(moment.view), line);
        if (moment.left < moment.right) {
            sample_line(from, luma ? moment.moved : chroma_view(moment.moved),
                        part_of(line, moment.left / divisor, moment.right / divisor));
        }
    };
    if (luma) {
        draw(planes.y, painting_.y);
        actors_.draw_luma(moment.actors, line_of(planes.y));
    } else {
        draw(planes.u, painting_.u);
        draw(planes.v, painting_.v);
        actors_.draw_chroma(moment.actors, line_of(planes.u), line_of(planes.v));
    }
}

// The picture of a shutter that is open for a moment only, without what the sensor does to it.
void ShakyClip::draw_at(double frame, const video_io::Planes& planes) const {
    const ShutterSettings& shutter = settings_.shutter;
    const int lines = shutter.by_columns ? width() : height();
    const bool rolls = std::abs(shutter.readout) > 0;
    Moment moment = moment_at(frame);
    for (int i = 0; i < lines; ++i) {
        if (rolls) {
            moment = moment_at(frame + shutter.line_time(i, lines));
        }
        draw_line(0, moment, planes, i);
    }
    for (int i = 0; i < (lines + 1) / 2; ++i) {
        if (rolls) {
            moment = moment_at(frame + shutter.line_time(2 * i + 0.5, lines));
        }
        draw_line(1, moment, planes, i);
    }
}

// Views to average for the motion blur of a frame.
int ShakyClip::sub_frames(int frame) const {
    const double half = 0.5 * settings_.shutter.exposure;
    if (half <= 0) {
        return 1;
    }
    const Affine motion =
        true_motion(path_.shaky(frame - half), path_.shaky(frame + half), width(), height());
    double furthest = 0;
    for (const int x : {0, width()}) {
        for (const int y : {0, height()}) {
            furthest = std::max(
                {furthest, std::abs(motion.map_x(x, y) - x), std::abs(motion.map_y(x, y) - y)});
        }
    }
    return std::clamp(static_cast<int>(furthest / SUB_FRAME_PIXELS), FEWEST_SUB_FRAMES,
                      MOST_SUB_FRAMES);
}

void ShakyClip::render(int frame, const video_io::Planes& planes) const {
    const int views = sub_frames(frame);
    if (views == 1) {
        draw_at(frame, planes);
    } else {
        const int chroma_width = (width() + 1) / 2;
        const int chroma_height = (height() + 1) / 2;
        const std::ptrdiff_t luma = std::ptrdiff_t{width()} * height();
        const std::ptrdiff_t chroma = std::ptrdiff_t{chroma_width} * chroma_height;
        std::vector<unsigned char> view(static_cast<std::size_t>(luma + 2 * chroma));
        std::vector<int> sums(view.size());
        const video_io::Planes parts{view.data(), view.data() + luma, view.data() + luma + chroma,
                                     width(), chroma_width};
        for (int i = 0; i < views; ++i) {
            draw_at(frame + settings_.shutter.exposure * ((i + 0.5) / views - 0.5), parts);
            for (std::size_t k = 0; k < sums.size(); ++k) {
                sums[k] += view[k];
            }
        }
        const int* sum = sums.data();
        const auto average = [&](unsigned char* to, std::ptrdiff_t stride, int columns, int rows) {
            for (int y = 0; y < rows; ++y) {
                for (int x = 0; x < columns; ++x) {
                    to[y * stride + x] = static_cast<unsigned char>((*sum++ + views / 2) / views);
                }
            }
        };
        average(planes.y, planes.stride_y, width(), height());
        average(planes.u, planes.stride_uv, chroma_width, chroma_height);
        average(planes.v, planes.stride_uv, chroma_width, chroma_height);
    }
    sensor_.expose(frame, planes);
    sensor_.read(frame, planes);
    actors_.draw_overlay(planes);
    if (settings_.sensor.compression > 0) {
        sensor_.compress(planes);
    }
}

// Gauss' quadrature with three points, exact for polynomials of degree 5.
Pose ShakyClip::pose(double frame) const {
    const double exposure = settings_.shutter.exposure;
    Pose mean = path_.shaky(frame);
    if (exposure <= 0) {
        return mean;
    }
    const double offset = 0.5 * exposure * std::sqrt(0.6);
    const Pose before = path_.shaky(frame - offset);
    const Pose after = path_.shaky(frame + offset);
    for (double Pose::*const part : {&Pose::x, &Pose::y, &Pose::angle, &Pose::zoom}) {
        mean.*part = (5 * before.*part + 8 * mean.*part + 5 * after.*part) / 18;
    }
    return mean;
}

Affine ShakyClip::motion(int from, int to) const {
    return true_motion(pose(from), pose(to), width(), height());
}

}  // namespace synthetic
