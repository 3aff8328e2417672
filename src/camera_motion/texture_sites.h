// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <vector>

#include "camera_motion/luma_pyramid.h"

namespace videostabilizer {

// A grid of some 200 cells over a picture, all of about the same size and square.
struct CellGrid {
    int side;     // pixels
    int columns;  // the last column and row may be cut off
    int rows;

    CellGrid(int width, int height);
    std::size_t index(int column, int row) const { return packed_index(columns, column, row); }
    std::size_t count() const {
        return static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows);
    }
};

// Places that can be followed in every direction, all over the picture: the best one of each cell of
// a grid, by the harmonic mean of the two eigenvalues of the gradient's moment matrix (W. Foerstner,
// E. Guelch, 1987; J. Shi, C. Tomasi, "Good features to track", 1994, take the smaller one). Weak ones
// are left out only where there are enough strong ones.
//
// Threads: owner only.
class TextureSites {
  public:
    struct Site {
        int x, y;          // pixels
        std::size_t cell;  // of the grid
        float strength;
    };

    TextureSites(int width, int height);  // of the pictures, pixels; throws std::bad_alloc

    void find(const LumaView& picture);
    // Those last found, ordered by rows of cells, then by column.
    const std::vector<Site>& sites() const { return sites_; }
    const CellGrid& grid() const { return grid_; }

  private:
    void sum_row(const LumaView& picture, int y);
    void rate_row(int y);

    int width_;
    CellGrid grid_;
    // Of three successive rows, row y in y mod 3: products of the gradients, summed over three columns.
    std::vector<float> xx_[3], xy_[3], yy_[3];
    std::vector<float> gx_, gy_;  // gradients of a row
    std::vector<float> strength_;
    std::vector<Site> best_;  // of each cell; strength 0: none
    std::vector<Site> sites_;
};

}  // namespace videostabilizer
