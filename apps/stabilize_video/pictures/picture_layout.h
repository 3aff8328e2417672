#pragma once

#include <videostabilizer/frame.h>

#include <memory>

#include "apps/y4m.h"

namespace apps {

struct FrameDeleter {
    void operator()(videostabilizer::Frame* frame) const { videostabilizer::frame_delete(frame); }
};
using FramePtr = std::unique_ptr<videostabilizer::Frame, FrameDeleter>;

// Where a picture of any size lies inside a planar frame that the stabilizer takes whole: width a
// multiple of 16 (columns beyond that would stay shaky), height even, both at least 16.
class PictureLayout {
  public:
    enum Place {
        // In the middle, about which the stabilizer crops and enlarges unless it is told where the
        // picture is; but in steps of two, because chroma cannot move by half a sample. The two
        // middles thus differ by at most one pixel.
        MIDDLE,
        // Where the stabilizer's options for the size of the picture expect it.
        TOP_LEFT,
    };

    PictureLayout(int width, int height, Place place);

    int width() const { return width_; }
    int height() const { return height_; }

    int frame_width() const { return frame_width_; }
    int frame_height() const { return frame_height_; }

    // A packed frame of this layout with its own pixels; null without memory.
    FramePtr make_frame() const;

    // The picture inside a frame.
    Planes picture(const videostabilizer::Frame& frame) const;

    // Fills the border of the frame with the nearest pixels of the picture.
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
