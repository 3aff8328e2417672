#include "videostabilizer/gemm.h"

#include <gtest/gtest.h>

#include <cmath>
#include <utility>

#include "simplela/mat_util.h"
#include "tests/simplela/matrices.h"

namespace {

using SimpleLA::gemm;
using SimpleLA::GEMM_TRANSPOSE_A;
using SimpleLA::GEMM_TRANSPOSE_B;
using SimpleLA::GEMM_TRANSPOSE_C;
using SimpleLA::mulTransposed;
using test_matrices::elements;
using test_matrices::Guarded;
using test_matrices::holds;
using test_matrices::is_product;
using test_matrices::Mat;

const Mat<float>& none = Mat<float>::noMat();

testing::AssertionResult is_gemm(const Mat<float>& D, const Mat<float>& A, const Mat<float>& B,
                                 double alpha, const Mat<float>& C, double beta, int flags,
                                 double sum_error) {
    const bool ta = (flags & GEMM_TRANSPOSE_A) != 0;
    const bool tb = (flags & GEMM_TRANSPOSE_B) != 0;
    return is_product(D, alpha, elements(A, ta), elements(B, tb), tb ? B.cols : B.rows, beta,
                      elements(C, (flags & GEMM_TRANSPOSE_C) != 0), sum_error);
}

TEST(Gemm, AgreesWithTheDefinitionForEveryShapeMethodAndTransposition) {
    // Unrolled; outer product, by columns, a single column or row; wide rows, also in pieces;
    // blocked, with the remainder of the last blocks joined to them or by itself.
    const int shapes[][3] = {
        {1, 1, 1},       {3, 2, 2},      {3, 3, 5},      {4, 4, 4},
        {5, 1, 7},       {3, 7, 6},      {6, 203, 1},    {1, 203, 9},
        {3, 9, 450},     {2, 5, 1203},   {143, 30, 200}, {144, 300, 145},
        {129, 140, 137}, {1, 10001, 70}, {70, 12000, 1}, {300, 300, 300},
    };
    for (const auto& [rows, len, cols] : shapes) {
        for (int flags = 0; flags < 8; ++flags) {
            SCOPED_TRACE(testing::Message()
                         << rows << " x " << len << " x " << cols << ", flags " << flags);
            const bool ta = (flags & GEMM_TRANSPOSE_A) != 0;
            const bool tb = (flags & GEMM_TRANSPOSE_B) != 0;
            const bool tc = (flags & GEMM_TRANSPOSE_C) != 0;
            // Continuous operands with the even flags, so that both kinds meet every method.
            const int gap = flags % 2 == 0 ? 0 : 3;
            const Guarded A = Guarded(ta ? len : rows, ta ? rows : len, gap).randomize(1);
            const Guarded B = Guarded(tb ? cols : len, tb ? len : cols, gap).randomize(2);
            const Guarded C = Guarded(tc ? cols : rows, tc ? rows : cols, 1).randomize(3);
            const double sum_error = len <= 4 ? 3e-7 : 1e-14;  // float, double
            Guarded D(rows, cols, 2);
            gemm(A.view, B.view, 1.0, none, 0.0, D.view, flags);
            EXPECT_TRUE(is_gemm(D.view, A.view, B.view, 1.0, none, 0.0, flags, sum_error));
            gemm(A.view, B.view, -0.3, C.view, 1.7, D.view, flags);
            EXPECT_TRUE(is_gemm(D.view, A.view, B.view, -0.3, C.view, 1.7, flags, sum_error));
            EXPECT_TRUE(D.guards_intact());
            EXPECT_TRUE(D.view.external_data);
        }
    }
}

TEST(Gemm, SumsInFloatOnlyWhereItSaysSo) {
    // 2^24 + 1 - 2^24 is 0 in float and 1 in double. Element (0, 0) of each product is that sum.
    const Guarded three({{4096, 1, -4096}, {1, 0, 0}, {4096, 0, 0}}, 0);
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
    Guarded both = three;
    gemm(both.view, both.view, 1.0, none, 0.0, both.view, 0);
    EXPECT_EQ(both.view.at(0, 0), 1.0F) << "result on both factors";
}

TEST(Gemm, ResultOnAnOperandIsThatOfTheOldValues) {
    for (const int order : {3, 7, 20, 150}) {
        for (int flags = 0; flags < 8; ++flags) {
            for (int on = 1; on < 8; ++on) {  // bit 0: A, bit 1: B, bit 2: C
                SCOPED_TRACE(testing::Message() << order << ", flags " << flags << ", on " << on);
                const Guarded old = Guarded(order, order, 1).randomize(1);
                const Guarded other = Guarded(order, order, 1).randomize(2);
                Guarded D = old;
                const auto operand = [&](int bit, const Guarded& shared) -> const Mat<float>& {
                    return (on & bit) != 0 ? shared.view : other.view;
                };
                gemm(operand(1, D), operand(2, D), 0.5, operand(4, D), 2.0, D.view, flags);
                EXPECT_TRUE(is_gemm(D.view, operand(1, old), operand(2, old), 0.5, operand(4, old),
                                    2.0, flags, 3e-7));
                EXPECT_TRUE(D.guards_intact());
            }
        }
    }
}

TEST(Gemm, ResultMayOverlapAnOperandOrOwnItAndChangeItsShape) {
    const Guarded B = Guarded(3, 3, 0).randomize(2);
    for (const auto& [down, right] : {std::pair{1, 0}, {0, 1}, {2, 2}}) {
        Guarded memory = Guarded(5, 5, 0).randomize(1);
        const Guarded old = memory;
        const Mat<float> A(3, 3, memory.view.data, 20);
        const Mat<float> old_A(3, 3, old.view.data, 20);
        Mat<float> D(3, 3, &memory.view.at(down, right), 20);
        gemm(A, B.view, 1.0, none, 0.0, D, 0);
        EXPECT_TRUE(is_gemm(D, old_A, B.view, 1.0, none, 0.0, 0, 3e-7));
    }

    Mat<float> own(1, 3);
    SimpleLA::copy_elements(Guarded({{1, 2, 3}}, 0).view, own);
    gemm(own, own, 1.0, none, 0.0, own, GEMM_TRANSPOSE_B);
    EXPECT_TRUE(holds(own, {{14}}));
}

TEST(Gemm, WhatIsAbsentOrDoesNotFitIsNotRead) {
    const Guarded A({{1, 2, 3}, {4, 5, 6}}, 0);
    Mat<float> D;
    gemm(A.view, Guarded({{1}, {10}}, 0).view, 1.0, none, 0.0, D, 0);  // the terms that both have
    EXPECT_TRUE(holds(D, {{21}, {54}}));
    gemm(none, A.view, 1.0, none, 0.0, D, 0);
    EXPECT_EQ(D.rows, 0);
    gemm(Mat<float>(2, 0, nullptr, 0), Mat<float>(0, 3, nullptr, 12), 1.0, A.view, 2.0, D, 0);
    EXPECT_TRUE(holds(D, {{2, 4, 6}, {8, 10, 12}}));

    const Guarded one({{1, 0}, {0, 1}}, 1);
    gemm(one.view, one.view, 1.0, Guarded({{NAN, NAN}, {NAN, NAN}}, 0).view, 0.0, D, 0);
    EXPECT_TRUE(holds(D, {{1, 0}, {0, 1}}));
    gemm(one.view, one.view, 1.0, Guarded({{100}}, 0).view, 2.0, D, 0);  // too small an addend
    EXPECT_TRUE(holds(D, {{1, 0}, {0, 1}}));
}

// Compares with the sum in double, rounded to float once.
testing::AssertionResult is_square_of(const Mat<float>& dst, const Mat<float>& src, bool ata,
                                      const Mat<float>& delta, double scale) {
    const auto left = [&](int i, int k) {
        const int row = ata ? k : i;
        const int col = ata ? i : k;
        const double value = static_cast<double>(src.at(row, col));
        return delta.data == nullptr
                   ? value
                   : value - static_cast<double>(
                                 delta.at(delta.rows == 1 ? 0 : row, delta.cols == 1 ? 0 : col));
    };
    const auto right = [&](int k, int j) { return left(j, k); };
    return is_product(dst, scale, left, right, ata ? src.rows : src.cols, 0.0, left, 1e-14);
}

TEST(MulTransposed, IsTheDoubleSumRoundedOnceWithAndWithoutDelta) {
    const int shapes[][2] = {{2000, 6}, {12, 6}, {3, 4}, {1, 5}, {5, 1}, {9, 11}, {120, 110}};
    for (const auto& [rows, cols] : shapes) {
        const Guarded src = Guarded(rows, cols, 2).randomize(1);
        const Guarded deltas[] = {Guarded(rows, cols, 1).randomize(2),
                                  Guarded(1, cols, 1).randomize(3),
                                  Guarded(rows, 1, 1).randomize(4), Guarded(1, 1, 1).randomize(5)};
        for (int n = 0; n < (rows > 200 ? 5 : 10); ++n) {  // an order of 2000 is no use of it
            const bool ata = n < 5;
            const int d = n % 5;
            SCOPED_TRACE(testing::Message()
                         << rows << " x " << cols << ", ata " << ata << ", delta " << d);
            const Mat<float>& delta = d == 4 ? none : deltas[d].view;
            Guarded dst(ata ? cols : rows, ata ? cols : rows, 3);
            mulTransposed(src.view, dst.view, ata, delta, 0.7);
            EXPECT_TRUE(is_square_of(dst.view, src.view, ata, delta, 0.7));
            EXPECT_TRUE(dst.guards_intact() && dst.view.external_data);
            Guarded turned = dst;
            transpose(turned.view, turned.view);
            EXPECT_TRUE(test_matrices::near(turned.view, dst.view));  // symmetric to the bit
        }
    }
}

TEST(MulTransposed, ResultMayLieOnItsOperands) {
    for (const bool ata : {true, false}) {
        const Guarded src = Guarded(5, 5, 1).randomize(1);
        const Guarded delta = Guarded(5, 5, 1).randomize(2);
        Guarded on_src = src;
        mulTransposed(on_src.view, on_src.view, ata, delta.view, 0.3);
        EXPECT_TRUE(is_square_of(on_src.view, src.view, ata, delta.view, 0.3));
        Guarded dst = delta;
        mulTransposed(src.view, dst.view, ata, dst.view, 0.3);
        EXPECT_TRUE(is_square_of(dst.view, src.view, ata, delta.view, 0.3));

        Mat<float> row(1, 3);  // grows to 3 x 3, or shrinks to 1 x 1
        SimpleLA::copy_elements(Guarded({{1, 2, 3}}, 0).view, row);
        mulTransposed(row, row, ata, none, 1.0);
        EXPECT_TRUE(ata ? holds(row, {{1, 2, 3}, {2, 4, 6}, {3, 6, 9}}) : holds(row, {{14}}));
    }
}

}  // namespace
