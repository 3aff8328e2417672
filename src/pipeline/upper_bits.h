// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "videostabilizer/picture_frame.h"

namespace videostabilizer {

// The upper 8 bits of the luma of a picture of more than 8, as packed rows of `width` bytes.
inline void take_upper_bits(const Frame& picture, const PixelLayout& layout, unsigned char* out) {
    const int shift = layout.high_bits != 0 ? 8 : layout.bit_depth - 8;
    for (int y = 0; y < picture.height; ++y) {
        const unsigned char* const row =
            picture.plane_y + static_cast<std::ptrdiff_t>(y) * picture.stride_y;
        unsigned char* const target = out + static_cast<std::ptrdiff_t>(y) * picture.width;
        for (int x = 0; x < picture.width; ++x) {
            std::uint16_t sample = 0;
            std::memcpy(&sample, row + static_cast<std::ptrdiff_t>(2) * x, 2);
            target[x] = static_cast<unsigned char>(sample >> shift);
        }
    }
}

}  // namespace videostabilizer
