// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <algorithm>
#include <array>

#include "simplela/affine_inverse.h"
#include "videostabilizer/mat.h"

namespace videostabilizer {

// product = a b for 3x3 matrices, in single precision, each element summed from k = 0 upwards.
// `product` has elements and shares them with neither factor.
inline void multiply_3x3(const SimpleLA::Mat<float>& a, const SimpleLA::Mat<float>& b,
                         SimpleLA::Mat<float>& product) {
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            float sum = 0.0F;
            for (int k = 0; k < 3; ++k) {
                sum += a.at(i, k) * b.at(k, j);
            }
            product.at(i, j) = sum;
        }
    }
}

// Inverts a motion [[a, b, c], [d, e, f], [0, 0, 1]] in place.
inline void invert_motion(SimpleLA::Mat<float>& m) {
    std::array<float, 6> map{m.at(0, 0), m.at(0, 1), m.at(0, 2),
                             m.at(1, 0), m.at(1, 1), m.at(1, 2)};
    SimpleLA::invert_affine(map.data(), map.data());
    std::copy_n(map.data(), 3, m.row(0));
    std::copy_n(map.data() + 3, 3, m.row(1));
}

}  // namespace videostabilizer
