// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/export.h"
#include "videostabilizer/mat.h"

// Matrix products. SimpleLA's rules for ownership, outputs and threads (mat.h) hold.
//
// Precision: sums are accumulated in double and rounded to float once, when they are stored, except
//            for the products named at gemm, which are summed in float.
// Errors:    none is reported. If inner dimensions differ the smaller one counts, and nothing
//            outside the operands is read. A result without memory has null data.
// Threads:   thread-safe; the matrices are owner only. Never blocks; long or large operands take
//            scratch memory from the heap.

namespace SimpleLA {

// Flags of gemm, combined with |.
constexpr int GEMM_TRANSPOSE_A = 1;  // op(A) is the transpose of A
constexpr int GEMM_TRANSPOSE_B = 2;  // op(B) is the transpose of B
constexpr int GEMM_TRANSPOSE_C = 4;  // op(C) is the transpose of C

// D = alpha op(A) op(B) + beta op(C), where op(X) is X or, by its flag, the transpose of X.
//
// Shapes:    op(A) is m x len, op(B) len x n, D is shaped m x n by the create rule, op(C) is m x n.
//            Steps are free. C is absent if beta is 0, or if it has no elements (noMat()) or op(C)
//            has fewer rows or columns than D; nothing is added then.
// Aliasing:  D may share elements with A, B or C in any way; their old values count. If that takes
//            a copy and there is no memory for it, D stays as it was.
// Precision: products without transposition whose len is 2 to 4 and equal to m or n, those of 2x2,
//            3x3 and 4x4 matrices, are summed in float in order of the inner index, and have no
//            negative zeros if C is absent. They are summed in double, as everything else, if D
//            overlaps A, B or C so that a temporary is needed. alpha and beta are applied in
//            double.
// Source:    G. H. Golub, C. F. Van Loan, Matrix Computations, chapter 1: dot product, outer
//            product, saxpy and, for large operands, block forms of the matrix product.
VIDEOSTABILIZER_API void gemm(const Mat<float>& A, const Mat<float>& B, double alpha,
                              const Mat<float>& C, double beta, Mat<float>& D, int flags);

// dst = scale (src - delta)^T (src - delta) if `ata`, else scale (src - delta) (src - delta)^T.
//
// Shapes:    src is r x c, dst is shaped c x c (ata) or r x r by the create rule. delta is r x c,
//            1 x c (subtracted from every row), r x 1 (from every column), 1 x 1, or noMat() for
//            none.
// Aliasing:  dst may share elements with src or delta.
// Precision: differences, products and sums in double; the result is symmetric bit for bit.
VIDEOSTABILIZER_API void mulTransposed(const Mat<float>& src, Mat<float>& dst, bool ata,
                                       const Mat<float>& delta, double scale);

}  // namespace SimpleLA
