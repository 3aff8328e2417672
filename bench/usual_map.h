// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cmath>

#include "native_warp/warp_map.h"

namespace bench {

// What hand-held footage needs: a turn of half a degree, the crop of 0.9, a shift. With several
// transforms, also what a rolling shutter does: the turn grows by half a degree from top to bottom.
inline videostabilizer::WarpMap usual_map(int transforms, int height) {
    constexpr double HALF_A_DEGREE = 0.5 * 3.14159265358979323846 / 180;
    videostabilizer::WarpMap map;
    for (int k = 0; k < transforms; ++k) {
        const double angle = HALF_A_DEGREE * (1 + static_cast<double>(k) / transforms);
        map.transforms.push_back({0.9 * std::cos(angle), -0.9 * std::sin(angle), 40.3,
                                  0.9 * std::sin(angle), 0.9 * std::cos(angle), 20.7});
    }
    map.rows_apart = static_cast<double>(height) / transforms;
    return map;
}

}  // namespace bench
