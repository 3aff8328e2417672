// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/mat.h"

#include <algorithm>
#include <cfloat>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "simplela/mat_util.h"

// x87 arithmetic keeps wider intermediates and would round differently.
static_assert(FLT_EVAL_METHOD == 0, "float arithmetic must be done in float");

namespace SimpleLA {

namespace {

constexpr int TILE = 4;  // a tile of 4x4 floats touches 4 + 4 cache lines, whatever the steps

// Whether the step fits an int and the size a ptrdiff_t.
template <typename T>
bool fits_memory(int rows, int cols) {
    constexpr int ELEMENT = static_cast<int>(sizeof(T));
    return rows >= 0 && cols >= 0 && cols <= std::numeric_limits<int>::max() / ELEMENT &&
           static_cast<long long>(rows) * cols <= PTRDIFF_MAX / ELEMENT;
}

// Copies each row of src, all of it, to where that row begins in dst, even if the rows of dst are
// shorter; nothing is written beyond the last element of dst.
void copy_untransposed(const Mat<float>& src, Mat<float>& dst) {
    const std::size_t room = span_bytes(dst);
    const auto row_bytes = static_cast<std::size_t>(src.cols) * sizeof(float);
    std::size_t start = 0;
    for (int i = 0; i < src.rows && start < room; ++i) {
        std::memmove(dst.row(i), src.row(i), std::min(row_bytes, room - start));
        start += static_cast<std::size_t>(dst.step);
    }
}

// dst has the transposed shape and shares no element with src. Tile by tile, so that a column of
// dst is still in the cache when its next elements are written.
void transpose_tiles(const Mat<float>& src, Mat<float>& dst) {
    for (int i0 = 0; i0 < src.rows; i0 += TILE) {
        const int i1 = std::min(i0 + TILE, src.rows);
        for (int j0 = 0; j0 < src.cols; j0 += TILE) {
            const int j1 = std::min(j0 + TILE, src.cols);
            for (int i = i0; i < i1; ++i) {
                for (int j = j0; j < j1; ++j) {
                    dst.at(j, i) = src.at(i, j);
                }
            }
        }
    }
}

Mat<float>& shared_empty() {
    static Mat<float> empty;  // initialised thread-safely at the first call, destroyed at exit
    return empty;
}

}  // namespace

template <typename T>
Mat<T>::Mat() = default;

template <typename T>
Mat<T>::Mat(int row_count, int col_count) {
    create(row_count, col_count);
}

template <typename T>
Mat<T>::Mat(int row_count, int col_count, T* elements, int step_bytes)
    : external_data(true),
      continuous(step_bytes == col_count * static_cast<int>(sizeof(T))),
      data(elements),
      rows(row_count),
      cols(col_count),
      step(step_bytes) {}

template <typename T>
Mat<T>::Mat(const Mat& other)
    : external_data(other.data != nullptr),
      continuous(other.continuous),
      data(other.data),
      rows(other.rows),
      cols(other.cols),
      step(other.step) {}

template <typename T>
Mat<T>::Mat(Mat&& other) noexcept {
    *this = std::move(other);
}

template <typename T>
Mat<T>& Mat<T>::operator=(const Mat& other) {
    if (this != &other) {
        *this = Mat(other);
    }
    return *this;
}

template <typename T>
Mat<T>& Mat<T>::operator=(Mat&& other) noexcept {
    if (this != &other) {
        // Assigned a view on the elements it owns, a matrix keeps them and their ownership.
        const bool stays_owner = !external_data && data != nullptr && data == other.data;
        if (!stays_owner) {
            release();
        }
        external_data = std::exchange(other.external_data, false) && !stays_owner;
        continuous = std::exchange(other.continuous, false);
        data = std::exchange(other.data, nullptr);
        rows = std::exchange(other.rows, 0);
        cols = std::exchange(other.cols, 0);
        step = std::exchange(other.step, 0);
    }
    return *this;
}

template <typename T>
Mat<T>::~Mat() {
    release();
}

template <typename T>
void Mat<T>::create(int row_count, int col_count) {
    if (data != nullptr && rows == row_count && cols == col_count) {
        return;
    }
    release();
    external_data = false;
    continuous = true;
    rows = row_count;
    cols = col_count;
    step = 0;
    if (fits_memory<T>(rows, cols)) {
        step = cols * static_cast<int>(sizeof(T));
        data = static_cast<T*>(
            std::malloc(static_cast<std::size_t>(rows) * static_cast<std::size_t>(step)));
    }
}

template <typename T>
void Mat<T>::release() {
    if (!external_data) {
        std::free(data);
    }
    data = nullptr;
}

template <typename T>
Mat<T>& Mat<T>::noMat() {
    return shared_empty();
}

template class Mat<float>;

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface takes headers by value
void transpose(Mat<float> src, Mat<float> dst) {
    if (src.data == nullptr || dst.data == nullptr) {
        return;
    }
    if (src.rows != dst.cols || src.cols != dst.rows) {
        copy_untransposed(src, dst);
        return;
    }
    if (dst.data == src.data && src.rows == src.cols) {
        for (int i = 0; i < src.cols; ++i) {
            for (int j = i + 1; j < src.cols; ++j) {
                std::swap(dst.at(i, j), dst.at(j, i));
            }
        }
        return;
    }
    if (dst.data == src.data) {
        Mat<float> old(src.rows, src.cols);
        if (old.data != nullptr) {
            copy_elements(src, old);
            transpose(old, dst);
        }
        return;
    }
    transpose_tiles(src, dst);
}

void completeSymm(Mat<float> m, bool lower_to_upper) {
    const int order = m.data != nullptr ? std::min(m.rows, m.cols) : 0;
    for (int i = 1; i < order; ++i) {
        for (int j = 0; j < i; ++j) {
            if (lower_to_upper) {
                m.at(j, i) = m.at(i, j);
            } else {
                m.at(i, j) = m.at(j, i);
            }
        }
    }
}

}  // namespace SimpleLA
