// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>

namespace videostabilizer {

// Solves N symmetric equations, of which the upper triangle and, as the last column, the right side are
// given, by elimination without pivoting: their matrix is positive definite, or singular. False, with x
// untouched, when it is singular.
template <std::size_t N>
bool solve_positive(double (&m)[N][N + 1], double (&x)[N]) {
    constexpr double SINGULAR = 1e-9;  // of a diagonal element: rounding leaves some 1e-16 of it
    for (std::size_t i = 0; i < N; ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            m[i][j] = m[j][i];
        }
    }
    for (std::size_t i = 0; i < N; ++i) {
        const double least = SINGULAR * m[i][i];
        for (std::size_t k = 0; k < i; ++k) {
            const double factor = m[i][k] / m[k][k];
            for (std::size_t j = k; j <= N; ++j) {
                m[i][j] -= factor * m[k][j];
            }
        }
        if (!(m[i][i] > least)) {
            return false;
        }
    }
    for (std::size_t i = N; i-- > 0;) {
        double sum = m[i][N];
        for (std::size_t j = i + 1; j < N; ++j) {
            sum -= m[i][j] * x[j];
        }
        x[i] = sum / m[i][i];
    }
    return true;
}

}  // namespace videostabilizer
