// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/pictures/picture_pool.h"

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <cstddef>
#include <new>

namespace apps {

namespace {

constexpr int ALIGNMENT = 64;  // bytes, of the rows

}  // namespace

PicturePool::PicturePool(AVPixelFormat format, int width, int height)
    : format_(format), width_(width), height_(height) {
    std::size_t planes[4] = {};
    std::ptrdiff_t strides[4] = {};
    int known = av_image_fill_linesizes(strides_, format, width);
    for (int i = 0; i < 4; ++i) {
        strides_[i] = (strides_[i] + ALIGNMENT - 1) / ALIGNMENT * ALIGNMENT;
        strides[i] = strides_[i];
    }
    if (known >= 0) {
        known = av_image_fill_plane_sizes(planes, format, height, strides);
    }
    if (known >= 0) {
        // FFmpeg's vector routines may read beyond the last row.
        pool_.reset(av_buffer_pool_init(planes[0] + planes[1] + planes[2] + planes[3] + ALIGNMENT,
                                        nullptr));
    }
    if (!pool_) {
        throw std::bad_alloc();
    }
}

AvFramePtr PicturePool::take() const {
    AvFramePtr picture = make_av_frame();
    picture->format = format_;
    picture->width = width_;
    picture->height = height_;
    picture->buf[0] = av_buffer_pool_get(pool_.get());
    if (picture->buf[0] == nullptr) {
        throw std::bad_alloc();
    }
    std::copy(strides_, strides_ + 4, picture->linesize);
    if (av_image_fill_pointers(picture->data, format_, height_, picture->buf[0]->data, strides_) <
        0) {
        throw std::bad_alloc();
    }
    return picture;
}

}  // namespace apps
