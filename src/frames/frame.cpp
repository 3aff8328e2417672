// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/frame.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#include "platform/log.h"

namespace videostabilizer {

namespace {

constexpr char TAG[] = "log_utils";

bool geometry_is_valid(int width, int height, int stride_y, int stride_uv, PixFmt format) {
    if (format < PIX_FMT_YUV420SP_0 || format > PIX_FMT_LUMA_ONLY) {
        __android_log_print(LOG_ERROR, TAG, "frame_create: no such pixel format: %d",
                            static_cast<int>(format));
        return false;
    }
    if (width < 0 || height < 0 || stride_y < 0 || stride_uv < 0) {
        __android_log_print(LOG_ERROR, TAG,
                            "frame_create: negative size or stride: %d x %d, strides %d, %d", width,
                            height, stride_y, stride_uv);
        return false;
    }
    return true;
}

Frame* make_record(std::size_t pixel_bytes) {
    // The pixels follow the record in the same block, uninitialised.
    void* block = std::malloc(sizeof(Frame) + pixel_bytes);
    if (block == nullptr) {
        __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
        return nullptr;
    }
    return new (block) Frame{};
}

void set_geometry(Frame* frame, int width, int height, int stride_y, int stride_uv, PixFmt format) {
    frame->width = width;
    frame->height = height;
    frame->stride_y = stride_y;
    frame->stride_uv = stride_uv;
    frame->format = format;
}

}  // namespace

Frame* frame_create(int width, int height, int stride_y, int stride_uv, PixFmt format,
                    unsigned char* data) {
    if (!geometry_is_valid(width, height, stride_y, stride_uv, format)) {
        return nullptr;
    }
    // 64 bits hold the sum for any arguments; std::size_t has 32 bits on some processors.
    const std::uint64_t luma_bytes =
        static_cast<std::uint64_t>(stride_y) * static_cast<std::uint64_t>(height);
    const std::uint64_t chroma_bytes = static_cast<std::uint64_t>(chroma_planes_factor[format]) *
                                       static_cast<std::uint64_t>(stride_uv) *
                                       static_cast<std::uint64_t>(height);
    const std::uint64_t owned_bytes = data == nullptr ? luma_bytes + chroma_bytes : 0;
    if (luma_bytes > PTRDIFF_MAX || owned_bytes > PTRDIFF_MAX - sizeof(Frame)) {
        __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
        return nullptr;
    }
    Frame* frame = make_record(static_cast<std::size_t>(owned_bytes));
    if (frame == nullptr) {
        return nullptr;
    }
    set_geometry(frame, width, height, stride_y, stride_uv, format);
    frame->plane_y = data != nullptr ? data : reinterpret_cast<unsigned char*>(frame + 1);
    frame->plane_uv = frame->plane_y + luma_bytes;
    frame->contiguous = 1;
    return frame;
}

Frame* frame_create(int width, int height, int stride_y, int stride_uv, PixFmt format,
                    unsigned char* y, unsigned char* uv) {
    if (!geometry_is_valid(width, height, stride_y, stride_uv, format)) {
        return nullptr;
    }
    Frame* frame = make_record(0);
    if (frame == nullptr) {
        return nullptr;
    }
    set_geometry(frame, width, height, stride_y, stride_uv, format);
    frame->plane_y = y;
    frame->plane_uv = uv;
    return frame;
}

void frame_delete(Frame* frame) {
    std::free(frame);
}

}  // namespace videostabilizer
