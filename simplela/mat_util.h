#pragma once

#include <cstddef>
#include <cstring>

#include "videostabilizer/mat.h"

// Small operations on whole matrices that several subsystems need.

namespace SimpleLA {

// Copies the elements of src to dst, which has at least its rows and columns: one block when the
// steps agree, else row by row. The gap behind the last row is left out of the block: a view may end
// with its last element.
inline void copy_elements(const Mat<float>& src, Mat<float>& dst) {
    if (src.rows <= 0) {
        return;
    }
    if (src.step == dst.step) {
        const int block = src.step * (src.rows - 1) + src.cols * static_cast<int>(sizeof(float));
        std::memcpy(dst.data, src.data, static_cast<std::size_t>(block));
        return;
    }
    for (int i = 0; i < src.rows; ++i) {
        std::memcpy(dst.row(i), src.row(i), static_cast<std::size_t>(src.cols) * sizeof(float));
    }
}

// Sets all rows * step bytes to zero, the gap at the end of each row included.
inline void set_zero(Mat<float>& m) {
    std::memset(m.data, 0, static_cast<std::size_t>(m.rows) * static_cast<std::size_t>(m.step));
}

inline void set_identity(Mat<float>& m) {
    set_zero(m);
    for (int i = 0; i < m.cols; ++i) {
        m.at(i, i) = 1.0F;
    }
}

}  // namespace SimpleLA
