#pragma once

#include <cstddef>
#include <functional>
#include <vector>

// An image of exactly width x height bytes on the heap, so that AddressSanitizer sees any overread.
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
