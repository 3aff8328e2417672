// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

namespace videostabilizer {

// Maps the position (x, y) of an output sample to a source position: (a x + b y + c, d x + e y + f).
// Samples are at whole numbers, (0, 0) is the first sample of the first row.
struct Affine2 {
    double a = 1;
    double b = 0;
    double c = 0;
    double d = 0;
    double e = 1;
    double f = 0;
};

// Where every row of the output comes from: transform k holds for row first_row + k rows_apart, rows
// between two have the linear mean of both, and rows beyond the ends have the nearest. One transform
// holds for all rows. Several describe what a rolling shutter does.
// Units: output rows, and samples of the plane, or of luma for a whole picture.
struct WarpMap {
    std::vector<Affine2> transforms;  // at least one
    double rows_apart = 1;            // above 0
    double first_row = 0;

    Affine2 at(double row) const;
};

// How the samples of a plane lie on the luma samples: sample (x, y) is at luma position
// (x_step x + x_first, y_step y + y_first). Luma itself: {1, 1, 0, 0}. Chroma of 4:2:0 as MPEG-2 and
// later have it, left of the middle: {2, 2, 0, 0.5}; as JPEG has it, centred: {2, 2, 0.5, 0.5}.
struct PlaneGrid {
    double x_step = 1;
    double y_step = 1;
    double x_first = 0;
    double y_first = 0;
};

// Computes the map of a plane's samples from that of the luma samples. Reuses the memory of `plane`.
void plane_map(const WarpMap& luma, const PlaneGrid& grid, WarpMap& plane);

}  // namespace videostabilizer
