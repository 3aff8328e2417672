// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "videostabilizer/export.h"
#include "videostabilizer/keypoint.h"
#include "videostabilizer/mat.h"

namespace videostabilizer {

// Parameters of the motion estimator, read during the call only.
struct RansacParams {
    std::int32_t size;    // pairs per random sample, at least 3; the stabilizer uses 6
    float thresh;         // inlier threshold, pixels (see estimateGlobalMotionRansac); 2.0
    float eps;            // assumed share of outliers, 0..1; not read, documents niters; 0.5
    float prob;           // wanted confidence, 0..1; not read, documents niters; 0.99
    std::int32_t niters;  // most samples drawn: log(1 - prob) / log(1 - (1 - eps)^size); 293
};

// Outcome of one estimate.
struct MotionLog {
    std::int32_t npoints;   // pairs given to the estimator
    std::int32_t ninliers;  // inliers of the best sample's model; 0: too few pairs; -1: no sample
    float track_ratio;      // share of the earlier frame's corners that were tracked, 0..1; written
                            // by the caller before the estimate, 0 after a failed one
    std::int32_t status;    // 0: estimated; 1: failed, the motion is the identity;
                            // 2: failed, and repaired since
};

// Estimates the affine motion from an earlier frame to a later one, robustly against tracking errors
// and moving objects: random sample consensus (M. A. Fischler and R. C. Bolles, 1981) with a
// least-squares refit to the inliers of the best sample. Sampling ends early once a model has more
// than three quarters of all pairs as inliers.
//
// motion  existing 3x3 matrix with elements; receives [[a, b, c], [d, e, f], [0, 0, 1]], which maps
//         (x, y, 1) of the earlier frame to the later one, in the points' pixels
// log     receives the outcome; `track_ratio` keeps its value when the estimate succeeds
// src     n corners in the earlier frame; not changed
// dst     dst[i] is src[i] in the later frame; not changed. Where the lengths differ, the surplus of
//         the longer list is ignored.
//
//   pairs               horizontal error   vertical error   inliers needed
//   n >= 4 * size       < thresh + 1       < thresh         2 n / 5
//   2 * size <= n       < sqrt(thresh)     < sqrt(thresh)   3 n / 5
//   n < 2 * size        too few: no estimate
//
// Fractions of n are rounded down.
//
// Errors:  too few pairs, too few inliers, a size below 3 or no memory give the identity and log
//          {n, inliers, 0, 1}, with a line in the Android log (tag "global_motion").
// Threads: thread-safe, with arguments of its own for each call. Every estimate reseeds the
//          process-wide generator behind lrand48 with the time in seconds; a lock guards it against
//          concurrent estimates only, not against a host that draws from it, too.
VIDEOSTABILIZER_API void estimateGlobalMotionRansac(SimpleLA::Mat<float>& motion, MotionLog& log,
                                                    std::vector<KeyPoint>& src,
                                                    std::vector<KeyPoint>& dst,
                                                    const RansacParams& params);

}  // namespace videostabilizer
