#pragma once

#include <cstdint>
#include <vector>

namespace apps {

// A painted picture in planar 4:2:0, packed rows, even size. Chroma samples sit in the middle of
// their four luma pixels.
struct Painting {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> y;
    std::vector<std::uint8_t> u;
    std::vector<std::uint8_t> v;
};

// Paints a hillside town: gabled houses with windows between trees, row upon row, under drifting
// shadow. Wherever one looks there are hard corners to detect, differences over many scales to
// follow them by, and colour.
//
// width, height  even, pixels
// unit           size of the smallest details, pixels, at least 1; a window is 7 units wide
// seed           another seed, another town; the same on every machine
Painting paint_town(int width, int height, double unit, std::uint64_t seed);

}  // namespace apps
