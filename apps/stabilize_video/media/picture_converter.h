#pragma once

#include <cstdint>
#include <string>

#include "apps/stabilize_video/ffmpeg.h"

namespace apps {

// Brings decoded pictures into another form: pixel format, progressive, upright.
class PictureConverter {
  public:
    struct Task {
        AVPixelFormat format = AV_PIX_FMT_YUV420P;
        bool deinterlace = false;
        int quarter_turns = 0;  // clockwise, 0 to 3
    };

    // Converts pictures like `sample`. `time_base` is that of their time stamps. A conversion keeps
    // the range of YUV samples (full or limited); RGB becomes limited BT.709.
    // Throws InputError when this cannot be done.
    PictureConverter(const AVFrame& sample, AVRational time_base, const Task& task);

    // Whether pictures like this one are what it was made for.
    bool accepts(const AVFrame& picture) const;

    // Takes a picture; null at the end, after which the last pictures come out. Throws InputError.
    void push(AVFrame* picture);

    // The next picture, with the time stamps' time base as at the start; null when it needs more.
    AvFramePtr pull();

  private:
    int width_;
    int height_;
    int format_;
    AVRational time_base_;
    FilterGraphPtr graph_;
    AVFilterContext* source_ = nullptr;  // both belong to the graph
    AVFilterContext* sink_ = nullptr;
};

// Whether the samples are red, green and blue.
bool is_rgb(int pixel_format);

}  // namespace apps
