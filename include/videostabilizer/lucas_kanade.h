// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "videostabilizer/export.h"
#include "videostabilizer/keypoint.h"

namespace videostabilizer {

// Point tracking after B. D. Lucas and T. Kanade, "An iterative image registration technique with
// an application to stereo vision" (IJCAI 1981), run coarse to fine as in J.-Y. Bouguet, "Pyramidal
// implementation of the Lucas Kanade feature tracker" (2000). The pyramid is only sampled: level L
// reads every 2^L-th pixel of the images themselves, neither smoothed nor interpolated.
//
// Images:  `prev` and `next` are 8-bit grey, width x height pixels, rows packed (row r begins at
//          byte r * width). Points are in pixels of these images, x to the right and y downwards
//          from the centre of the top left pixel. Any position is allowed, even NaN.
// Threads: thread-safe; concurrent calls may share images but not outputs.
// Log:     tag "lk_pyradmid", for lost points where a line is mentioned below.

struct LK_Params {
    std::int32_t win_radius;  // window radius in samples: 2 * win_radius + 1 square at each level
    std::int32_t max_level;   // coarsest level, from 0; levels max_level to 0 are used
    std::int32_t max_iterations;  // per level
    float epsilon_x;              // a level ends once its last update is smaller than this in x
    float epsilon_y;              // and than this in y, in samples of the level
    float max_disp_x;             // a displacement of this many pixels or more loses the point
    float max_disp_y;             //
    std::int32_t border_x;  // points closer than this to the left or right edge are not tracked
    std::int32_t border_y;  // points closer than this to the top or bottom edge are not tracked
};

// Tracks every point of prev_pts from `prev` to `next`: element i of the outputs gets the tracked
// position and the status (1 tracked, 0 lost) of point i. Points with border_x <= x <= width -
// border_x - 1 and border_y <= y <= height - border_y - 1 are tracked as by lkPyramid; all others
// are lost without a log line.
// Outputs: not resized; the caller makes them at least as long as prev_pts (points without an
//          element in both are skipped). A lost point has y = 0 and an unspecified x; `response`
//          and `reserved` are not written. next_pts may be prev_pts.
// Returns: 0.
VIDEOSTABILIZER_API int lk_pyramid_image(const unsigned char* prev, const unsigned char* next,
                                         int width, int height, const LK_Params* params,
                                         std::vector<KeyPoint>& prev_pts,
                                         std::vector<KeyPoint>& next_pts,
                                         std::vector<unsigned char>& status);

// Tracks one point; writes only pt_next->x, pt_next->y and *status (1 tracked, 0 lost).
// A point is lost if, in this order,
// - at some level the window lacks texture in two directions (error line),
// - the displaced window leaves `next`,
// - the mean absolute difference of the windows is above 25 grey levels per sample,
// - the displacement reaches max_disp_x or max_disp_y (warning line),
// - the new position is outside 0 <= x < width, 0 <= y < height (warning line).
// Returns: 0 if tracked, -1 if lost; a lost point has y = 0 and an unspecified x.
VIDEOSTABILIZER_API int lkPyramid(const unsigned char* prev, const unsigned char* next, int width,
                                  int height, const LK_Params* params, KeyPoint pt,
                                  KeyPoint* pt_next, unsigned char* status);

// Writes the spatial gradient matrix {{Gxx, Gxy}, {Gxy, Gyy}} of the window around `pt` (truncated
// to whole pixels) at a level: sums of products of central differences, in squared grey levels per
// squared sample. Samples whose neighbours are not all in the image are skipped; without samples
// the matrix is 0.
VIDEOSTABILIZER_API void getSpatialGradientMatrix(const unsigned char* img, int width, int height,
                                                  int win_radius, int level, KeyPoint pt,
                                                  float G[2][2]);

// Compares the window around `pt` in `prev` with the one displaced by g + v in `next` (both 2
// floats, in samples of the level), read at the nearest pixels: b (2 floats) gets the sums of
// gradient times difference. The samples are those of getSpatialGradientMatrix.
// Returns: the sum of absolute differences (at most INT_MAX); or -1, with b unchanged, if a
//          displaced sample is outside 0 <= x < width, 0 <= y < height. A position that rounds to
//          the column or row just past the image is read in the last one.
VIDEOSTABILIZER_API int getMismatchVector(const unsigned char* prev, const unsigned char* next,
                                          int width, int height, int win_radius, int level,
                                          KeyPoint pt, float* g, float* v, float* b);

// Inverts m in place.
// Returns: 0; or -1, with m unchanged, if its determinant m00 * m11 - m01 * m10 is exactly 0.
VIDEOSTABILIZER_API int inverse2x2(float m[2][2]);

// The wall-clock time in microseconds since 1970-01-01 00:00 UTC.
VIDEOSTABILIZER_API std::int64_t time_us();

}  // namespace videostabilizer
