#include "videostabilizer/mat.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "simplela/mat_util.h"

namespace SimpleLA {

namespace {

constexpr int TILE = 4;  // a tile of 4x4 floats touches 4 + 4 cache lines, whatever the sizes

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
    : external_data(true),
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
        release();
        external_data = std::exchange(other.external_data, false);
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
    step = col_count * static_cast<int>(sizeof(T));
    data = static_cast<T*>(std::malloc(static_cast<std::size_t>(row_count) *
                                       static_cast<std::size_t>(col_count) * sizeof(T)));
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
    static Mat<T> empty;
    return empty;
}

template class Mat<float>;

void transpose(Mat<float> src, Mat<float> dst) {
    if (src.data == nullptr || dst.data == nullptr) {
        return;
    }
    if (src.rows != dst.cols || src.cols != dst.rows) {
        copy_elements(src, dst);
        return;
    }
    if (dst.data == src.data) {
        for (int i = 0; i < src.cols; ++i) {
            for (int j = i + 1; j < src.cols; ++j) {
                std::swap(dst.at(i, j), dst.at(j, i));
            }
        }
        return;
    }
    // Tile by tile, so that a column of dst is still in the cache when its next elements come.
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

void completeSymm(Mat<float> m, bool lower_to_upper) {
    for (int i = 0; i < m.rows; ++i) {
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
