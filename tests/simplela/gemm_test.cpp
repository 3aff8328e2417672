// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/gemm.h"

#include <gtest/gtest.h>

#include <cmath>

#include "simplela/mat_util.h"
#include "tests/simplela/matrices.h"

namespace {

using namespace SimpleLA;
using namespace test_matrices;

const Mat<float>& none = Mat<float>::noMat();

TEST(Gemm, SumsInFloatOnlyWhereItSaysSo) {
    // 2^24 + 1 - 2^24 is 0 in float and 1 in double. Element (0, 0) of each product is that sum.
    Guarded three({{4096, 1, -4096}, {1, 0, 0}, {4096, 0, 0}}, 0);
    const Guarded flat({{4096, 1, -4096}, {0, 0, 0}}, 0);
    const Guarded wide({{4096, 0, 0, 0}, {1, 0, 0, 0}, {4096, 0, 0, 0}}, 0);
    const struct {
        const Mat<float>&A, &B;
        float expected;
    } cases[] = {
        {three.view, three.view, 0},
        {flat.view, three.view, 0},  // the inner dimension is that of the columns
        {three.view, wide.view, 0},  // that of the rows
        {flat.view, wide.view, 1},   // one of its own
    };
    for (const auto& c : cases) {
        Mat<float> D;
        gemm(c.A, c.B, 1.0, none, 0.0, D, 0);
        EXPECT_EQ(D.at(0, 0), c.expected) << &c - cases;
    }
    gemm(three.view, three.view, 1.0, none, 0.0, three.view, 0);
    EXPECT_EQ(three.view.at(0, 0), 1.0F) << "result on both factors";
}

TEST(Gemm, ResultMayOwnAnOperandAndChangeItsShape) {
    Mat<float> own(1, 3);
    SimpleLA::copy_elements(Guarded({{1, 2, 3}}, 0).view, own);
    gemm(own, own, 1.0, none, 0.0, own, GEMM_TRANSPOSE_A);
    EXPECT_TRUE(holds(own, {{1, 2, 3}, {2, 4, 6}, {3, 6, 9}}));
}

TEST(Gemm, WhatIsAbsentIsNotRead) {
    const Guarded A({{1, 2, 3}, {4, 5, 6}}, 0);
    Mat<float> D;
    gemm(Mat<float>(2, 0, nullptr, 0), Mat<float>(0, 3, nullptr, 12), 1.0, A.view, 2.0, D, 0);
    EXPECT_TRUE(holds(D, {{2, 4, 6}, {8, 10, 12}}));
    const Guarded one({{1, 0}, {0, 1}}, 1);
    gemm(one.view, one.view, 1.0, Guarded({{NAN, NAN}, {NAN, NAN}}, 0).view, 0.0, D, 0);
    EXPECT_TRUE(holds(D, {{1, 0}, {0, 1}}));
}

TEST(Gemm, OnlyUnrolledProductsWithoutAddendHaveNoNegativeZeros) {
    const Guarded zeros({{0, 0}, {0, 0}, {0, 0}}, 1);
    const Guarded square({{0, 0}, {0, 0}}, 1);
    Mat<float> D;
    gemm(zeros.view, square.view, -1.0, none, 0.0, D, 0);
    EXPECT_TRUE(holds(D, {{0, 0}, {0, 0}, {0, 0}}));
    gemm(square.view, zeros.view, -1.0, none, 0.0, D, GEMM_TRANSPOSE_B);
    EXPECT_TRUE(holds(D, {{-0.0F, -0.0F, -0.0F}, {-0.0F, -0.0F, -0.0F}}));
    gemm(zeros.view, square.view, -1.0, Guarded({{-0.0F, 0}, {0, 0}, {0, 0}}, 0).view, 1.0, D, 0);
    EXPECT_TRUE(holds(D, {{-0.0F, 0}, {0, 0}, {0, 0}}));
}

}  // namespace
