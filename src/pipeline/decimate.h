// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstring>

namespace videostabilizer {

// Every step-th pixel of a row: the definition, for any step.
inline void decimate_row(const unsigned char* row, int step, unsigned char* target, int count) {
    for (int c = 0; c < count; ++c) {
        target[c] = row[static_cast<std::ptrdiff_t>(c) * step];
    }
}

// The same for a step known at compile time, which the compiler vectorises: for 2 and 4, the steps
// of usual pictures, it is limited by memory bandwidth.
template <int STEP>
void decimate_row_by(const unsigned char* __restrict row, unsigned char* __restrict target,
                     int count) {
    for (int c = 0; c < count; ++c) {
        target[c] = row[c * STEP];
    }
}

// Computes the analysis image: every step-th pixel of every step-th row, unfiltered. `luma` has
// rows `pitch` bytes apart; `image` receives height / scale packed rows of width / scale bytes.
inline void decimate_rows(const unsigned char* luma, int pitch, int width, int height, int scale,
                          unsigned char* image) {
    const int image_width = width / scale;
    const int image_height = height / scale;
    const int step_x = width / image_width;
    const int step_y = height / image_height;
    for (int r = 0; r < image_height; ++r) {
        const unsigned char* const source = luma + static_cast<std::ptrdiff_t>(r) * step_y * pitch;
        unsigned char* const target = image + static_cast<std::ptrdiff_t>(r) * image_width;
        switch (step_x) {
            case 1:
                std::memcpy(target, source, static_cast<std::size_t>(image_width));
                break;
            case 2:
                decimate_row_by<2>(source, target, image_width);
                break;
            case 4:
                decimate_row_by<4>(source, target, image_width);
                break;
            default:
                decimate_row(source, step_x, target, image_width);
                break;
        }
    }
}

// The same for packed rows of `width` bytes.
inline void decimate_luma(const unsigned char* luma, int width, int height, int scale,
                          unsigned char* image) {
    decimate_rows(luma, width, width, height, scale, image);
}

}  // namespace videostabilizer
