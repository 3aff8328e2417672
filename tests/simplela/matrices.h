#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
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
    Guarded& operator=(const Guarded&) = delete;
    ~Guarded() = default;

    // Uniform in [-1, 1), the same for the same seed.
    Guarded& randomize(unsigned seed) {
        std::mt19937 bits(seed);
        for (int n = 0; n < view.rows * view.cols; ++n) {
            view.at(n / view.cols, n % view.cols) =
                static_cast<float>(static_cast<int>(bits() >> 8U) - (1 << 23)) / (1 << 23);
        }
        return *this;
    }

    bool guards_intact() const {  // no element that was written looks like a guard
        return std::count(memory_.begin(), memory_.end(), GUARD) ==
               static_cast<std::ptrdiff_t>(memory_.size()) - view.rows * view.cols;
    }

  private:
    static constexpr float GUARD = -777.0F;
    int width_;
    std::vector<float> memory_;

  public:
    Mat<float> view;
};

inline testing::AssertionResult near(const Mat<float>& m, const Mat<float>& wanted,
                                     float tolerance = 0.0F) {
    if (m.rows != wanted.rows || m.cols != wanted.cols) {
        return testing::AssertionFailure() << "shape is " << m.rows << " x " << m.cols;
    }
    for (int i = 0; i < m.rows; ++i) {
        for (int j = 0; j < m.cols; ++j) {
            if (!(std::abs(m.at(i, j) - wanted.at(i, j)) <= tolerance)) {
                return testing::AssertionFailure() << "(" << i << ", " << j << ") is " << m.at(i, j)
                                                   << ", not " << wanted.at(i, j);
            }
        }
    }
    return testing::AssertionSuccess();
}

inline testing::AssertionResult holds(const Mat<float>& m, const Rows& values,
                                      float tolerance = 0.0F) {
    return near(m, Guarded(values, 0).view, tolerance);
}

// Element (i, j) of m, or of its transpose, in double.
inline auto elements(const Mat<float>& m, bool transposed = false) {
    return [&m, transposed](int i, int j) {
        return static_cast<double>(transposed ? m.at(j, i) : m.at(i, j));
    };
}

// Compares D with alpha A B + beta C, summed in double over len terms: to one rounding to float,
// and `sum_error` per unit of what is summed. A, B and C give an element for (i, j).
template <typename A, typename B, typename C>
testing::AssertionResult is_product(const Mat<float>& D, double alpha, const A& a, const B& b,
                                    int len, double beta, const C& c, double sum_error) {
    for (int i = 0; i < D.rows; ++i) {
        for (int j = 0; j < D.cols; ++j) {
            const double added = beta != 0 ? beta * c(i, j) : 0;
            double expected = added;
            double magnitude = std::abs(added);
            for (int k = 0; k < len; ++k) {
                const double term = alpha * a(i, k) * b(k, j);
                expected += term;
                magnitude += std::abs(term);
            }
            const double tolerance =
                std::ldexp(std::abs(expected), -24) * 1.001 + sum_error * magnitude;
            const double got = static_cast<double>(D.at(i, j));
            if (!(std::abs(got - expected) <= tolerance)) {
                return testing::AssertionFailure()
                       << "(" << i << ", " << j << ") is " << got << ", not " << expected;
            }
        }
    }
    return testing::AssertionSuccess();
}

template <typename A, typename B>
testing::AssertionResult is_product(const Mat<float>& D, const A& a, const B& b, int len,
                                    double sum_error) {
    return is_product(D, 1.0, a, b, len, 0.0, a, sum_error);
}

}  // namespace test_matrices
