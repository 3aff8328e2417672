#pragma once

#include <cstddef>
#include <cstring>

namespace videostabilizer {

// Makes the analysis image: every step-th pixel of every step-th row, without filtering. `luma` is
// a plane of packed rows of `width` bytes; `image` receives packed rows of width / scale bytes,
// height / scale of them.
inline void decimate_luma(const unsigned char* luma, int width, int height, int scale,
                          unsigned char* image) {
    const int image_width = width / scale;
    const int image_height = height / scale;
    const int step_x = width / image_width;
    const int step_y = height / image_height;
    for (int r = 0; r < image_height; ++r) {
        const unsigned char* const source = luma + static_cast<std::ptrdiff_t>(r) * step_y * width;
        unsigned char* const target = image + static_cast<std::ptrdiff_t>(r) * image_width;
        if (step_x == 1) {
            std::memcpy(target, source, static_cast<std::size_t>(image_width));
            continue;
        }
        for (int c = 0; c < image_width; ++c) {
            target[c] = source[c * step_x];
        }
    }
}

}  // namespace videostabilizer
