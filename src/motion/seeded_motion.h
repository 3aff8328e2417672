// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "videostabilizer/ransac.h"

namespace videostabilizer {

// estimateGlobalMotionRansac, but equal input gives equal results: samples are drawn as after
// srand48(seed), from a generator that the call has to itself.
// Threads: thread-safe, without a lock.
void estimate_motion_from_seed(SimpleLA::Mat<float>& motion, MotionLog& log,
                               const std::vector<KeyPoint>& src, const std::vector<KeyPoint>& dst,
                               const RansacParams& params, std::uint32_t seed);

}  // namespace videostabilizer
