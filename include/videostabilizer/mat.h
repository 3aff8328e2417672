#pragma once

#include <cstddef>

#include "videostabilizer/export.h"

namespace SimpleLA {

// Header of a dense row-major matrix of floats, whose elements it owns or borrows.
// Element (i, j) lies i * step + j * sizeof(T) bytes from `data`. T is float, always.
//
// Ownership: elements are freed once, by the header that allocated them, when it is destroyed or
//            reshaped. A copy of a header is a view: it never frees, and must not outlive the
//            elements. A move hands ownership on and leaves the source empty. A header assigned a
//            view that starts at the first element that it owns keeps owning them; it must not be
//            assigned another view on its own elements, which it frees.
// Output arguments follow the *create rule* throughout SimpleLA: an output that already has the
//            wanted rows and columns and non-null data is used as it is, whatever its step and
//            owner (what lies between its rows may be overwritten); any other is given new elements
//            of its own (continuous), its old ones are freed if it owned them.
// Errors:    allocation failures, also of shapes that no memory can hold, leave `data` null and are
//            not reported; shapes are the caller's responsibility.
// Threads:   reentrant: distinct matrices may be used by distinct threads at once.
template <typename T>
class Mat {
  public:
    bool external_data = false;  // true: the elements belong to somebody else
    bool continuous = false;  // true: rows follow each other without gap (step = cols * sizeof(T))
    T* data = nullptr;        // element (0, 0); null in an empty matrix
    int rows = 0;
    int cols = 0;
    int step = 0;  // bytes from the start of one row to the start of the next

    VIDEOSTABILIZER_API Mat();                              // empty
    VIDEOSTABILIZER_API Mat(int row_count, int col_count);  // own elements, uninitialised
    VIDEOSTABILIZER_API Mat(int row_count, int col_count, T* elements,
                            int step_bytes);               // view on the caller's elements
    VIDEOSTABILIZER_API Mat(const Mat& other);             // view on the elements of other
    VIDEOSTABILIZER_API Mat(Mat&& other) noexcept;         // takes over, leaves other empty
    VIDEOSTABILIZER_API Mat& operator=(const Mat& other);  // becomes a view, as above
    VIDEOSTABILIZER_API Mat& operator=(Mat&& other) noexcept;
    VIDEOSTABILIZER_API ~Mat();

    // Applies the create rule for the given shape.
    VIDEOSTABILIZER_API void create(int row_count, int col_count);

    VIDEOSTABILIZER_API T* row(int i) {
        return const_cast<T*>(static_cast<const Mat&>(*this).row(i));
    }
    VIDEOSTABILIZER_API const T* row(int i) const {
        const char* start = reinterpret_cast<const char*>(data) + std::ptrdiff_t{i} * step;
        return static_cast<const T*>(static_cast<const void*>(start));
    }
    VIDEOSTABILIZER_API T& at(int i, int j) { return row(i)[j]; }
    VIDEOSTABILIZER_API const T& at(int i, int j) const { return row(i)[j]; }

    // The process-wide empty matrix: the value of an optional argument that is absent. Never
    // written.
    VIDEOSTABILIZER_API static Mat& noMat();

  private:
    void release();
};

extern template class Mat<float>;

// Writes the transpose of src into the existing elements of dst, which is not reshaped.
// dst of the transposed shape: transposed, in place if both have the same data.
// dst of any other shape (a row or column that keeps its shape): src is copied as it lies, as far
// as dst reaches. Nothing happens when either has no elements.
VIDEOSTABILIZER_API void transpose(Mat<float> src, Mat<float> dst);

// Makes the square matrix m symmetric: copies its upper triangle onto the lower one, or the lower
// onto the upper one. The diagonal stays.
VIDEOSTABILIZER_API void completeSymm(Mat<float> m, bool lower_to_upper);

}  // namespace SimpleLA
