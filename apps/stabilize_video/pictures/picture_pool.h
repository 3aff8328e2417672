// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <memory>

#include "apps/stabilize_video/pictures/ffmpeg.h"

namespace apps {

// Pictures of one size and format, whose memory is used again when the last reference to one is
// gone. They may outlive the pool. Threads: thread-safe.
class PicturePool {
  public:
    // Throws std::bad_alloc.
    PicturePool(AVPixelFormat format, int width, int height);

    // A picture with undefined pixels. Throws std::bad_alloc.
    AvFramePtr take() const;

  private:
    struct PoolDeleter {
        void operator()(AVBufferPool* pool) const { av_buffer_pool_uninit(&pool); }
    };

    AVPixelFormat format_;
    int width_;
    int height_;
    int strides_[4] = {};
    std::unique_ptr<AVBufferPool, PoolDeleter> pool_;
};

}  // namespace apps
