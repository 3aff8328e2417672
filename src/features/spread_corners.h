// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <vector>

#include "videostabilizer/fast16.h"
#include "videostabilizer/keypoint.h"

namespace videostabilizer {

// Corners all over the picture: the strongest one of each cell of a grid of some 200, whatever the
// picture's size, and weak ones only while too few cells have a strong one.
//
// Threads: owner only.
class SpreadCorners {
  public:
    static constexpr int BORDER = 16;  // pixels without corners along each edge

    // For images of this size. Throws std::bad_alloc.
    SpreadCorners(int width, int height);
    ~SpreadCorners();
    SpreadCorners(const SpreadCorners&) = delete;
    SpreadCorners& operator=(const SpreadCorners&) = delete;

    // Replaces `corners` by those of the image, ordered by rows of cells, then by column. Returns how
    // many of them are strong. Throws std::bad_alloc.
    std::size_t find(const unsigned char* image, std::vector<KeyPoint>& corners);

  private:
    void release();
    void keep_best();

    int width_;
    int height_;
    int cell_;                   // side, pixels
    int columns_;                // of cells
    FastParams detectors_[3]{};  // of falling thresholds
    std::vector<KeyPoint> found_;
    std::vector<KeyPoint> best_;  // of each cell; response 0: none
    std::size_t filled_ = 0;      // cells with a corner
};

}  // namespace videostabilizer
