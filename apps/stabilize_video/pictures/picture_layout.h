// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <videostabilizer/frame.h>

#include <memory>

#include "common/video_io/y4m.h"

namespace apps {

struct FrameDeleter {
    void operator()(videostabilizer::Frame* frame) const { videostabilizer::frame_delete(frame); }
};
using FramePtr = std::unique_ptr<videostabilizer::Frame, FrameDeleter>;

// Position of a picture of any size inside a frame that the stabilizer warps completely: width a
// multiple of 16, height even, both at least 16.
class PictureLayout {
  public:
    enum Place {
        // Centred, which is where the stabilizer crops unless it is told the picture's size, but at
        // even positions because of the chroma: the centres differ by at most one pixel.
        MIDDLE,
        // As the stabilizer's options picture_width and picture_height expect.
        TOP_LEFT,
    };

    PictureLayout(int width, int height, Place place);

    int width() const { return width_; }
    int height() const { return height_; }

    int frame_width() const { return frame_width_; }
    int frame_height() const { return frame_height_; }

    // A packed frame of this layout with its own pixels; null when memory runs out.
    FramePtr make_frame() const;

    // The picture inside a frame.
    video_io::Planes picture(const videostabilizer::Frame& frame) const;

    // Fills the border with the nearest pixels of the picture.
    void fill_border(const videostabilizer::Frame& frame) const;

  private:
    int width_;
    int height_;
    int frame_width_;
    int frame_height_;
    int left_;
    int top_;
};

}  // namespace apps
