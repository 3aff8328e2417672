// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "camera_motion/luma_pyramid.h"

namespace videostabilizer {

// Where blocks of a very small picture have gone in the next one, by comparing every place within
// reach. Brightness and contrast are evened out first, so that lamps, exposure and shading do not
// matter.
//
// Threads: owner only.
class BlockSearch {
  public:
    struct Block {
        double x, y;       // its middle in the earlier picture, pixels
        double dx, dy;     // best displacement, pixels
        double certainty;  // 0..1: how much better it is than others
    };

    BlockSearch(int width, int height);  // of the small pictures; throws std::bad_alloc

    // The later picture of the next search; the one before becomes the earlier.
    void add(const LumaView& picture);

    // Tries displacements up to `range` pixels around (dx, dy), in both directions. Needs two
    // pictures. Valid until the next call.
    const std::vector<Block>& search(int dx, int dy, int range);

  private:
    template <class Value>
    void sum_up(Value value);
    int mean_around(int x, int y) const;
    void even_out(const LumaView& picture, std::vector<unsigned char>& even);
    int difference(int x, int y, int to_x, int to_y) const;

    int width_;
    int height_;
    std::vector<unsigned char> earlier_, later_;  // packed
    std::vector<int> deviations_;                 // scratch
    std::vector<std::uint32_t> sums_;  // likewise; modulo 2^32, which differences do not notice
    std::vector<Block> blocks_;
};

}  // namespace videostabilizer
