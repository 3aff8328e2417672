#pragma once

#include "videostabilizer/mat.h"

namespace videostabilizer {

// product = a b for 3x3 matrices, in single precision, each element summed from k = 0 upwards.
// `product` has its elements already and shares them with neither factor.
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

}  // namespace videostabilizer
