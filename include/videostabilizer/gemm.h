#pragma once

#include "videostabilizer/export.h"
#include "videostabilizer/mat.h"

// Matrix products. All of SimpleLA's rules for headers, output arguments and threads (mat.h) hold.
//
// Precision: sums run in double and are rounded to float once, when they are stored; only the
//            products named at gemm sum in float.
// Errors:    none is reported. Where shapes disagree the product runs over what both operands have,
//            and nothing outside them is read. A result without memory has null data.
// Threads:   reentrant. Never blocks; long or large operands take scratch memory from the heap.

namespace SimpleLA {

// Flags of gemm, combined with |.
constexpr int GEMM_TRANSPOSE_A = 1;  // op(A) is the transpose of A
constexpr int GEMM_TRANSPOSE_B = 2;  // op(B) is the transpose of B
constexpr int GEMM_TRANSPOSE_C = 4;  // op(C) is the transpose of C

// D = alpha op(A) op(B) + beta op(C), where op(X) is X or, by its flag, the transpose of X.
//
// Shapes:    op(A) is m x len, op(B) len x n, D is shaped m x n by the create rule, op(C) is m x n.
//            All may have any step. C is not looked at when beta is 0, and absent when it has no
//            elements (noMat()) or fewer rows or columns than D.
// Aliasing:  D may share elements with A, B or C in any way; their old values count.
//            Where that takes a copy and there is no memory for it, D stays as it was.
// Precision: without transposition, len of 2 to 4 that is also m or n (the products of 2x2, 3x3 and
//            4x4 matrices) sums in float, in order of the inner index, unless D overlaps A, B or C
//            so that the product needs a temporary. Everything else sums in double. alpha and beta
//            are applied in double.
// Source:    G. H. Golub, C. F. Van Loan, Matrix Computations, chapter 1: the dot product, outer
//            product, saxpy and (for large operands) block forms of the matrix product.
VIDEOSTABILIZER_API void gemm(const Mat<float>& A, const Mat<float>& B, double alpha,
                              const Mat<float>& C, double beta, Mat<float>& D, int flags);

// dst = scale (src - delta)^T (src - delta) if `ata`, else scale (src - delta) (src - delta)^T.
//
// Shapes:    src is r x c, dst is shaped c x c (ata) or r x r by the create rule. delta is r x c;
//            or 1 x c (subtracted from every row), or r x 1 (from every column), or 1 x 1; noMat()
//            subtracts nothing.
// Aliasing:  dst may share elements with src or delta.
// Precision: differences, products and sums in double; the result is symmetric bit for bit.
VIDEOSTABILIZER_API void mulTransposed(const Mat<float>& src, Mat<float>& dst, bool ata,
                                       const Mat<float>& delta, double scale);

}  // namespace SimpleLA
