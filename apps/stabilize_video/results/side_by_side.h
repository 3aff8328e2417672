#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "apps/stabilize_video/ffmpeg.h"
#include "apps/stabilize_video/media_sink.h"
#include "apps/stabilize_video/video_io.h"

namespace apps {

// A video that shows the shaky pictures on the left and the steady ones on the right.
//
// Threads: add_shaky on one thread, the rest on another.
class SideBySide {
  public:
    // Throws OutputError, ExistsError.
    SideBySide(const std::string& path, const PictureFormat& format, const EncoderOptions& options,
               const std::atomic<bool>* stop);

    // Keeps a copy until the steady picture of the same frame comes.
    void add_shaky(const Planes& picture);
    void add_steady(const Planes& picture, const PictureTag& tag);

    void finish();
    void commit() { sink_->commit(); }

  private:
    AvFramePtr copied(const Planes& picture) const;
    void make_graph(bool labelled);
    void write_pairs(std::int64_t duration);

    PictureFormat format_;
    int side_width_;  // of each half, at most 1280
    int side_height_;
    FilterGraphPtr graph_;
    AVFilterContext* left_ = nullptr;  // belong to the graph
    AVFilterContext* right_ = nullptr;
    AVFilterContext* both_ = nullptr;
    std::unique_ptr<MediaSink> sink_;
    std::mutex mutex_;              // guards the pictures below
    std::deque<AvFramePtr> shaky_;  // whose steady picture has not come
};

}  // namespace apps
