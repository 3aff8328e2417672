// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "motion/camera_pose.h"

namespace videostabilizer {

// A picture of 8-bit grey levels, which belongs to somebody else.
struct LumaView {
    const unsigned char* data = nullptr;
    int pitch = 0;  // bytes from a row to the next
    int width = 0;  // pixels
    int height = 0;
};

// The index of column x of row y in packed rows of `width` elements.
inline std::size_t packed_index(int width, int x, int y) {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
           static_cast<std::size_t>(x);
}

// A picture in falling sizes, each half the one before, filtered against aliasing with the binomial
// weights 1 3 3 1 (P. J. Burt and E. H. Adelson, "The Laplacian pyramid as a compact image code",
// 1983, with an even kernel). Pixel (x, y) of a level is at (2 x + 0.5, 2 y + 0.5) of the one before.
//
// Level 0 is the picture itself, unless that is large: then it is the largest reduction of at most
// FINEST pixels in its longer side. Narrow pictures are not reduced so far.
//
// Threads: owner only.
class LumaPyramid {
  public:
    static constexpr int FINEST = 1280;
    // Pixels of the longer side of the last level, at most, unless the shorter one had less than this.
    static constexpr int COARSEST = 80;
    static constexpr int NARROWEST = 16;

    LumaPyramid(int width, int height);  // of the pictures, pixels; throws std::bad_alloc
    LumaPyramid(const LumaPyramid&) = delete;
    LumaPyramid& operator=(const LumaPyramid&) = delete;

    // Replaces all levels. Where level 0 is the picture itself, that must stay until the next call.
    void build(const unsigned char* luma, int pitch);

    std::size_t levels() const { return views_.size() - first_; }
    const LumaView& level(std::size_t n) const { return views_[first_ + n]; }
    // Size of a pixel of level n, in those of the picture.
    double pixel(std::size_t n) const {
        return static_cast<double>(std::int64_t{1} << (first_ + n));
    }
    // The picture's centre in pixels of level n.
    PictureCentre centre(std::size_t n) const;

  private:
    void reduce(const LumaView& from, unsigned char* to);

    PictureCentre centre_;
    std::size_t first_ = 0;  // reductions before level 0
    std::vector<LumaView> views_;
    std::vector<std::vector<unsigned char>> reductions_;
    std::vector<std::uint16_t> column_sums_;
};

}  // namespace videostabilizer
