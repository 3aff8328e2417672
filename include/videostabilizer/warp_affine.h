// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/export.h"

// Affine warps of whole pictures on the CPU, for hosts without OpenCL or with pictures of their
// own.
//
// Pixels:   positions are (x, y) in luma pixels, x to the right and y downwards from the centre of
//           the top left pixel. Luma is interpolated bilinearly and truncated, chroma is taken from
//           the nearest sample. Positions outside the source are clamped to its border; NaN counts
//           as 0. In the last column and row 0.1 % of the neighbour is blended in, so the identity
//           may lower them by one grey level.
// Matrix:   six floats a, b, c, d, e, f, the forward transform: source position (x, y) maps to
//           destination position (a x + b y + c, d x + e y + f). The routines invert it. A singular
//           one (a e - b d exactly 0) fills the picture with the source pixel (0, 0).
// Pictures: `width` x `height` pixels, packed rows, planes in this order:
//             semi-planar 4:2:0   luma, then height / 2 rows of `width` bytes with width / 2 chroma
//                                 pairs; width * height + width * (height / 2) bytes
//             planar 4:2:0        luma; the U plane at width * height, the V plane
//                                 (width * height) / 4 after it, both height / 2 rows of width / 2
//                                 bytes
//             four channels       width * height pixels of 4 bytes
//           Source and destination have the same layout and size, any alignment, and must not
//           overlap. Only samples of the layout are written: with an odd width or height, bytes
//           behind the last chroma sample of a row are left unchanged. A width or height below 1
//           does nothing. Nothing outside the picture is read, whatever the matrix.
// Results:  the same bytes on every processor, except for warpAffine_neon.
// Threads:  thread-safe. Nothing is allocated, nothing fails.

namespace videostabilizer {

// Semi-planar 4:2:0. A chroma pair is moved whole, from the even-aligned rounded position.
VIDEOSTABILIZER_API void warpAffine(unsigned char* source, unsigned char* destination,
                                    float* matrix, int width, int height);

// Planar 4:2:0. Chroma positions are truncated, not rounded, before being halved.
VIDEOSTABILIZER_API void warpAffine_420p(unsigned char* source, unsigned char* destination,
                                         float* matrix, int width, int height);

// Four 8-bit channels per pixel, interpolated alike.
VIDEOSTABILIZER_API void warpAffine_rgb(unsigned char* source, unsigned char* destination,
                                        float* matrix, int width, int height);

// warpAffine with vector instructions, if the library was built with them. Positions are summed in
// another order, which can change their last bit and so a luma byte by one, or the choice between
// two chroma samples at equal distance. Sizes that warp_affine_neon does not take are served by
// warpAffine. Consecutive and concurrent calls may differ in size.
VIDEOSTABILIZER_API void warpAffine_neon(unsigned char* source, unsigned char* destination,
                                         float* matrix, int width, int height);

}  // namespace videostabilizer

// The inner routine of warpAffine_neon. Threads: thread-safe.
// wp         six floats, the inverse transform: destination pixel (x, y) shows the source position
//            (wp[0] x + wp[1] y + wp[2], wp[3] x + wp[4] y + wp[5])
// width      a positive multiple of 16, up to 32768; other sizes do nothing
// height     a positive even number, up to 32768
// constants  32 floats, 8 groups of 4, any alignment:
//              {0, 1, 2, 3}, {4, 5, 6, 7}                            columns of a run of luma
//              width - 1 and width - 1.001, height - 1 and height - 1.001, each four times
//              {0, 2, 4, 6}, {8, 10, 12, 14}                         columns of a run of chroma
//            They must be those of this width and height: only they bound the positions.
// 32-bit ARM: the vector unit treats denormal numbers (below 1.2e-38) as 0.
extern "C" VIDEOSTABILIZER_API void warp_affine_neon(unsigned char* source,
                                                     unsigned char* destination, const float* wp,
                                                     int width, int height, const float* constants);
