// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

#include "videostabilizer/export.h"

namespace videostabilizer {

// Pixel formats. Values 0, 1 and 4 are treated alike: chroma pairs are moved as a whole, so their
// byte order does not matter.
enum PixFmt : std::int32_t {
    PIX_FMT_YUV420SP_0 = 0,         // semi-planar 4:2:0: height/2 rows of interleaved chroma pairs
    PIX_FMT_YUV420SP_1 = 1,         // as 0
    PIX_FMT_YUV420P = 2,            // planar 4:2:0: a U plane, directly followed by a V plane
    PIX_FMT_YUV_DOUBLE_CHROMA = 3,  // chroma area twice the size of 4:2:0; cannot be warped
    PIX_FMT_YUV420SP_4 = 4,         // as 0
    PIX_FMT_LUMA_ONLY = 5,          // no chroma area; cannot be warped
    PIX_FMT_PICTURE = 6,            // any layout, see picture_frame.h; not for frame_create
};

// Bytes of the chroma area, in units of stride_uv * height, by PixFmt.
inline constexpr std::int32_t chroma_planes_factor[6] = {1, 1, 1, 2, 1, 0};

// One picture. The holder of a Frame* outside a queue owns the record: push passes ownership on,
// whether it succeeds or not, and pop returns it. Pixel memory supplied by the host stays the
// host's.
//
// Planes of all formats but PIX_FMT_PICTURE (all samples are bytes, all strides in bytes):
//   luma    `height` rows, `stride_y` apart; stride_y * height bytes
//   chroma  chroma_planes_factor[format] * stride_uv * height bytes
//           planar       U rows `stride_uv` apart, then at (stride_uv * height) / 2 the V rows
//           semi-planar  height / 2 rows of pairs, `stride_y` apart (not stride_uv)
// Packed 4:2:0 pictures have stride_y = width and stride_uv = width / 2.
//
// Threads: owner only.
struct Frame {
    std::int32_t width;       // pixels
    std::int32_t height;      // rows
    std::int32_t stride_y;    // luma row pitch, bytes
    std::int32_t stride_uv;   // chroma row pitch of one planar chroma plane, bytes
    PixFmt format;            //
    std::int64_t timestamp;   // the host's, not interpreted; copied to output frames; 0 if new
    std::int32_t contiguous;  // 1: chroma follows luma in one buffer; informational
    unsigned char* plane_y;   // luma
    unsigned char* plane_uv;  // chroma area
    void* opaque;  // inside the pipeline: the six floats of the frame's correcting transform, which
                   // are the stabilizer's. Hosts must not use it in popped frames unless their own
                   // create_frame stored it. Null in a new frame.
    Frame* next;   // links of the queue that holds the frame
    Frame* prev;   //
};

// Creates a frame whose luma and chroma lie in one buffer.
// data non-null: the host's buffer of stride_y * height +
//                chroma_planes_factor[format] * stride_uv * height bytes, which stays the host's.
// data null:     the frame owns its pixels, uninitialised, in one heap block with the record.
// All other fields are zero, except `contiguous`, which is 1.
// Threads: thread-safe.
// Returns: the frame, or null with an error in the log: out of memory; a format outside 0..5;
//          negative sizes or strides; planes larger than the address space.
VIDEOSTABILIZER_API Frame* frame_create(int width, int height, int stride_y, int stride_uv,
                                        PixFmt format, unsigned char* data);

// Creates a frame over two planes of the host, which are neither copied nor read, with
// `contiguous` 0.
// Threads: thread-safe.
// Returns: the frame, or null with an error in the log: out of memory; a format outside 0..5;
//          negative sizes or strides.
VIDEOSTABILIZER_API Frame* frame_create(int width, int height, int stride_y, int stride_uv,
                                        PixFmt format, unsigned char* y, unsigned char* uv);

// Releases the record and the pixels that it owns; the host's pixels are not touched. The frame
// must not be in a queue. Null is allowed.
// Threads: owner only.
VIDEOSTABILIZER_API void frame_delete(Frame* frame);

}  // namespace videostabilizer
