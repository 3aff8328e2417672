// SPDX-License-Identifier: Apache-2.0

#include "motion/affine_fit.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <memory>
#include <new>

#include "motion/product3x3.h"
#include "simplela/mat_util.h"
#include "videostabilizer/lu.h"

namespace videostabilizer {

namespace {

using SimpleLA::Mat;

constexpr float SQRT_2 = 1.4142135F;
constexpr int UNKNOWNS = 6;
constexpr int FLOAT_BYTES = static_cast<int>(sizeof(float));

void set_row(Mat<float>& m, int i, float x, float y, float z) {
    float* row = m.row(i);
    row[0] = x;
    row[1] = y;
    row[2] = z;
}

}  // namespace

Mat<float>* normalizePoints(std::vector<KeyPoint>& pts) {
    const float n = static_cast<float>(pts.size());
    float sum_x = 0.0F;
    float sum_y = 0.0F;
    for (const KeyPoint& p : pts) {
        sum_x += p.x;
        sum_y += p.y;
    }
    const float mx = sum_x / n;
    const float my = sum_y / n;

    float sum_distance = 0.0F;
    for (KeyPoint& p : pts) {
        p.x -= mx;
        p.y -= my;
        sum_distance += std::sqrt(p.x * p.x + p.y * p.y);
    }
    const float s = SQRT_2 / (sum_distance / n);
    for (KeyPoint& p : pts) {
        p.x *= s;
        p.y *= s;
    }

    auto transform = std::make_unique<Mat<float>>(3, 3);
    if (transform->data == nullptr) {
        throw std::bad_alloc();
    }
    set_row(*transform, 0, s, 0.0F, -(mx * s));
    set_row(*transform, 1, 0.0F, s, -(my * s));
    set_row(*transform, 2, 0.0F, 0.0F, 1.0F);
    return transform.release();
}

// With Ts and Td the normalising transforms and Mn the fit between normalised points,
// motion = Td^-1 Mn Ts.
void fitAffine(Mat<float>& motion, std::vector<KeyPoint>& src, std::vector<KeyPoint>& dst) {
    const std::unique_ptr<Mat<float>> ts(normalizePoints(src));
    const std::unique_ptr<Mat<float>> td(normalizePoints(dst));

    // Two equations per pair, one for each destination coordinate: A p = b.
    const std::size_t equations = 2 * src.size();
    std::vector<float> elements(equations * (UNKNOWNS + 1));
    const int rows = static_cast<int>(equations);
    Mat<float> a(rows, UNKNOWNS, elements.data(), UNKNOWNS * FLOAT_BYTES);
    Mat<float> b(rows, 1, elements.data() + equations * UNKNOWNS, FLOAT_BYTES);
    for (std::size_t i = 0; i < src.size(); ++i) {
        const int row = static_cast<int>(2 * i);
        set_row(a, row, src[i].x, src[i].y, 1.0F);
        float* second = a.row(row + 1) + 3;
        second[0] = src[i].x;
        second[1] = src[i].y;
        second[2] = 1.0F;
        b.at(row, 0) = dst[i].x;
        b.at(row + 1, 0) = dst[i].y;
    }

    // p is the upper two rows of Mn. The solver's result is ignored: where the points do not
    // determine a motion the model has hardly any inliers.
    std::array<float, 9> mn_elements{0, 0, 0, 0, 0, 0, 0, 0, 1};
    Mat<float> p(UNKNOWNS, 1, mn_elements.data(), FLOAT_BYTES);
    SimpleLA::solveLuNormal(a, b, p);
    const Mat<float> mn(3, 3, mn_elements.data(), 3 * FLOAT_BYTES);

    SimpleLA::invert(*td, *td);
    multiply_3x3(*td, mn, motion);
    multiply_3x3(motion, *ts, *td);
    SimpleLA::copy_elements(*td, motion);
    // Exact even where the rest is not finite.
    set_row(motion, 2, 0.0F, 0.0F, 1.0F);
}

}  // namespace videostabilizer
