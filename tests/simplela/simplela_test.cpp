// SPDX-License-Identifier: Apache-2.0

// Matrices, products, decomposition and solving: ownership, memory, and what is stated of single
// values. That products and solutions are right is shown by fuzz/matrix_fuzz.cpp.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <initializer_list>
#include <utility>
#include <vector>

#include "simplela/mat_util.h"
#include "tests/support/log_capture.h"
#include "videostabilizer/gemm.h"
#include "videostabilizer/lu.h"

namespace {

using namespace SimpleLA;
using Rows = std::initializer_list<std::initializer_list<float>>;

// A matrix with `gap` guard elements behind each row and a row of them before and after, which
// show what was written. (Views of gap 0 are continuous.)
class Guarded {
  public:
    Guarded(int rows, int cols, int gap)
        : width_(cols + gap),
          memory_(static_cast<std::size_t>((rows + 2) * width_), GUARD),
          view(rows, cols, memory_.data() + width_, width_ * static_cast<int>(sizeof(float))) {}
    Guarded(const Rows& values, int gap)
        : Guarded(static_cast<int>(values.size()), static_cast<int>(values.begin()->size()), gap) {
        int i = 0;
        for (const auto& row : values) {
            std::copy(row.begin(), row.end(), view.row(i++));
        }
    }
    Guarded(const Guarded&) = delete;
    Guarded& operator=(const Guarded&) = delete;

    // Whether all guards are left, those of the gaps included unless they were to be cleared.
    bool guards_intact(bool gaps_cleared = false) const {
        const int written = view.rows * (gaps_cleared ? width_ : view.cols);
        return std::count(memory_.begin(), memory_.end(), GUARD) ==
               static_cast<std::ptrdiff_t>(memory_.size()) - written;
    }

  private:
    static constexpr float GUARD = -777.0F;
    int width_;
    std::vector<float> memory_;

  public:
    Mat<float> view;
};

// To the bit, for values that are no NaN.
bool holds(const Mat<float>& m, const Rows& values) {
    const Guarded wanted(values, 0);
    bool same = m.rows == wanted.view.rows && m.cols == wanted.view.cols;
    for (int n = 0; same && n < m.rows * m.cols; ++n) {
        const float value = m.at(n / m.cols, n % m.cols);
        const float expected = wanted.view.at(n / m.cols, n % m.cols);
        same = value == expected && std::signbit(value) == std::signbit(expected);
    }
    return same;
}

// AddressSanitizer detects a block that is freed twice or never.
TEST(Mat, CopiesAreViewsAndMovesPassOwnershipOn) {
    Mat<float> owner(3, 3);
    Mat<float> view;
    view = owner;
    EXPECT_TRUE(view.external_data && view.data == owner.data);
    owner = view;  // must not free what it then refers to
    EXPECT_FALSE(owner.external_data);
    owner = std::move(view);
    EXPECT_FALSE(owner.external_data);

    float* const elements = owner.data;
    Mat<float> heir(std::move(owner));
    EXPECT_EQ(owner.data, nullptr);  // NOLINT(bugprone-use-after-move): what a move leaves
    Mat<float> other(2, 2);
    other = std::move(heir);
    EXPECT_TRUE(!other.external_data && other.data == elements);
    other.create(3, 3);
    EXPECT_EQ(other.data, elements);
    other.create(9, 1);  // as many elements, another shape
    EXPECT_TRUE(other.rows == 9 && other.cols == 1 && other.step == 4);
}

TEST(Mat, CreateReusesAViewOfTheShapeAndReplacesAnyOther) {
    Guarded memory(2, 3, 2);
    Mat<float> m = memory.view;
    m.create(2, 3);
    EXPECT_TRUE(m.external_data && !m.continuous && m.data == memory.view.data && m.step == 20);
    m.create(3, 2);
    EXPECT_TRUE(!m.external_data && m.continuous && m.data != memory.view.data && m.step == 8);
}

TEST(Mat, ImpossibleShapesHaveNoElements) {
    const int shapes[][2] = {{INT_MAX, INT_MAX}, {1, INT_MAX}, {-1, -1}, {-1, 3}};
    for (const auto& shape : shapes) {
        EXPECT_EQ(Mat<float>(shape[0], shape[1]).data, nullptr) << shape[0] << " x " << shape[1];
    }
}

TEST(Transpose, WorksInPlaceAndCopiesWholeRowsIntoAnyOtherShape) {
    const Guarded flat({{1, 2, 3}, {4, 5, 6}}, 0);
    const Mat<float> upright(3, 2, flat.view.data, 8);
    transpose(flat.view, upright);
    EXPECT_TRUE(holds(upright, {{1, 4}, {2, 5}, {3, 6}}));

    const Guarded row({{1, 2, 3, 4, 5, 6}}, 1);
    const struct {
        int rows, cols, gap;
        Rows expected;
    } shapes[] = {
        {1, 6, 0, {{1, 2, 3, 4, 5, 6}}}, {2, 3, 0, {{1, 2, 3}, {4, 5, 6}}}, {1, 2, 4, {{1, 2}}}};
    for (const auto& shape : shapes) {
        Guarded dst(shape.rows, shape.cols, shape.gap);
        transpose(row.view, dst.view);
        EXPECT_TRUE(holds(dst.view, shape.expected));
        EXPECT_TRUE(dst.guards_intact());
    }
}

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

int decompose(Mat<float>& A, Mat<float>& b) {
    return LU(A.data, static_cast<unsigned>(A.step), A.rows, b.data, static_cast<unsigned>(b.step),
              b.cols);
}

TEST(Lu, SwapsReciprocalPivotsAndSignOfSmallSystems) {
    Guarded A({{0, 1}, {1, 0}}, 3);
    Guarded b({{2, 20}, {3, 30}}, 2);
    EXPECT_EQ(decompose(A.view, b.view), -1);
    EXPECT_TRUE(holds(b.view, {{3, 30}, {2, 20}}));
    EXPECT_TRUE(A.guards_intact() && b.guards_intact());
    // Of two candidates alike in size the upper one stays. The diagonal holds the reciprocals.
    Guarded opposite({{2, 1}, {-2, 3}}, 0);
    Guarded x({{4}, {4}}, 0);
    EXPECT_EQ(decompose(opposite.view, x.view), 1);
    EXPECT_TRUE(holds(x.view, {{1}, {2}}));
    EXPECT_TRUE(opposite.view.at(0, 0) == 0.5F && opposite.view.at(1, 1) == 0.25F);
}

TEST(Lu, PivotsBelowTheEpsilonAreSingular) {
    for (const auto& [pivot, result] :
         {std::pair{1.19e-7F, 0}, {0.0F, 0}, {1.1920929e-7F, 1}, {-1.2e-7F, 1}}) {
        Guarded A({{1, 0}, {0, pivot}}, 0);
        EXPECT_EQ(LU(A.view.data, 8, 2, nullptr, 0, 5), result) << pivot;
    }
    EXPECT_EQ(LU(nullptr, 0, 0, nullptr, 0, 0), 1);
}

TEST(Invert, GivesZerosForSingularAndImpossibleMatricesOnly) {
    const struct {
        Rows rows;
        int result;
    } cases[] = {
        {{{0}}, 0},
        {{{4}}, 1},
        {{{1, 2}, {2, 4}}, 0},
        {{{2, 0}, {0, 4}}, 1},
        {{{1, 2, 3}, {4, 5, 6}, {5, 7, 9}}, 0},
        {{{1e-6F, 0, 0}, {0, 1e-6F, 0}, {0, 0, 1e-6F}}, 1},  // tiny but not singular
        {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1e-8F}}, 0},
        {{{0, 0, 0, 1}, {0, 1, 0, 0}, {0, 0, 1, 0}, {1, 0, 0, 0}}, 1},
        {{{1, 2, 3}, {4, 5, 6}}, 0},
    };
    for (const auto& [rows, result] : cases) {
        SCOPED_TRACE(testing::Message() << "order " << rows.size());
        const Guarded src(rows, 0);
        const int order = src.view.cols;
        Mat<float> reshaped(7, 7);
        Guarded given(order, order, 2);
        for (Mat<float>* dst : {&reshaped, &given.view}) {
            EXPECT_EQ(invert(src.view, *dst), result);
            bool zeros = true;
            for (int n = 0; n < order * order; ++n) {
                zeros = zeros && dst->at(n / order, n % order) == 0.0F;
            }
            EXPECT_EQ(zeros, result == 0);
        }
        // Zeros clear the gaps as well, and so does the identity from which the LU form starts.
        EXPECT_TRUE(given.guards_intact(result == 0 || order > 3));
    }
}

TEST(Solve, TellsWhatCannotBeSolved) {
    const struct {
        const char* name;
        Rows A, b, x;
        int result;
    } cases[] = {
        {"square", {{0, 2}, {1, 0}}, {{1}, {3}}, {{3}, {0.5F}}, 1},
        {"identical columns", {{1, 1}, {2, 2}, {3, 3}}, {{1}, {2}, {4}}, {{0}, {0}}, 0},
        {"singular square", {{1, 2}, {2, 4}}, {{1}, {1}}, {{0}, {0}}, 0},
        {"too few right-hand sides", {{1, 0}, {0, 1}, {1, 1}}, {{1}, {1}}, {{0}, {0}}, 0},
    };
    test_support::clear_log();
    Mat<float> x;
    for (const auto& c : cases) {
        EXPECT_EQ(solveLuNormal(Guarded(c.A, 1).view, Guarded(c.b, 1).view, x), c.result) << c.name;
        EXPECT_TRUE(holds(x, c.x)) << c.name;
    }
    EXPECT_TRUE(test_support::log_lines().empty());
    EXPECT_EQ(solveLuNormal(Guarded(2, 3, 0).view, Guarded(2, 1, 0).view, x), 0);
    EXPECT_TRUE(x.rows == 3 && x.cols == 1);
    EXPECT_TRUE(
        (test_support::log_lines() ==
         std::vector<test_support::LogLine>{
             {6, "log_utils", "The function can not solve under-determined linear systems"}}));
}

}  // namespace
