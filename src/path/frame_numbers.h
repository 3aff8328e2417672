// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "videostabilizer/gaussian_motion_filter.h"

// A stream has no end, so its frames are numbered in 64 bits. What interfaces hold in 32 bits is
// derived from these numbers here.

namespace videostabilizer {

// The slot of frame `number`, 0 or more, in a ring.
inline std::size_t ring_slot(std::int64_t number, std::size_t slots) {
    return static_cast<std::size_t>(number % static_cast<std::int64_t>(slots));
}

// The number as hosts see it: after 2^31 - 1 it continues with 0.
inline std::int32_t public_number(std::int64_t number) {
    return static_cast<std::int32_t>(number & INT32_MAX);
}

// gaussian_motion_filter_stabilize for numbers beyond int. Only their differences and their slots
// matter to the filter, which stay the same when all are lowered by a multiple of the ring's size.
// `motions` has more slots than the filter's radius, and `last` is at most one ring after `idx`.
inline void filter_frame(GaussianMotionFilter* filter, SimpleLA::Mat<float>& out, std::int64_t idx,
                         std::vector<SimpleLA::Mat<float>*>& motions, std::vector<MotionLog>& logs,
                         std::int64_t first, std::int64_t last) {
    const auto slots = static_cast<std::int64_t>(motions.size());
    const std::int64_t base = idx - idx % slots - slots;  // idx becomes slots..2 slots - 1
    const auto lowered = [base](std::int64_t number) { return static_cast<int>(number - base); };
    gaussian_motion_filter_stabilize(filter, out, lowered(idx), motions, logs,
                                     lowered(std::max(first, base)), lowered(last));
}

}  // namespace videostabilizer
