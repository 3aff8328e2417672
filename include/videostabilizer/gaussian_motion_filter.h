// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "videostabilizer/export.h"
#include "videostabilizer/mat.h"
#include "videostabilizer/ransac.h"

namespace videostabilizer {

// Smooths the camera path: the correcting transform of a frame is the mean of the transforms that
// map it to its neighbours, with Gaussian weights by their distance in time.
//
// Ownership: a filter owns its weight table. The fields may be read, but only
//            gaussian_motion_filter_set_params may change them.
// Threads:   owner only, but gaussian_motion_filter_stabilize may run concurrently with itself: it
//            only reads the filter.
struct GaussianMotionFilter {
    std::int32_t radius;         // half width of the smoothing span, frames
    float sigma;                 // width of the weights exp(-(i / sigma)^2), frames: sqrt(2) times
                                 // their standard deviation
    std::vector<float> weights;  // entry radius + i for frame offset i = -radius..radius; sum is 1
};

// Makes a filter. radius and stdev as in gaussian_motion_filter_set_params.
// Returns: the filter, or null with an error in the log (tag "motion_stabilizer"): no memory.
VIDEOSTABILIZER_API GaussianMotionFilter* gaussian_motion_filter_create(int radius, float stdev);

// Sets the half width and sigma (frames), and computes the weights, proportional to
// exp(-(i / sigma)^2). `stdev` becomes sigma; not positive or NaN, it stands for sqrt(radius). A
// negative radius is taken as 0. With radius 0 and no stdev the only weight is NaN: the filter then
// corrects nothing.
// Errors: without memory the filter stays as it was, with an error in the log.
VIDEOSTABILIZER_API void gaussian_motion_filter_set_params(GaussianMotionFilter* filter, int radius,
                                                           float stdev);

// Writes the correcting transform of frame `idx` into `out`, an existing 3x3 matrix with elements:
//   out = sum of w(j - idx) T(idx -> j) / sum of w(j - idx)
// where T is getMotion's transform, in pixels, and j runs over the frames from idx - radius up to
// but not including idx + radius that have first <= j < last.
//
// motions  the motion history (see motion_path.h), long enough for every such j; not changed
// logs     not read, may be empty
// Errors:  no frame in the span, or a weight sum that is not positive: the identity.
VIDEOSTABILIZER_API void gaussian_motion_filter_stabilize(
    GaussianMotionFilter* filter, SimpleLA::Mat<float>& out, int idx,
    std::vector<SimpleLA::Mat<float>*>& motions, std::vector<MotionLog>& logs, int first, int last);

// Releases the filter. Null is allowed and does nothing.
VIDEOSTABILIZER_API void gaussian_motion_filter_delete(GaussianMotionFilter* filter);

}  // namespace videostabilizer
