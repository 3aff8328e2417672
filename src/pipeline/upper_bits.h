// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "videostabilizer/picture_frame.h"

namespace videostabilizer {

// The upper 8 bits of the luma of a picture of more than 8: of every step-th sample of every step-th
// row, as packed rows. The steps are those of decimate_rows.
inline void take_upper_bits(const Frame& picture, const PixelLayout& layout, int scale,
                            unsigned char* out) {
    const int shift = layout.high_bits != 0 ? 8 : layout.bit_depth - 8;
    const int width = picture.width / scale;
    const int height = picture.height / scale;
    const int step_x = picture.width / width;
    const int step_y = picture.height / height;
    for (int y = 0; y < height; ++y) {
        const unsigned char* const row =
            picture.plane_y + static_cast<std::ptrdiff_t>(y) * step_y * picture.stride_y;
        unsigned char* const target = out + static_cast<std::ptrdiff_t>(y) * width;
        for (int x = 0; x < width; ++x) {
            std::uint16_t sample = 0;
            std::memcpy(&sample, row + static_cast<std::ptrdiff_t>(2) * x * step_x, 2);
            target[x] = static_cast<unsigned char>(sample >> shift);
        }
    }
}

}  // namespace videostabilizer
