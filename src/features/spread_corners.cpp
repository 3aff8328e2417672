// SPDX-License-Identifier: Apache-2.0

#include "features/spread_corners.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <new>

namespace videostabilizer {

namespace {

constexpr int CELLS = 200;
// Cells with a corner that are enough: the refinement takes 100 patches at most.
constexpr std::size_t ENOUGH = 120;
// Grey levels. The first is that of a strong corner; the last is above the noise of most sensors.
constexpr int THRESHOLDS[] = {25, 12, 6};
constexpr int SMALLEST_CELL = 8;
constexpr int THINNING = 8;  // the detector's own cells, which bound the memory that noise takes

}  // namespace

SpreadCorners::SpreadCorners(int width, int height)
    : width_(width),
      height_(height),
      cell_(std::max(SMALLEST_CELL,
                     static_cast<int>(std::sqrt(static_cast<double>(width) *
                                                static_cast<double>(height) / CELLS)))),
      columns_((width + cell_ - 1) / cell_),
      best_(static_cast<std::size_t>(columns_) *
            static_cast<std::size_t>((height + cell_ - 1) / cell_)) {
    bool complete = true;
    for (std::size_t i = 0; i < std::size(THRESHOLDS); ++i) {
        complete = fast16_init(&detectors_[i], THRESHOLDS[i], 1, THINNING, 0, BORDER, BORDER, width,
                               height) == 0 &&
                   complete;
    }
    if (!complete) {
        release();
        throw std::bad_alloc();
    }
}

SpreadCorners::~SpreadCorners() {
    release();
}

void SpreadCorners::release() {
    for (FastParams& detector : detectors_) {
        fast16_fini(&detector);
    }
}

// Puts the strongest corners found into the cells that are still empty. A lower threshold changes no
// score, so that these are weaker than all corners in the cells.
void SpreadCorners::keep_best() {
    for (const KeyPoint& corner : found_) {
        const int cell =
            static_cast<int>(corner.y) / cell_ * columns_ + static_cast<int>(corner.x) / cell_;
        KeyPoint& best = best_[static_cast<std::size_t>(cell)];
        if (best.response == 0) {
            ++filled_;
        }
        if (corner.response > best.response) {
            best = corner;
        }
    }
}

std::size_t SpreadCorners::find(const unsigned char* image, std::vector<KeyPoint>& corners) {
    std::fill(best_.begin(), best_.end(), KeyPoint{});
    filled_ = 0;
    std::size_t strong = 0;
    for (const FastParams& detector : detectors_) {
        fast16(image, found_, width_, height_, &detector);
        keep_best();
        if (&detector == detectors_) {
            strong = filled_;
        }
        if (filled_ >= ENOUGH) {
            break;
        }
    }
    corners.clear();
    for (const KeyPoint& best : best_) {
        if (best.response > 0) {
            corners.push_back(best);
        }
    }
    return strong;
}

}  // namespace videostabilizer
