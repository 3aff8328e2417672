// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/synthetic/camera_path.h"

// Bilinear sampling along a row or a column of a picture.

namespace synthetic {

// Positions with 24 fractional bits, so that rounding errors stay below a thousandth of a pixel over
// the widest row; weights with 8.
constexpr int POSITION_BITS = 24;
constexpr int WEIGHT_BITS = 8;

inline std::int64_t to_fixed(double value) {
    return static_cast<std::int64_t>(std::floor(value * (1 << POSITION_BITS) + 0.5));
}

// From chroma positions of the picture to chroma positions of the source. Chroma sample i of either
// sits at luma position 2 i + 1/2.
inline Affine chroma_view(const Affine& luma) {
    Affine view = luma;
    view.c = 0.5 * (luma.map_x(0.5, 0.5) - 0.5);
    view.f = 0.5 * (luma.map_y(0.5, 0.5) - 0.5);
    return view;
}

// Samples of a picture, one after another.
struct Line {
    unsigned char* to;    // the first one
    std::ptrdiff_t step;  // bytes from one to the next
    int count;
    int x, y;     // position of the first one
    bool is_row;  // else a column
};

// One plane of a source; packed rows, at least two samples in both directions.
struct SourcePlane {
    const std::uint8_t* samples;
    int width, height;

    SourcePlane(const std::vector<std::uint8_t>& plane, int plane_width, int plane_height)
        : samples(plane.data()), width(plane_width), height(plane_height) {}

    // Value at a position inside, whose right and lower neighbours exist.
    int at(std::int64_t x, std::int64_t y) const {
        constexpr int SHIFT = POSITION_BITS - WEIGHT_BITS;
        constexpr int ONE = 1 << WEIGHT_BITS;
        const int fx = static_cast<int>(x >> SHIFT) & (ONE - 1);
        const int fy = static_cast<int>(y >> SHIFT) & (ONE - 1);
        const std::uint8_t* p = samples + (y >> POSITION_BITS) * width + (x >> POSITION_BITS);
        const int top = p[0] * (ONE - fx) + p[1] * fx;
        const int bottom = p[width] * (ONE - fx) + p[width + 1] * fx;
        return (top * (ONE - fy) + bottom * fy + ONE * ONE / 2) >> (2 * WEIGHT_BITS);
    }
    // The last positions that have these neighbours.
    std::int64_t last_x() const {
        return (static_cast<std::int64_t>(width - 1) << POSITION_BITS) - 1;
    }
    std::int64_t last_y() const {
        return (static_cast<std::int64_t>(height - 1) << POSITION_BITS) - 1;
    }
};

// Calls take(sample, x, y) for every sample of the line; x, y are its position in the source, fixed
// point. `view` maps positions of the picture to those of the source.
template <typename Take>
void follow_line(const Line& line, const Affine& view, const Take& take) {
    std::int64_t x = to_fixed(view.map_x(line.x, line.y));
    std::int64_t y = to_fixed(view.map_y(line.x, line.y));
    const std::int64_t step_x = to_fixed(line.is_row ? view.a : view.b);
    const std::int64_t step_y = to_fixed(line.is_row ? view.d : view.e);
    unsigned char* to = line.to;
    for (int i = 0; i < line.count; ++i) {
        take(*to, x, y);
        to += line.step;
        x += step_x;
        y += step_y;
    }
}

}  // namespace synthetic
