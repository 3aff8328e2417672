// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
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

// A grey level: random on a lattice, bilinear in between, with corners all over that can be tracked.
// Made with integers only, so that it is the same everywhere.
inline int texture(int x, int y, int scene, int spacing = 8) {
    const int far = spacing << 12;  // keeps positions positive
    const int fx = (x + far) % spacing;
    const int fy = (y + far) % spacing;
    const auto row = [&](int lattice_y) {
        const auto at = [&](int lattice_x) {
            std::uint32_t h = static_cast<std::uint32_t>(lattice_x) * 0x9E3779B1U ^
                              static_cast<std::uint32_t>(lattice_y) * 0x85EBCA77U ^
                              static_cast<std::uint32_t>(scene) * 0xC2B2AE3DU;
            h = (h ^ h >> 15) * 0x2C1B3C6DU;
            return static_cast<int>((h ^ h >> 13) * 0x297A2D39U >> 24);
        };
        const int column = (x + far) / spacing;
        return at(column) * (spacing - fx) + at(column + 1) * fx;
    };
    const int above = (y + far) / spacing;
    return (row(above) * (spacing - fy) + row(above + 1) * fy) / (spacing * spacing);
}
