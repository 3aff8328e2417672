// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>

#include "simplela/warp_parameters.h"

namespace videostabilizer {

// How a picture is warped, in luma pixels.
struct PictureTransform {
    static constexpr std::size_t ROWS = 25;

    AffineSix whole = IDENTITY_TRANSFORM;  // from source to output
    // 1: `rows` hold instead, from output to source positions, for output rows that are equally far
    // apart, from the first to the last one of picture_height, and linear between.
    int by_rows = 0;
    int picture_height = 0;
    std::array<AffineSix, ROWS> rows{};

    double rows_apart() const {
        return static_cast<double>(picture_height - 1) / static_cast<double>(ROWS - 1);
    }
};

}  // namespace videostabilizer
