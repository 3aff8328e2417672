// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/orientation.h"

namespace apps {

// What becomes of interlaced pictures: one picture for each field, one for both, or what they are.
enum class Deinterlace { NONE, FULL_RATE, KEEP_RATE };

// Converts decoded pictures: pixel format, deinterlacing, rotation. Threads: owner only.
class PictureConverter {
  public:
    struct Task {
        AVPixelFormat format = AV_PIX_FMT_NONE;
        Deinterlace deinterlace = Deinterlace::NONE;
        Orientation orientation;      // to be turned upright
        bool matrix_of_jpeg = false;  // that of BT.601, as files of JPEG are always read
    };

    // Converts pictures of the size and format of `sample`. `time_base` is the unit of their time stamps.
    // YUV keeps its range (full or limited) where the format has none of its own; RGB becomes limited
    // BT.709.
    // Throws InputError when this cannot be done.
    PictureConverter(const AVFrame& sample, AVRational time_base, const Task& task);

    // Unit of the time stamps of converted pictures.
    AVRational time_base() const;

    // Whether the picture has the size and format of the sample.
    bool accepts(const AVFrame& picture) const;

    // Adds a picture; null at the end, which flushes the last pictures. Throws InputError.
    void push(AVFrame* picture);

    // The next converted picture; null when more input is needed, and at the end.
    AvFramePtr pull();

  private:
    int width_;
    int height_;
    int format_;
    FilterGraphPtr graph_;
    AVFilterContext* source_ = nullptr;  // both owned by the graph
    AVFilterContext* sink_ = nullptr;
};

}  // namespace apps
