// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/lu.h"

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <utility>

#include "platform/log.h"
#include "simplela/mat_util.h"
#include "simplela/scratch.h"
#include "videostabilizer/gemm.h"

namespace SimpleLA {

namespace {

constexpr float SMALLEST_PIVOT = FLT_EPSILON;

constexpr std::size_t ORDER_ON_STACK = 16;  // most unknowns of a system that needs no heap

// y += factor * x, for two rows that do not overlap. Unrolled by four: the preamble of the
// compiler's own vector loop costs more than the five elements of a usual row.
void add_scaled(float* __restrict y, const float* __restrict x, float factor, int count) {
    int c = 0;
    for (; c <= count - 4; c += 4) {
        y[c] += factor * x[c];
        y[c + 1] += factor * x[c + 1];
        y[c + 2] += factor * x[c + 2];
        y[c + 3] += factor * x[c + 3];
    }
    for (; c < count; ++c) {
        y[c] += factor * x[c];
    }
}

void swap_rows(float* x, float* y, int count) {
    for (int c = 0; c < count; ++c) {
        std::swap(x[c], y[c]);
    }
}

// Solves U x = b, x replacing b. The diagonal of U holds the reciprocals.
void substitute_back(const float* U, std::ptrdiff_t u_step, int m, float* b, std::ptrdiff_t b_step,
                     int n) {
    for (int i = m - 1; i >= 0; --i) {
        const float* u_row = U + i * u_step;
        for (int c = 0; c < n; ++c) {
            float value = b[i * b_step + c];
            for (int k = i + 1; k < m; ++k) {
                value -= u_row[k] * b[k * b_step + c];
            }
            b[i * b_step + c] = value * u_row[i];
        }
    }
}

}  // namespace

int LU(float* A, unsigned int astep, int m, float* b, unsigned int bstep, int n) {
    const auto a_step = static_cast<std::ptrdiff_t>(astep / sizeof(float));
    const auto b_step = static_cast<std::ptrdiff_t>(bstep / sizeof(float));
    int sign = 1;

    for (int i = 0; i < m; ++i) {
        float* const pivot_row = A + i * a_step;
        int k = i;
        for (int j = i + 1; j < m; ++j) {
            if (std::fabs(A[j * a_step + i]) > std::fabs(A[k * a_step + i])) {
                k = j;
            }
        }
        if (std::fabs(A[k * a_step + i]) < SMALLEST_PIVOT) {
            return 0;
        }
        if (k != i) {
            swap_rows(pivot_row + i, A + k * a_step + i, m - i);
            if (b != nullptr) {
                swap_rows(b + i * b_step, b + k * b_step, n);
            }
            sign = -sign;
        }

        const float d = -1.0F / pivot_row[i];
        for (int j = i + 1; j < m; ++j) {
            float* const row = A + j * a_step;
            const float alpha = row[i] * d;
            add_scaled(row + i + 1, pivot_row + i + 1, alpha, m - i - 1);
            if (b != nullptr) {
                add_scaled(b + j * b_step, b + i * b_step, alpha, n);
            }
        }
        pivot_row[i] = -d;
    }

    if (b != nullptr) {
        substitute_back(A, a_step, m, b, b_step, n);
    }
    return sign;
}

namespace {

// The closed forms: false when the determinant is exactly 0. out may be src.

bool invert_1x1(const Mat<float>& src, Mat<float>& out) {
    const float a = src.at(0, 0);
    if (a == 0.0F) {
        return false;
    }
    out.at(0, 0) = 1.0F / a;
    return true;
}

bool invert_2x2(const Mat<float>& src, Mat<float>& out) {
    const float a00 = src.at(0, 0);
    const float a01 = src.at(0, 1);
    const float a10 = src.at(1, 0);
    const float a11 = src.at(1, 1);
    const float det = a00 * a11 - a01 * a10;
    if (det == 0.0F) {
        return false;
    }
    const float r = 1.0F / det;
    out.at(0, 0) = a11 * r;
    out.at(0, 1) = -a01 * r;
    out.at(1, 0) = -a10 * r;
    out.at(1, 1) = a00 * r;
    return true;
}

bool invert_3x3(const Mat<float>& src, Mat<float>& out) {
    const float a00 = src.at(0, 0);
    const float a01 = src.at(0, 1);
    const float a02 = src.at(0, 2);
    const float a10 = src.at(1, 0);
    const float a11 = src.at(1, 1);
    const float a12 = src.at(1, 2);
    const float a20 = src.at(2, 0);
    const float a21 = src.at(2, 1);
    const float a22 = src.at(2, 2);
    const float det = a00 * (a11 * a22 - a12 * a21) - a01 * (a10 * a22 - a12 * a20) +
                      a02 * (a10 * a21 - a11 * a20);
    if (det == 0.0F) {
        return false;
    }
    const float r = 1.0F / det;
    out.at(0, 0) = (a11 * a22 - a12 * a21) * r;
    out.at(0, 1) = (a02 * a21 - a01 * a22) * r;
    out.at(0, 2) = (a01 * a12 - a02 * a11) * r;
    out.at(1, 0) = (a12 * a20 - a10 * a22) * r;
    out.at(1, 1) = (a00 * a22 - a02 * a20) * r;
    out.at(1, 2) = (a02 * a10 - a00 * a12) * r;
    out.at(2, 0) = (a10 * a21 - a11 * a20) * r;
    out.at(2, 1) = (a01 * a20 - a00 * a21) * r;
    out.at(2, 2) = (a00 * a11 - a01 * a10) * r;
    return true;
}

// Solves src X = I.
bool invert_by_lu(const Mat<float>& src, Mat<float>& out) {
    const auto order = static_cast<std::size_t>(src.cols);
    Scratch<float, ORDER_ON_STACK * ORDER_ON_STACK> scratch(order * order);
    if (scratch.data() == nullptr) {
        return false;
    }
    Mat<float> work(src.cols, src.cols, scratch.data(), src.cols * static_cast<int>(sizeof(float)));
    copy_elements(src, work);
    set_identity(out);
    return LU(work.data, static_cast<unsigned>(work.step), src.cols, out.data,
              static_cast<unsigned>(out.step), src.cols) != 0;
}

}  // namespace

int invert(const Mat<float>& src, Mat<float>& dst) {
    const int n = src.cols;
    if (create_would_drop(dst, n, n, src)) {
        Mat<float> reshaped;
        const int result = invert(src, reshaped);
        dst = std::move(reshaped);
        return result;
    }
    // Checked before create: an empty src that is dst gets the shape of the result.
    const bool square = src.data != nullptr && src.rows == n && n > 0;
    dst.create(n, n);
    if (dst.data == nullptr) {
        return 0;
    }
    bool regular = false;
    if (square) {
        switch (n) {
            case 1:
                regular = invert_1x1(src, dst);
                break;
            case 2:
                regular = invert_2x2(src, dst);
                break;
            case 3:
                regular = invert_3x3(src, dst);
                break;
            default:
                regular = invert_by_lu(src, dst);
                break;
        }
    }
    if (!regular) {
        set_zero(dst);
    }
    return regular ? 1 : 0;
}

int solveLuNormal(const Mat<float>& A, const Mat<float>& b, Mat<float>& x) {
    const int m = A.rows;
    const int n = A.cols;
    const int nb = b.cols;
    if (create_would_drop(x, n, nb, A) || create_would_drop(x, n, nb, b)) {
        Mat<float> reshaped;
        const int result = solveLuNormal(A, b, reshaped);
        x = std::move(reshaped);
        return result;
    }
    const bool matched = A.data != nullptr && b.data != nullptr && b.rows == m;
    x.create(n, nb);
    if (m < n) {
        __android_log_print(videostabilizer::LOG_ERROR, "log_utils",
                            "The function can not solve under-determined linear systems");
        return 0;
    }
    if (x.data == nullptr) {
        return 0;
    }

    // Rows of the work matrix begin at multiples of 16 bytes, for vector loads.
    constexpr std::size_t ROW_FLOATS = 4;
    const auto order = static_cast<std::size_t>(n);
    const std::size_t row_floats = (order + ROW_FLOATS - 1) / ROW_FLOATS * ROW_FLOATS;
    Scratch<float, ORDER_ON_STACK * ORDER_ON_STACK> scratch(row_floats * order);
    if (!matched || scratch.data() == nullptr) {
        set_zero(x);
        return 0;
    }
    Mat<float> normal(n, n, scratch.data(), static_cast<int>(row_floats * sizeof(float)));
    if (m == n) {
        copy_elements(A, normal);  // before b, since x may be A
        copy_elements(b, x);
    } else {
        mulTransposed(A, normal, true, Mat<float>::noMat(), 1.0);
        gemm(A, b, 1.0, Mat<float>::noMat(), 0.0, x, GEMM_TRANSPOSE_A);
    }
    if (LU(normal.data, static_cast<unsigned>(normal.step), n, x.data,
           static_cast<unsigned>(x.step), nb) == 0) {
        set_zero(x);
        return 0;
    }
    return 1;
}

}  // namespace SimpleLA
