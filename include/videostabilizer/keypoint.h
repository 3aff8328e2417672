// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

namespace videostabilizer {

// A feature point. A plain value, kept in std::vector<KeyPoint>.
struct KeyPoint {
    float x;                 // column, pixels of the image that the point belongs to
    float y;                 // row, pixels
    float response;          // corner score, threshold to 254; 0 without non-maximum suppression
    std::uint32_t reserved;  // 0 from the detector, otherwise copied unchanged
};

}  // namespace videostabilizer
