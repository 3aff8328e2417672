#include "videostabilizer/gemm.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <utility>

#include "tests/simplela/heap.h"
#include "tests/simplela/matrices.h"

namespace {

using SimpleLA::gemm;
using SimpleLA::GEMM_TRANSPOSE_A;
using SimpleLA::GEMM_TRANSPOSE_B;
using SimpleLA::GEMM_TRANSPOSE_C;
using test_matrices::Guarded;
using test_matrices::holds;
using test_matrices::Mat;

const Mat<float>& none = Mat<float>::noMat();

double at(const Mat<float>& m, bool transposed, int i, int j) {
    return static_cast<double>(transposed ? m.at(j, i) : m.at(i, j));
}

// Compares D with the product summed in double: to one rounding to float, and `sum_error` per unit
// of what is summed.
testing::AssertionResult is_product(const Mat<float>& D, const Mat<float>& A, const Mat<float>& B,
                                    double alpha, const Mat<float>& C, double beta, int flags,
                                    double sum_error) {
    const bool tb = (flags & GEMM_TRANSPOSE_B) != 0;
    const int len = tb ? B.cols : B.rows;
    for (int i = 0; i < D.rows; ++i) {
        for (int j = 0; j < D.cols; ++j) {
            double sum = 0;
            double magnitude = 0;
            for (int k = 0; k < len; ++k) {
                const double term = at(A, (flags & GEMM_TRANSPOSE_A) != 0, i, k) * at(B, tb, k, j);
                sum += term;
                magnitude += std::abs(term);
            }
            const double added =
                beta != 0 ? beta * at(C, (flags & GEMM_TRANSPOSE_C) != 0, i, j) : 0;
            const double expected = alpha * sum + added;
            const double tolerance = std::ldexp(std::abs(expected), -24) * 1.001 +
                                     sum_error * (std::abs(alpha) * magnitude + std::abs(added));
            const double got = at(D, false, i, j);
            if (!(std::abs(got - expected) <= tolerance)) {
                return testing::AssertionFailure()
                       << "(" << i << ", " << j << ") is " << got << ", not " << expected;
            }
        }
    }
    return testing::AssertionSuccess();
}

TEST(Gemm, AgreesWithTheDefinitionForEveryShapeMethodAndTransposition) {
    const struct {
        const char* method;
        int rows, len, cols;
    } shapes[] = {
        {"single element", 1, 1, 1},
        {"unrolled, 2", 3, 2, 2},
        {"unrolled, 3", 3, 3, 5},
        {"unrolled, 4", 4, 4, 4},
        {"outer product", 5, 1, 7},
        {"by columns, rest of 2", 3, 7, 6},
        {"one column", 6, 203, 1},
        {"one row", 1, 203, 9},
        {"wide rows", 3, 9, 450},
        {"wide rows in pieces", 2, 5, 1203},
        {"blocked, one step of k, remainder joined", 143, 30, 200},
        {"blocked, remainder by itself", 144, 300, 145},
        {"blocked, all remainders joined", 129, 140, 137},
        {"blocked, thin and long", 1, 10001, 70},
        {"blocked, single column", 70, 12000, 1},
        {"blocked", 300, 300, 300},
    };
    for (const auto& [method, rows, len, cols] : shapes) {
        for (int flags = 0; flags < 8; ++flags) {
            SCOPED_TRACE(testing::Message() << method << ", flags " << flags);
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
            EXPECT_TRUE(is_product(D.view, A.view, B.view, 1.0, none, 0.0, flags, sum_error));
            gemm(A.view, B.view, -0.3, C.view, 1.7, D.view, flags);
            EXPECT_TRUE(is_product(D.view, A.view, B.view, -0.3, C.view, 1.7, flags, sum_error));
            EXPECT_TRUE(D.guards_intact());
            EXPECT_TRUE(D.view.external_data);
        }
    }
}

TEST(Gemm, SumsInFloatOnlyWhereItSaysSo) {
    // 2^24 + 1 - 2^24 is 0 in float and 1 in double. Element (0, 0) of each product is that sum.
    const Guarded three({{4096, 1, -4096}, {1, 0, 0}, {4096, 0, 0}}, 0);
    const Guarded turned({{4096, 1, 4096}, {1, 0, 0}, {-4096, 0, 0}}, 0);
    const Guarded flat({{4096, 1, -4096}, {0, 0, 0}}, 0);
    const Guarded wide({{4096, 0, 0, 0}, {1, 0, 0, 0}, {4096, 0, 0, 0}}, 0);
    const Guarded four({{4096, 1, -4096, 0}, {1, 0, 0, 0}, {4096, 0, 0, 0}, {0, 0, 0, 0}}, 0);
    const struct {
        const char* name;
        const Mat<float>&A, &B;
        int flags;
        float expected;
    } cases[] = {
        {"3x3 by 3x3", three.view, three.view, 0, 0},
        {"4x4 by 4x4", four.view, four.view, 0, 0},
        {"inner dimension is that of the columns", flat.view, three.view, 0, 0},
        {"inner dimension is that of the rows", three.view, wide.view, 0, 0},
        {"inner dimension of its own", flat.view, wide.view, 0, 1},
        {"first factor transposed", turned.view, three.view, GEMM_TRANSPOSE_A, 1},
        {"second factor transposed", three.view, turned.view, GEMM_TRANSPOSE_B, 1},
        {"absent addend transposed", three.view, three.view, GEMM_TRANSPOSE_C, 1},
    };
    for (const auto& c : cases) {
        Mat<float> D;
        gemm(c.A, c.B, 1.0, none, 0.0, D, c.flags);
        EXPECT_EQ(D.at(0, 0), c.expected) << c.name;
    }

    Guarded D = three;
    gemm(D.view, three.view, 1.0, none, 0.0, D.view, 0);
    EXPECT_EQ(D.view.at(0, 0), 0.0F) << "result on the first factor";
    D = three;
    gemm(three.view, D.view, 1.0, none, 0.0, D.view, 0);
    EXPECT_EQ(D.view.at(0, 0), 0.0F) << "result on the second factor";
    D = three;
    gemm(D.view, D.view, 1.0, none, 0.0, D.view, 0);
    EXPECT_EQ(D.view.at(0, 0), 1.0F) << "result on both factors";
}

TEST(Gemm, ResultOnAnOperandIsThatOfTheOldValues) {
    // Every square size up to the blocked product, every transposition, D on each of the operands.
    for (const int order : {2, 3, 4, 7, 20, 150}) {
        for (int flags = 0; flags < 8; ++flags) {
            for (int on = 1; on < 8; ++on) {  // bit 0: A, bit 1: B, bit 2: C
                SCOPED_TRACE(testing::Message() << order << ", flags " << flags << ", on " << on);
                const Guarded A = Guarded(order, order, 1).randomize(1);
                const Guarded B = (on & 3) == 3 ? A : Guarded(order, order, 1).randomize(2);
                const Guarded C = (on & 4) == 0   ? Guarded(order, order, 1).randomize(3)
                                  : (on & 1) != 0 ? A
                                                  : Guarded(B);
                Guarded D = (on & 1) != 0 ? A : (on & 2) != 0 ? B : C;
                gemm((on & 1) != 0 ? D.view : A.view, (on & 2) != 0 ? D.view : B.view, 0.5,
                     (on & 4) != 0 ? D.view : C.view, 2.0, D.view, flags);
                EXPECT_TRUE(is_product(D.view, A.view, B.view, 0.5, C.view, 2.0, flags, 3e-7));
                EXPECT_TRUE(D.guards_intact());
            }
        }
    }
}

TEST(Gemm, ResultMayOverlapAnOperandInAnyWay) {
    // D lies one row below A, or one column beside it, in the same memory.
    for (const auto& [down, right] : {std::pair{1, 0}, {0, 1}, {2, 2}}) {
        Guarded memory = Guarded(5, 5, 0).randomize(1);
        const Guarded old = memory;
        const Guarded B = Guarded(3, 3, 0).randomize(2);
        const Mat<float> A(3, 3, memory.view.data, 20);
        const Mat<float> old_A(3, 3, old.view.data, 20);
        Mat<float> D(3, 3, &memory.view.at(down, right), 20);
        gemm(A, B.view, 1.0, none, 0.0, D, 0);
        EXPECT_TRUE(is_product(D, old_A, B.view, 1.0, none, 0.0, 0, 3e-7));
    }
}

TEST(Gemm, ResultThatOwnsAnOperandMayChangeItsShape) {
    const Guarded A({{1, 2, 3}, {4, 5, 6}}, 0);
    const Guarded column({{1}, {2}, {3}}, 0);
    const int before = heap::live_blocks();
    {
        Mat<float> D(2, 3);
        transpose(A.view, D);  // not the transposed shape: copies
        const Mat<float> view = D;
        gemm(view, column.view, 1.0, none, 0.0, D, 0);
        EXPECT_TRUE(holds(D, {{14}, {32}}));
        EXPECT_EQ(heap::live_blocks(), before + 1);

        D.create(2, 3);
        transpose(A.view, D);
        gemm(D, D, 1.0, none, 0.0, D, GEMM_TRANSPOSE_B);
        EXPECT_TRUE(holds(D, {{14, 32}, {32, 77}}));
    }
    EXPECT_EQ(heap::live_blocks(), before);
}

TEST(Gemm, OnlyAPresentAddendOfTheShapeCounts) {
    constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
    const Guarded A({{1, 2}, {3, 4}, {5, 6}}, 1);
    const Guarded B({{1, 0}, {0, 1}}, 1);
    const Guarded poison({{NOT_A_NUMBER, NOT_A_NUMBER}, {NOT_A_NUMBER, 0}, {0, 0}}, 0);
    const Guarded small({{100}}, 0);
    const Guarded fits({{100, 0}, {0, 100}, {0, 0}}, 0);
    const struct {
        const Mat<float>& C;
        double beta;
        float expected;  // element (0, 0)
    } cases[] = {{poison.view, 0, 1}, {small.view, 0, 1},  {none, 2, 1},
                 {small.view, 2, 1},  {fits.view, 2, 201}, {fits.view, -0.5, -49}};
    for (const auto& c : cases) {
        Mat<float> D;
        gemm(A.view, B.view, 1.0, c.C, c.beta, D, 0);
        EXPECT_EQ(D.at(0, 0), c.expected);
        EXPECT_EQ(D.at(2, 1), 6.0F);
    }
}

TEST(Gemm, ShapesThatDisagreeOrAreEmptyReadNothingOutside) {
    const Guarded A({{1, 2, 3}, {4, 5, 6}}, 0);
    const Guarded B({{1}, {10}}, 0);
    Mat<float> D;
    gemm(A.view, B.view, 1.0, none, 0.0, D, 0);  // over the two terms that both have
    EXPECT_TRUE(holds(D, {{21}, {54}}));
    gemm(A.view, A.view, 1.0, none, 0.0, D, GEMM_TRANSPOSE_A);
    EXPECT_EQ(D.rows, 3);

    gemm(none, B.view, 1.0, none, 0.0, D, 0);
    EXPECT_EQ(D.rows, 0);
    const Mat<float> no_terms(2, 0, nullptr, 0);
    const Mat<float> no_rows(0, 3, nullptr, 12);
    gemm(no_terms, no_rows, 1.0, A.view, 2.0, D, 0);
    EXPECT_TRUE(holds(D, {{2, 4, 6}, {8, 10, 12}}));
}

TEST(Gemm, ExhaustedMemoryDoesNoHarm) {
    const Guarded A = Guarded(300, 300, 0).randomize(1);
    const Guarded long_a = Guarded(2000, 3, 0).randomize(2);
    Guarded D(300, 300, 0);
    // The blocks of a large product and the gathered columns of a transposed factor can be missed.
    EXPECT_EQ(heap::refuse_each([&] {
                  gemm(A.view, A.view, 1.0, none, 0.0, D.view, GEMM_TRANSPOSE_A);
                  EXPECT_TRUE(
                      is_product(D.view, A.view, A.view, 1.0, none, 0.0, GEMM_TRANSPOSE_A, 1e-14));
              }),
              1);
    EXPECT_EQ(heap::refuse_each([&] {
                  Mat<float> product;
                  gemm(long_a.view, long_a.view, 1.0, none, 0.0, product, GEMM_TRANSPOSE_A);
                  EXPECT_TRUE(product.data == nullptr ||
                              is_product(product, long_a.view, long_a.view, 1.0, none, 0.0,
                                         GEMM_TRANSPOSE_A, 1e-14));
              }),
              2);
    // A result that lies on a factor cannot be formed in place: the factor stays.
    Guarded square = Guarded(20, 20, 0).randomize(3);
    const Guarded old = square;
    heap::refuse_after(0);
    gemm(square.view, square.view, 1.0, none, 0.0, square.view, 0);
    EXPECT_TRUE(heap::refused());
    EXPECT_EQ(square.view.at(19, 0), old.view.at(19, 0));
}

}  // namespace
