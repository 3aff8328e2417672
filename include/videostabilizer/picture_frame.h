// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

#include "videostabilizer/export.h"
#include "videostabilizer/frame.h"

namespace videostabilizer {

// Frames of any common kind: 4:2:0, 4:2:2, 4:4:4, 4:1:1 and grey, planar and semi-planar, with alpha or
// without, 8 to 16 bits, any size from 16 x 16 on, rows with any stride. Streams of them are created by
// video_stabilizer_create_for_pictures; see stabilizer.h.

// How many luma samples share a chroma sample. Odd sizes are rounded up: a picture of 17 x 17 has
// 9 x 9 chroma samples in 4:2:0.
enum ChromaFormat : std::int32_t {
    CHROMA_420 = 0,   // two by two
    CHROMA_422 = 1,   // two of a row
    CHROMA_444 = 2,   // one
    CHROMA_NONE = 3,  // grey: there is no chroma
    CHROMA_411 = 4,   // four of a row
};

// Where the first chroma sample lies among the luma samples that share it. Matters to the axes that
// have fewer chroma than luma samples.
enum ChromaSiting : std::int32_t {
    CHROMA_SITING_LEFT = 0,         // left column, midway between the rows: MPEG-2 and later
    CHROMA_SITING_CENTRE = 1,       // midway between columns and rows: JPEG, MPEG-1
    CHROMA_SITING_TOP_LEFT = 2,     // the first luma sample: BT.2020, BT.2100
    CHROMA_SITING_TOP = 3,          // midway between the columns, upper row
    CHROMA_SITING_BOTTOM_LEFT = 4,  // left column, lower row
    CHROMA_SITING_BOTTOM = 5,       // midway between the columns, lower row
};

// The layout of a picture. All zero but bit_depth = 8: planar 4:2:0 as video has it.
struct PixelLayout {
    ChromaFormat chroma;       // how many luma samples share a chroma sample
    ChromaSiting siting;       // where it lies
    std::int32_t bit_depth;    // 8: bytes; 9..16: two bytes a sample, little endian
    std::int32_t semi_planar;  // 0: planes Y, U, V; 1: planes Y and UV, samples in turns, in either
                               // order (NV12, NV21, NV16, P010, P016)
    std::int32_t high_bits;    // 1: samples of 9..15 bits are in the upper bits of their two bytes
                               // (P010, P012); 0: in the lower
    std::int32_t alpha = 0;    // 1: after Y, U and V a plane of opacity, as large as luma's
    std::int32_t reserved[2] = {};  // 0
};

// The planes of a picture: Y, U, V or Y, UV or Y. Those that the layout does not have are ignored;
// `alpha` and its stride are neither read nor written unless the layout has that plane.
struct PicturePlanes {
    unsigned char* data[3];  // the first row of each, at any address
    std::int32_t stride[3];  // bytes from a row to the next; negative where the first row is the
                             // last in memory; even for samples of two bytes
    unsigned char* alpha = nullptr;  // plane 3
    std::int32_t alpha_stride = 0;   // of plane 3, bytes
};

// Creates a frame of any layout. Its `format` is PIX_FMT_PICTURE; the other fields of Frame have the
// meaning that they always have, where plane_y and plane_uv are planes 0 and 1 with the strides
// stride_y and stride_uv.
// planes non-null: the host's planes, which stay the host's and are neither copied nor read.
// planes null:     the frame owns its pixels, uninitialised, in one heap block with the record; rows
//                  are multiples of 64 bytes apart.
// Released by frame_delete. Threads: thread-safe.
// Returns: the frame, or null with an error in the log: out of memory; an unknown layout; a size
//          outside 1..32768; a null plane; a stride that is shorter than a row, or odd where
//          samples have two bytes.
VIDEOSTABILIZER_API Frame* picture_frame_create(int width, int height, const PixelLayout* layout,
                                                const PicturePlanes* planes);

// Tells where the planes of a frame are. Planes that the layout does not have are null.
// Threads: owner only.
// Returns: 0; -1 for a frame that picture_frame_create has not made, and *planes is left untouched.
VIDEOSTABILIZER_API int picture_frame_planes(const Frame* frame, PicturePlanes* planes);

}  // namespace videostabilizer
