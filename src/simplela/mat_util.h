// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <functional>

#include "videostabilizer/mat.h"

// Small operations on whole matrices that several subsystems need.

namespace SimpleLA {

// Bytes from the first element of m to the end of its last one, without the gap behind the last
// row: a read-only view on the corner of a larger matrix ends with its last element.
inline std::size_t span_bytes(const Mat<float>& m) {
    if (m.data == nullptr || m.rows <= 0 || m.cols <= 0) {
        return 0;
    }
    return static_cast<std::size_t>(m.step) * static_cast<std::size_t>(m.rows - 1) +
           static_cast<std::size_t>(m.cols) * sizeof(float);
}

// Whether the memory ranges of two matrices overlap. Views on the left and the right half of one
// matrix count as overlapping although they share no element.
inline bool spans_overlap(const Mat<float>& x, const Mat<float>& y) {
    const std::size_t x_bytes = span_bytes(x);
    const std::size_t y_bytes = span_bytes(y);
    if (x_bytes == 0 || y_bytes == 0) {
        return false;
    }
    const std::less<const float*> before;
    return before(x.data, y.data + y_bytes / sizeof(float)) &&
           before(y.data, x.data + x_bytes / sizeof(float));
}

// Whether element (i, j) of both matrices is the same float, for all i and j.
inline bool same_place(const Mat<float>& x, const Mat<float>& y) {
    return x.data == y.data && (x.step == y.step || (x.rows == 1 && y.rows == 1));
}

// Whether applying the create rule to `out` may free elements that `in` still refers to.
inline bool create_would_drop(const Mat<float>& out, int rows, int cols, const Mat<float>& in) {
    return (out.rows != rows || out.cols != cols) && spans_overlap(out, in);
}

// Copies the elements of src to dst, which has at least as many rows and columns: in one block if
// the steps are equal, else row by row.
inline void copy_elements(const Mat<float>& src, Mat<float>& dst) {
    if (src.step == dst.step) {
        if (span_bytes(src) > 0) {
            std::memmove(dst.data, src.data, span_bytes(src));
        }
        return;
    }
    for (int i = 0; i < src.rows; ++i) {
        std::memmove(dst.row(i), src.row(i), static_cast<std::size_t>(src.cols) * sizeof(float));
    }
}

// Clears the elements and the gaps behind all rows: rows * step bytes.
inline void set_zero(Mat<float>& m) {
    const std::size_t elements = span_bytes(m);
    if (elements > 0) {
        const auto all = static_cast<std::size_t>(m.rows) * static_cast<std::size_t>(m.step);
        std::memset(m.data, 0, std::max(elements, all));  // the step of a single row may be 0
    }
}

// Clears as set_zero does.
inline void set_identity(Mat<float>& m) {
    set_zero(m);
    for (int i = 0; i < std::min(m.rows, m.cols); ++i) {
        m.at(i, i) = 1.0F;
    }
}

}  // namespace SimpleLA
