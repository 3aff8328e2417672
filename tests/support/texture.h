// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

namespace test_support {

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

}  // namespace test_support
