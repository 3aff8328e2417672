#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <random>
#include <vector>

#include "videostabilizer/mat.h"

namespace test_matrices {

using SimpleLA::Mat;
using Rows = std::initializer_list<std::initializer_list<float>>;

// A matrix in memory of the test's own: `gap` guard elements behind each row and a row of them
// before and after, which nothing may write. (Views of gap 0 are continuous.)
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
    Guarded(const Guarded& other)
        : Guarded(other.view.rows, other.view.cols, other.width_ - other.view.cols) {
        std::copy(other.memory_.begin(), other.memory_.end(), memory_.begin());
    }
    Guarded& operator=(const Guarded& other) {  // of the same shape and gap
        std::copy(other.memory_.begin(), other.memory_.end(), memory_.begin());
        return *this;
    }
    ~Guarded() = default;

    // Uniform in [-1, 1), the same for the same seed.
    Guarded& randomize(unsigned seed) {
        std::mt19937 bits(seed);
        for (int i = 0; i < view.rows; ++i) {
            for (int j = 0; j < view.cols; ++j) {
                view.at(i, j) =
                    static_cast<float>(static_cast<int>(bits() >> 8U) - (1 << 23)) / (1 << 23);
            }
        }
        return *this;
    }

    bool guards_intact() const {
        const auto width = static_cast<std::size_t>(width_);
        for (std::size_t n = 0; n < memory_.size(); ++n) {
            const bool inside = n / width >= 1 &&
                                n / width <= static_cast<std::size_t>(view.rows) &&
                                n % width < static_cast<std::size_t>(view.cols);
            if (!inside && memory_[n] != GUARD) {
                return false;
            }
        }
        return true;
    }

  private:
    static constexpr float GUARD = -777.0F;
    int width_;
    std::vector<float> memory_;

  public:
    Mat<float> view;
};

inline testing::AssertionResult holds(const Mat<float>& m, const Rows& values,
                                      float tolerance = 0.0F) {
    if (m.rows != static_cast<int>(values.size()) ||
        m.cols != static_cast<int>(values.begin()->size())) {
        return testing::AssertionFailure() << "shape is " << m.rows << " x " << m.cols;
    }
    int i = 0;
    for (const auto& row : values) {
        int j = 0;
        for (const float value : row) {
            const float got = m.at(i, j);
            if (!(got >= value - tolerance && got <= value + tolerance)) {
                return testing::AssertionFailure()
                       << "(" << i << ", " << j << ") is " << got << ", not " << value;
            }
            ++j;
        }
        ++i;
    }
    return testing::AssertionSuccess();
}

inline bool all_zero(const Mat<float>& m) {
    for (int i = 0; i < m.rows; ++i) {
        if (std::any_of(m.row(i), m.row(i) + m.cols, [](float x) { return x != 0.0F; })) {
            return false;
        }
    }
    return true;
}

}  // namespace test_matrices
