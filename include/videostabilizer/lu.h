// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/export.h"
#include "videostabilizer/mat.h"

// Linear systems. SimpleLA's rules for ownership, outputs and threads (mat.h) hold. All is single
// precision except for the products A^T A and A^T b of the normal equations (gemm.h).
//
// Singular:  in the closed forms of `invert` (orders 1 to 3) a determinant of exactly 0; everywhere
//            else a pivot whose magnitude is below 2^-23, the machine epsilon. Neither is relative
//            to the elements: scale the system so that they are near 1.
// Threads:   thread-safe; the matrices are owner only. Never blocks; orders above 16 take scratch
//            memory from the heap, without which the result is that of a singular matrix.

namespace SimpleLA {

// Decomposes the m x m matrix A in place into triangular factors with partial pivoting and, unless
// b is null, replaces the m x n matrix b by the solution x of A x = b.
//
// Shapes:    rows begin astep and bstep bytes apart (multiples of 4). A and b must not overlap.
// Returns:   +1 or -1, the sign of the row permutation: the determinant is that sign times the
//            product of the pivots. 0 if A is singular: A and b then hold partial results. 1 for
//            m <= 0.
// Leaves:    in A the reciprocals of the pivots on the diagonal and the upper factor above it;
//            below the diagonal no meaningful values.
// Source:    Golub, Van Loan, Matrix Computations, 3.4: Gaussian elimination with partial pivoting.
VIDEOSTABILIZER_API int LU(float* A, unsigned int astep, int m, float* b, unsigned int bstep,
                           int n);

// dst = src^-1. src is square, n x n; dst is shaped n x n and may share elements with src.
// Returns:   1; or 0 with dst all zeros if src is singular, not square or empty.
VIDEOSTABILIZER_API int invert(const Mat<float>& src, Mat<float>& dst);

// Solves A x = b for the columns of b: exactly when A is square, else in the least-squares sense by
// the normal equations x = (A^T A)^-1 A^T b.
// Shapes:    A is m x n with m >= n, b is m x k, x is shaped n x k and may be A or b.
// Returns:   1; or 0 with x all zeros if A^T A (A, if square) is singular or b does not have m
//            rows; or 0 with x unset and an error logged if m < n.
// Source:    Golub, Van Loan, Matrix Computations, 5.3: the method of normal equations.
VIDEOSTABILIZER_API int solveLuNormal(const Mat<float>& A, const Mat<float>& b, Mat<float>& x);

}  // namespace SimpleLA
