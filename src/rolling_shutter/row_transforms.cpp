// SPDX-License-Identifier: Apache-2.0

#include "rolling_shutter/row_transforms.h"

#include <cmath>

namespace videostabilizer {

namespace {

struct Place {
    double x, y;
};

}  // namespace

bool make_rows(const LineMotion& lines, bool columns, int width, int height,
               PictureTransform& transform) {
    constexpr int STEPS = 6;           // each leaves a tenth of the error, and less
    constexpr double ACCURACY = 0.01;  // pixels, of single precision
    const AffineSix back = warp_parameters(transform.whole, 1.0F, width, height);
    const auto at = [&back](std::size_t i) { return static_cast<double>(back[i]); };
    const double middle_x = 0.5 * (width - 1);
    const double middle_y = 0.5 * (height - 1);
    // Where an output position is in the source: that whose line moved it to where `whole` takes it from.
    const auto source = [&](double x, double y) {
        const double aim_x = at(0) * x + at(1) * y + at(2) - middle_x;
        const double aim_y = at(3) * x + at(4) * y + at(5) - middle_y;
        Place p{aim_x, aim_y};
        for (int k = 0; k < STEPS; ++k) {
            const Similarity field = lines.field(columns ? p.x / width : p.y / height);
            p = {aim_x - field.map_x(p.x, p.y), aim_y - field.map_y(p.x, p.y)};
        }
        return Place{p.x + middle_x, p.y + middle_y};
    };
    const auto inside = [&](const Place& p) {
        return p.x >= -ACCURACY && p.x <= width - 1 + ACCURACY && p.y >= -ACCURACY &&
               p.y <= height - 1 + ACCURACY;
    };
    transform.by_rows = 0;
    transform.picture_height = height;
    // A line through two places of a row, of which a curve is off least.
    const double left = middle_x - middle_x / std::sqrt(2.0);
    const double right = middle_x + middle_x / std::sqrt(2.0);
    for (std::size_t row = 0; row < PictureTransform::ROWS; ++row) {
        const double y = static_cast<double>(row) * transform.rows_apart();
        const Place p = source(left, y);
        const Place q = source(right, y);
        const double a = (q.x - p.x) / (right - left);
        const double d = (q.y - p.y) / (right - left);
        if (!inside({p.x - a * left, p.y - d * left}) ||
            !inside({p.x + a * (width - 1 - left), p.y + d * (width - 1 - left)})) {
            return false;
        }
        // What the rows differ by is in the constants.
        transform.rows[row] = {
            static_cast<float>(a), back[1], static_cast<float>(p.x - a * left - at(1) * y),
            static_cast<float>(d), back[4], static_cast<float>(p.y - d * left - at(4) * y)};
    }
    transform.by_rows = 1;
    return true;
}

}  // namespace videostabilizer
