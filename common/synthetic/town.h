// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

namespace synthetic {

// A picture in planar 4:2:0, packed rows, even size, centred chroma.
struct Painting {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> y;
    std::vector<std::uint8_t> u;
    std::vector<std::uint8_t> v;
};

// What a clip can show.
enum class Scenery { TOWN, WALLS, PAPER };

// Paints a hillside town: rows of gabled houses with windows, trees, soft shadows. There are corners
// to detect, texture at many scales and colour everywhere.
//
// width, height  even, pixels
// unit           size of the smallest details, pixels, at least 1; a window is 7 units wide
// seed           selects the town; the same on every machine
Painting paint_town(int width, int height, double unit, std::uint64_t seed);

// Likewise, rooms with plain walls: soft shading, few and faint edges.
Painting paint_walls(int width, int height, double unit, std::uint64_t seed);

// Likewise, grey paper, which is all but plain, with one dark dot in the middle.
Painting paint_paper(int width, int height, double unit, std::uint64_t seed);

}  // namespace synthetic
