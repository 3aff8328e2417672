// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cmath>
#include <cstddef>
#include <functional>
#include <vector>

// An image of exactly width x height bytes on the heap, so that AddressSanitizer detects overreads.
struct Picture {
    Picture(int w, int h, const std::function<int(int x, int y)>& level)
        : width(w), height(h), pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h)) {
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                pixels[index(x, y)] = static_cast<unsigned char>(level(x, y));
            }
        }
    }
    std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
               static_cast<std::size_t>(x);
    }
    int at(int x, int y) const { return pixels[index(x, y)]; }

    int width;
    int height;
    std::vector<unsigned char> pixels;
};

// Waves of several lengths and directions, with texture for every level of the tracker and smooth
// enough to be tracked. What is at (x, y) without a shift is at (x + dx, y + dy).
inline Picture waves(int width, int height, double dx = 0, double dy = 0) {
    return Picture(width, height, [=](int column, int row) {
        const double x = column - dx;
        const double y = row - dy;
        return static_cast<int>(128.5 + 34 * std::sin(x * 0.051 + y * 0.017 + 1) +
                                34 * std::sin(y * 0.047 - x * 0.013) +
                                22 * std::sin(x * 0.11 + y * 0.09 + 2) +
                                22 * std::sin(y * 0.13 - x * 0.08 + 3));
    });
}
