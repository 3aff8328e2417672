// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "apps/stabilize_video/output/media_sink.h"
#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/picture_stream.h"

namespace apps {

// A video with the shaky pictures on the left and the steady ones on the right.
//
// Threads: owner only, except add_shaky: thread-safe.
class SideBySide {
  public:
    // Throws OutputError, ExistsError.
    SideBySide(const std::string& path, const PictureFormat& format, const EncoderOptions& options,
               const std::atomic<bool>* stop);

    // Keeps a reference until the steady picture of the same frame arrives. Throws std::bad_alloc.
    void add_shaky(const AVFrame& picture);
    // Throws OutputError.
    void add_steady(const AVFrame& picture, const PictureTag& tag);

    // As PictureSink.
    void finish();
    void commit() { sink_->commit(); }

  private:
    AvFramePtr in_range(const AVFrame& picture) const;
    void make_graph(bool labelled);
    void write_pairs(std::int64_t duration);

    PictureFormat format_;
    int side_width_;  // of each half, at most 1280
    int side_height_;
    FilterGraphPtr graph_;
    AVFilterContext* left_ = nullptr;  // owned by the graph
    AVFilterContext* right_ = nullptr;
    AVFilterContext* both_ = nullptr;
    std::unique_ptr<MediaSink> sink_;
    std::mutex mutex_;              // guards shaky_
    std::deque<AvFramePtr> shaky_;  // that wait for their steady pictures
};

}  // namespace apps
