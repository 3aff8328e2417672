// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/pictures/picture_layout.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace apps {

namespace {

constexpr int WIDTH_STEP = 16;
constexpr int HEIGHT_STEP = 2;
constexpr int SMALLEST_SIDE = 16;

int round_up(int value, int step) {
    return (value + step - 1) / step * step;
}

// Half of a border, rounded down to even.
int near_side(int border) {
    return border / 2 / 2 * 2;
}

struct Box {
    int left, top, width, height;   // the picture
    int whole_width, whole_height;  // the plane
};

void fill_plane_border(unsigned char* plane, std::ptrdiff_t stride, const Box& box) {
    const int right = box.left + box.width;
    const int bottom = box.top + box.height;
    const auto bytes = [](int count) { return static_cast<std::size_t>(count); };
    for (int y = box.top; y < bottom; ++y) {
        unsigned char* row = plane + y * stride;
        std::memset(row, row[box.left], bytes(box.left));
        std::memset(row + right, row[right - 1], bytes(box.whole_width - right));
    }
    const auto copy_row = [&](int to, int from) {
        std::memcpy(plane + to * stride, plane + from * stride, bytes(box.whole_width));
    };
    for (int y = 0; y < box.top; ++y) {
        copy_row(y, box.top);
    }
    for (int y = bottom; y < box.whole_height; ++y) {
        copy_row(y, bottom - 1);
    }
}

}  // namespace

PictureLayout::PictureLayout(int width, int height, Place place)
    : width_(width),
      height_(height),
      frame_width_(std::max(round_up(width, WIDTH_STEP), SMALLEST_SIDE)),
      frame_height_(std::max(round_up(height, HEIGHT_STEP), SMALLEST_SIDE)),
      left_(place == TOP_LEFT ? 0 : near_side(frame_width_ - width)),
      top_(place == TOP_LEFT ? 0 : near_side(frame_height_ - height)) {}

FramePtr PictureLayout::make_frame() const {
    return FramePtr(videostabilizer::frame_create(frame_width_, frame_height_, frame_width_,
                                                  frame_width_ / 2,
                                                  videostabilizer::PIX_FMT_YUV420P, nullptr));
}

video_io::Planes PictureLayout::picture(const videostabilizer::Frame& frame) const {
    video_io::Planes planes{};
    planes.stride_y = frame.stride_y;
    planes.stride_uv = frame.stride_uv;
    planes.y = frame.plane_y + top_ * planes.stride_y + left_;
    planes.u = frame.plane_uv + top_ / 2 * planes.stride_uv + left_ / 2;
    planes.v = planes.u + planes.stride_uv * (frame_height_ / 2);
    return planes;
}

void PictureLayout::fill_border(const videostabilizer::Frame& frame) const {
    if (frame_width_ == width_ && frame_height_ == height_) {
        return;
    }
    fill_plane_border(frame.plane_y, frame.stride_y,
                      {left_, top_, width_, height_, frame_width_, frame_height_});
    const Box chroma = {left_ / 2,         top_ / 2,         (width_ + 1) / 2,
                        (height_ + 1) / 2, frame_width_ / 2, frame_height_ / 2};
    unsigned char* u = frame.plane_uv;
    fill_plane_border(u, frame.stride_uv, chroma);
    fill_plane_border(u + static_cast<std::ptrdiff_t>(frame.stride_uv) * (frame_height_ / 2),
                      frame.stride_uv, chroma);
}

}  // namespace apps
