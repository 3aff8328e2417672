// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <initializer_list>
#include <vector>

#include "videostabilizer/mat.h"

namespace test_matrices {

using SimpleLA::Mat;
using Rows = std::initializer_list<std::initializer_list<float>>;

// A matrix with `gap` guard elements behind each row and a row of them before and after, which
// show what was written. (Views of gap 0 are continuous.)
class Guarded {
  public:
    Guarded(int rows, int cols, int gap)
        : width_(cols + gap),
          memory_(static_cast<std::size_t>((rows + 2) * width_), GUARD),
          view(rows, cols, memory_.data() + width_, width_ * static_cast<int>(sizeof(float))) {}
    Guarded(const Rows& values, int gap)
        : Guarded(static_cast<int>(values.size()), static_cast<int>(values.begin()->size()), gap) {
        int i = 0;
        for (const auto& row : values) {
            std::copy(row.begin(), row.end(), view.row(i++));
        }
    }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    // Whether all guards are left, those of the gaps included unless they were to be cleared.
    bool guards_intact(bool gaps_cleared = false) const {
        const int written = view.rows * (gaps_cleared ? width_ : view.cols);
        return std::count(memory_.begin(), memory_.end(), GUARD) ==
               static_cast<std::ptrdiff_t>(memory_.size()) - written;
    }

  private:
    static constexpr float GUARD = -777.0F;
    int width_;
    std::vector<float> memory_;

  public:
    Mat<float> view;
};

// To the bit, for values that are no NaN.
inline testing::AssertionResult holds(const Mat<float>& m, const Rows& values) {
    const Guarded wanted(values, 0);
    if (m.rows != wanted.view.rows || m.cols != wanted.view.cols) {
        return testing::AssertionFailure() << "shape is " << m.rows << " x " << m.cols;
    }
    for (int n = 0; n < m.rows * m.cols; ++n) {
        const float value = m.at(n / m.cols, n % m.cols);
        const float expected = wanted.view.at(n / m.cols, n % m.cols);
        if (value != expected || std::signbit(value) != std::signbit(expected)) {
            return testing::AssertionFailure() << "(" << n / m.cols << ", " << n % m.cols << ") is "
                                               << value << ", not " << expected;
        }
    }
    return testing::AssertionSuccess();
}

}  // namespace test_matrices
