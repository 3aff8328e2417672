// SPDX-License-Identifier: Apache-2.0

#include "native_warp/warp_map.h"

#include <algorithm>
#include <cstddef>

namespace videostabilizer {

Affine2 WarpMap::at(double row) const {
    if (transforms.size() == 1) {
        return transforms.front();
    }
    const double place = (row - first_row) / rows_apart;
    const auto last = static_cast<double>(transforms.size() - 1);
    const double inside = std::min(std::max(place, 0.0), last);
    const auto below = static_cast<std::size_t>(std::min(inside, last - 1));
    const double t = inside - static_cast<double>(below);
    const Affine2& p = transforms[below];
    const Affine2& q = transforms[below + 1];
    return {p.a + t * (q.a - p.a), p.b + t * (q.b - p.b), p.c + t * (q.c - p.c),
            p.d + t * (q.d - p.d), p.e + t * (q.e - p.e), p.f + t * (q.f - p.f)};
}

void plane_map(const WarpMap& luma, const PlaneGrid& grid, WarpMap& plane) {
    plane.rows_apart = luma.rows_apart / grid.y_step;
    plane.first_row = (luma.first_row - grid.y_first) / grid.y_step;
    plane.transforms.clear();
    for (const Affine2& t : luma.transforms) {
        plane.transforms.push_back(
            {t.a, t.b * grid.y_step / grid.x_step,
             (t.a * grid.x_first + t.b * grid.y_first + t.c - grid.x_first) / grid.x_step,
             t.d * grid.x_step / grid.y_step, t.e,
             (t.d * grid.x_first + t.e * grid.y_first + t.f - grid.y_first) / grid.y_step});
    }
}

}  // namespace videostabilizer
