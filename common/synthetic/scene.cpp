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

constexpr int NOISE_BITS = 16;  // size of the noise table; each row starts at a random entry

double unit_of(const CameraSettings& camera) {
    return std::max(1.0, std::min(camera.width, camera.height) / UNITS_PER_PICTURE);
}

int even_size(double reach) {
    return 2 * static_cast<int>(std::ceil(reach)) + 4;
}

// Fixed point: positions with 24 fractional bits, so that rounding errors stay below a thousandth of
// a pixel over the widest row.
constexpr int POSITION_BITS = 24;
constexpr int WEIGHT_BITS = 8;

std::int64_t to_fixed(double value) {
    return static_cast<std::int64_t>(std::floor(value * (1 << POSITION_BITS) + 0.5));
}

// Fills a plane by bilinear sampling of the source; `view` maps destination to source positions,
// beyond the edges the nearest sample is taken.
void sample_plane(const std::vector<std::uint8_t>& source, int source_width, int source_height,
                  const Affine& view, unsigned char* to, std::ptrdiff_t stride, int width,
                  int height) {
    // The right and lower neighbours must exist.
    const std::int64_t last_x = (static_cast<std::int64_t>(source_width - 1) << POSITION_BITS) - 1;
    const std::int64_t last_y = (static_cast<std::int64_t>(source_height - 1) << POSITION_BITS) - 1;
    const std::int64_t step_x = to_fixed(view.a);
    const std::int64_t step_y = to_fixed(view.d);
    constexpr int WEIGHT_SHIFT = POSITION_BITS - WEIGHT_BITS;
    constexpr int ONE = 1 << WEIGHT_BITS;
    for (int row = 0; row < height; ++row) {
        std::int64_t x = to_fixed(view.map_x(0, row));
        std::int64_t y = to_fixed(view.map_y(0, row));
        unsigned char* out = to + row * stride;
        for (int column = 0; column < width; ++column) {
            const std::int64_t sx = std::clamp<std::int64_t>(x, 0, last_x);
            const std::int64_t sy = std::clamp<std::int64_t>(y, 0, last_y);
            const int fx = static_cast<int>(sx >> WEIGHT_SHIFT) & (ONE - 1);
            const int fy = static_cast<int>(sy >> WEIGHT_SHIFT) & (ONE - 1);
            const std::uint8_t* p =
                source.data() + (sy >> POSITION_BITS) * source_width + (sx >> POSITION_BITS);
            const int top = p[0] * (ONE - fx) + p[1] * fx;
            const int bottom = p[source_width] * (ONE - fx) + p[source_width + 1] * fx;
            out[column] = static_cast<unsigned char>(
                (top * (ONE - fy) + bottom * fy + ONE * ONE / 2) >> (2 * WEIGHT_BITS));
            x += step_x;
            y += step_y;
        }
    }
}

// From chroma positions of the picture to chroma positions of the painting. Chroma sample i of
// either sits at luma position 2 i + 1/2.
Affine chroma_view(const Affine& luma) {
    Affine view = luma;
    view.c = 0.5 * (luma.map_x(0.5, 0.5) - 0.5);
    view.f = 0.5 * (luma.map_y(0.5, 0.5) - 0.5);
    return view;
}

}  // namespace

ShakyClip::ShakyClip(const ClipSettings& settings)
    : settings_(settings),
      path_(settings.camera),
      town_(paint_town(even_size(path_.reach_x()), even_size(path_.reach_y()),
                       unit_of(settings.camera), settings.camera.seed)) {
    if (settings.noise <= 0) {
        return;
    }
    // Approximately Gaussian: the sum of twelve uniform values has standard deviation 1.
    Random random(mix(settings.camera.seed, 200));
    noise_.resize(std::size_t{1} << NOISE_BITS);
    for (std::int8_t& value : noise_) {
        double sum = -6;
        for (int i = 0; i < 12; ++i) {
            sum += random.unit();
        }
        value = static_cast<std::int8_t>(
            std::clamp(std::floor(settings.noise * sum + 0.5), -127.0, 127.0));
    }
}

// Draws the painting seen through `view` into `columns` columns from x on, both even except for the
// last column of an odd picture.
void ShakyClip::draw(const Affine& view, const video_io::Planes& planes, int x, int columns) const {
    sample_plane(town_.y, town_.width, town_.height, view, planes.y + x, planes.stride_y, columns,
                 height());
    const Affine chroma = chroma_view(view);
    const int chroma_width = (columns + 1) / 2;
    const int chroma_height = (height() + 1) / 2;
    sample_plane(town_.u, town_.width / 2, town_.height / 2, chroma, planes.u + x / 2,
                 planes.stride_uv, chroma_width, chroma_height);
    sample_plane(town_.v, town_.width / 2, town_.height / 2, chroma, planes.v + x / 2,
                 planes.stride_uv, chroma_width, chroma_height);
}

void ShakyClip::render(int frame, const video_io::Planes& planes) const {
    Affine view = picture_to_scene(path_.shaky(frame), width(), height());
    view.c += 0.5 * town_.width;  // the path's origin is the painting's centre
    view.f += 0.5 * town_.height;
    draw(view, planes, 0, width());
    if (settings_.foreground > 0) {
        draw_foreground(frame, view, planes);
    }
    if (!noise_.empty()) {
        add_noise(frame, planes);
    }
}

// A strip of the painting that moves to and fro in the scene, seen by the same camera. Its edges stay
// vertical in the picture.
void ShakyClip::draw_foreground(int frame, const Affine& view,
                                const video_io::Planes& planes) const {
    const double turns = frame / settings_.camera.fps / FOREGROUND_SECONDS;
    const double walked = 0.5 * (1 - settings_.foreground) * width() * sin_turns(turns);
    const double middle = 0.5 * width() + walked - path_.shaky(frame).x + path_.steady(frame).x;
    const double half = 0.5 * settings_.foreground * width();
    const int left = std::clamp(static_cast<int>(middle - half), 0, width()) & ~1;
    const int right = std::clamp(static_cast<int>(middle + half), 0, width()) & ~1;
    Affine moved = view;
    moved.c += view.a * left - walked;
    moved.f += view.d * left;
    draw(moved, planes, left, right - left);
}

void ShakyClip::add_noise(int frame, const video_io::Planes& planes) const {
    constexpr std::size_t MASK = (std::size_t{1} << NOISE_BITS) - 1;
    for (int row = 0; row < height(); ++row) {
        const auto start =
            static_cast<std::size_t>(mix(settings_.camera.seed, static_cast<std::uint64_t>(frame),
                                         static_cast<std::uint64_t>(row)));
        unsigned char* out = planes.y + row * planes.stride_y;
        for (int column = 0; column < width(); ++column) {
            const int value =
                out[column] + noise_[(start + static_cast<std::size_t>(column)) & MASK];
            out[column] = static_cast<unsigned char>(std::clamp(value, 0, 255));
        }
    }
}

Affine ShakyClip::motion(int from, int to) const {
    return true_motion(path_.shaky(from), path_.shaky(to), width(), height());
}

}  // namespace synthetic
