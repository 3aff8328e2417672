// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>

#include "videostabilizer/export.h"

namespace SimpleLA {

// A dense row-major matrix of floats: a header that owns its elements or is a view on others'.
// Element (i, j) is at byte i * step + j * sizeof(T) from `data`. T is always float.
//
// Ownership: elements are freed once, by the header that allocated them, when it is destroyed or
//            reshaped. A copy of a header is a view: it never frees, and must not outlive the
//            elements. A move passes ownership on and leaves the source empty. A header assigned a
//            view that begins at the first element it owns keeps its ownership; assigned any other
//            view on its own elements, it would free them.
// Output arguments follow the *create rule* throughout SimpleLA: an output that already has the
//            wanted rows and columns and non-null data is used as it is, whatever its step and
//            owner; any other is given new continuous elements of its own, and its old ones are
//            freed if it owned them. The memory of an output is all of its rows * step bytes: the
//            gaps behind its rows, the last one included, may be overwritten.
// Errors:    a failed allocation, also of a shape too large for memory, leaves `data` null and is
//            not reported; shapes are the caller's responsibility.
// Threads:   owner only; views on the same elements may be read at once.
template <typename T>
class Mat {
  public:
    bool external_data = false;  // true: the elements are not its own
    bool continuous = false;     // true: no gaps between the rows (step = cols * sizeof(T))
    T* data = nullptr;           // element (0, 0); null in an empty matrix
    int rows = 0;                // of elements
    int cols = 0;                // elements of a row
    int step = 0;                // bytes from the start of one row to the start of the next

    VIDEOSTABILIZER_API Mat();                              // empty
    VIDEOSTABILIZER_API Mat(int row_count, int col_count);  // own elements, uninitialised
    VIDEOSTABILIZER_API Mat(int row_count, int col_count, T* elements,
                            int step_bytes);                   // view on the caller's elements
    VIDEOSTABILIZER_API Mat(const Mat& other);                 // view on the elements of other
    VIDEOSTABILIZER_API Mat(Mat&& other) noexcept;             // takes over, leaves other empty
    VIDEOSTABILIZER_API Mat& operator=(const Mat& other);      // becomes a view, as above
    VIDEOSTABILIZER_API Mat& operator=(Mat&& other) noexcept;  // takes over, as above
    VIDEOSTABILIZER_API ~Mat();

    // Applies the create rule for the given shape.
    VIDEOSTABILIZER_API void create(int row_count, int col_count);

    // The first element of row i, which is not checked.
    VIDEOSTABILIZER_API T* row(int i) {
        return const_cast<T*>(static_cast<const Mat&>(*this).row(i));
    }
    // Likewise.
    VIDEOSTABILIZER_API const T* row(int i) const {
        const char* start = reinterpret_cast<const char*>(data) + std::ptrdiff_t{i} * step;
        return static_cast<const T*>(static_cast<const void*>(start));
    }
    // Element (i, j), likewise.
    VIDEOSTABILIZER_API T& at(int i, int j) { return row(i)[j]; }
    // Likewise.
    VIDEOSTABILIZER_API const T& at(int i, int j) const { return row(i)[j]; }

    // The process-wide empty matrix, passed for an absent optional argument. Never written.
    // Threads: thread-safe.
    VIDEOSTABILIZER_API static Mat& noMat();

  private:
    void release();
};

extern template class Mat<float>;

// Writes the transpose of src into the existing elements of dst, which is not reshaped.
// dst of the transposed shape: transposed, in place if both have the same data.
// dst of any other shape (such as a row or column that keeps its shape): each row of src is copied
// untransposed to where that row begins in dst, whole even if rows of dst are shorter, but nothing
// beyond the last element of dst. Nothing happens if either has no elements.
VIDEOSTABILIZER_API void transpose(Mat<float> src, Mat<float> dst);

// Makes the square matrix m symmetric: copies its upper triangle to the lower one, or the lower to
// the upper one.
VIDEOSTABILIZER_API void completeSymm(Mat<float> m, bool lower_to_upper);

}  // namespace SimpleLA
