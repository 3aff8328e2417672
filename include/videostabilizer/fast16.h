// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "videostabilizer/export.h"
#include "videostabilizer/keypoint.h"

namespace videostabilizer {

// Corner detection with the segment test of E. Rosten and T. Drummond, "Machine learning for
// high-speed corner detection" (ECCV 2006): a pixel is a corner if at least 9 consecutive pixels of
// the 16 on a circle of radius 3 are all brighter than it by more than a threshold, or all darker.
// Non-maximum suppression keeps the strict 3x3 maxima of the corner score; thinning keeps the first
// corner in scan order per column cell and band of rows.
//
// Images are 8-bit grey, one byte a pixel, rows packed (row r begins at byte r * width). x grows to
// the right, y downwards, from the centre of the top left pixel.

// Configuration and precomputed state of the detector: fast16_init, any number of fast16,
// fast16_fini. Constant after fast16_init, except for the contents of `buffer`.
// Ownership: the record is the caller's; it owns `buffer`, so never finalise a copy as well.
// Threads:   owner only: fast16 writes the scratch memory in `buffer`.
struct FastParams {
    std::int32_t threshold;            // grey levels, 0 to 255
    std::int32_t nonmax_suppression;   // non-zero: keep only strict 3x3 maxima of the score
    std::int32_t cell_size;            // width of a column cell in pixels; a band is half as high
    std::int32_t reserved;             // stored, not read
    std::int32_t border_x;             // columns skipped at the left and at the right edge, from 3
    std::int32_t border_y;             // rows skipped at the top and at the bottom edge, from 3
    std::int32_t width;                // width and row stride of the images, pixels (bytes)
    std::int32_t height;               // stored, not read
    unsigned char* buffer;             // scratch memory, 15 * width + 368 bytes
    std::int32_t pixel[25];            // see makeOffsets; the circle of 16 for stride `width`
    unsigned char threshold_tab[511];  // [d + 255], d = circle pixel - centre: 1 if d < -threshold
                                       // (darker), 2 if d > threshold (brighter), else 0
};

// Fills pixel[0..24] with the byte offsets of the pixels of a circle from its centre, for rows
// `row_stride` bytes apart: pattern_size of them, counter-clockwise from the pixel below the
// centre, then again from the first one, so that runs across the end need no wrapping.
// pattern_size is 16 (radius 3), 12 (radius 2) or 8 (radius 1); any other gives offsets of 0.
// Threads: thread-safe.
VIDEOSTABILIZER_API void makeOffsets(int* pixel, int row_stride, int pattern_size);

// Score of the pixel at `ptr`: the largest threshold with which it passes the segment test,
// `threshold` to 254; or threshold - 1 if it does not pass with `threshold`.
// `pixel` is a table of 25 offsets from makeOffsets for the circle of 16, all readable from `ptr`.
// Threads: thread-safe.
VIDEOSTABILIZER_API int cornerScore16(const unsigned char* ptr, const int* pixel, int threshold);

// Fills *params, whose earlier contents are overwritten, for images `width` pixels wide. The
// threshold is clamped to 0..255; the other arguments are stored as they are (units: FastParams).
// fast16 finds corners only with cell_size >= 2 and both borders >= 3.
// Ownership: allocates params->buffer; release it with fast16_fini.
// Returns:   0; or -1 (logged) if there is no memory for the buffer or `width` is negative, with
//            `buffer` null and all other fields filled.
VIDEOSTABILIZER_API int fast16_init(FastParams* params, int threshold, int nonmax_suppression,
                                    int cell_size, int reserved, int border_x, int border_y,
                                    int width, int height);

// Frees the scratch memory, if any. Call it once per fast16_init: the pointer is not cleared.
VIDEOSTABILIZER_API void fast16_fini(FastParams* params);

// Replaces the contents of `keypoints` by the corners of `image` (width x height), ordered by row,
// then by column: whole coordinates, response = score (0 without suppression), reserved = 0.
// Where:   columns border_x to width - border_x - 1, rows border_y to height - border_y - 1. Column
//          cell c holds the columns c * cell_size to (c + 1) * cell_size - 1; a new band begins at
//          each row y for which y + 1 is a multiple of cell_size / 2.
// Errors:  no corners if the image is too small for its borders, width is not that of fast16_init,
//          cell_size < 2, a border < 3, or there is no scratch memory. If memory runs out (logged),
//          the remaining corners are missing.
// Memory:  with at most 64 column cells only `keypoints` allocates, as it grows.
// Threads: owner only (of *params).
VIDEOSTABILIZER_API void fast16(const unsigned char* image, std::vector<KeyPoint>& keypoints,
                                int width, int height, const FastParams* params);

}  // namespace videostabilizer
