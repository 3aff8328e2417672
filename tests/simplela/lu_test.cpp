#include "videostabilizer/lu.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "simplela/mat_util.h"
#include "tests/simplela/matrices.h"
#include "tests/support/log_capture.h"

namespace {

using SimpleLA::invert;
using SimpleLA::LU;
using SimpleLA::solveLuNormal;
using test_matrices::elements;
using test_matrices::Guarded;
using test_matrices::holds;
using test_matrices::is_product;
using test_matrices::Mat;
using test_matrices::near;
using test_matrices::Rows;

int decompose(Mat<float>& A, Mat<float>& b) {
    return LU(A.data, static_cast<unsigned>(A.step), A.rows, b.data, static_cast<unsigned>(b.step),
              b.cols);
}

testing::AssertionResult solves(const Mat<float>& A, const Mat<float>& x, const Mat<float>& b) {
    return is_product(b, elements(A), elements(x), A.cols, 2e-6);
}

// Random, but well away from singular.
Guarded regular(int rows, int cols, int gap) {
    Guarded A = Guarded(rows, cols, gap).randomize(static_cast<unsigned>(rows));
    for (int i = 0; i < cols; ++i) {
        A.view.at(i, i) += 3.0F;
    }
    return A;
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

TEST(Lu, SolvesRandomSystemsOfEveryOrder) {
    for (int order = 1; order <= 40; ++order) {
        SCOPED_TRACE(order);
        const Guarded A = Guarded(order, order, order % 3).randomize(static_cast<unsigned>(order));
        const Guarded b = Guarded(order, 3, 1).randomize(99);
        Guarded work = A;
        Guarded x = b;
        ASSERT_NE(decompose(work.view, x.view), 0);
        EXPECT_TRUE(solves(A.view, x.view, b.view));
    }
}

TEST(Invert, GivesTheInverseForEveryOrderInPlaceAndBeside) {
    for (int order = 1; order <= 20; ++order) {
        SCOPED_TRACE(order);
        const Guarded src = regular(order, order, 2);
        Guarded identity(order, order, 0);
        SimpleLA::set_identity(identity.view);
        Guarded beside(order, order, 3);
        ASSERT_EQ(invert(src.view, beside.view), 1);
        EXPECT_TRUE(solves(src.view, beside.view, identity.view));
        EXPECT_TRUE(order > 3 || beside.guards_intact());  // the LU form clears gaps

        Guarded in_place = src;
        ASSERT_EQ(invert(in_place.view, in_place.view), 1);
        EXPECT_TRUE(near(in_place.view, beside.view));
    }
}

TEST(Invert, SingularOrImpossibleMatricesGiveZeros) {
    const struct {
        Rows rows;
        int result;
    } cases[] = {
        {{{0}}, 0},
        {{{1, 2}, {2, 4}}, 0},
        {{{1, 2, 3}, {4, 5, 6}, {5, 7, 9}}, 0},
        {{{1e-6F, 0, 0}, {0, 1e-6F, 0}, {0, 0, 1e-6F}}, 1},  // tiny but not singular
        {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1e-8F}}, 0},
        {{{1, 2, 3}, {4, 5, 6}}, 0},
    };
    for (const auto& [rows, result] : cases) {
        SCOPED_TRACE(testing::Message() << "order " << rows.size());
        const Guarded src(rows, 0);
        Mat<float> dst(7, 7);
        EXPECT_EQ(invert(src.view, dst), result);
        const Mat<float> zeros(src.view.cols, src.view.cols);
        std::fill_n(zeros.data, zeros.rows * zeros.cols, 0.0F);
        EXPECT_EQ(near(dst, zeros), result == 0);
    }
}

TEST(Solve, SquareSystemsAreSolvedAsTheyAre) {
    // Its normal matrix would be singular in single precision.
    const Guarded A({{1, 1}, {1, 1.0001F}}, 1);
    const Guarded b({{3, 1}, {3, 1}}, 2);
    Guarded beside(2, 2, 2);
    EXPECT_EQ(solveLuNormal(A.view, b.view, beside.view), 1);
    Guarded on_b = b;
    EXPECT_EQ(solveLuNormal(A.view, on_b.view, on_b.view), 1);
    Guarded on_A = A;
    EXPECT_EQ(solveLuNormal(on_A.view, b.view, on_A.view), 1);
    for (const Guarded* x : {&beside, &on_b, &on_A}) {
        EXPECT_TRUE(holds(x->view, {{3, 1}, {0, 0}}, 1e-3F));
        EXPECT_TRUE(x->guards_intact());
    }
}

TEST(Solve, OverDeterminedSystemsAreSolvedInTheLeastSquaresSense) {
    const int shapes[][2] = {{10, 2}, {12, 6}, {4000, 6}, {13, 12}, {60, 30}, {12000, 3}};
    for (const auto& [rows, unknowns] : shapes) {
        SCOPED_TRACE(testing::Message() << rows << " x " << unknowns);
        const Guarded A = regular(rows, unknowns, 1);
        const Guarded b = Guarded(rows, 2, 0).randomize(2);
        Mat<float> x;
        ASSERT_EQ(solveLuNormal(A.view, b.view, x), 1);
        // What is left over is orthogonal to every column of A.
        const auto left_over = [&](int i, int j) {
            double left = -static_cast<double>(b.view.at(i, j));
            for (int k = 0; k < A.view.cols; ++k) {
                left += static_cast<double>(A.view.at(i, k)) * static_cast<double>(x.at(k, j));
            }
            return left;
        };
        Guarded slope(unknowns, 2, 0);
        std::fill_n(slope.view.data, 2 * unknowns, 0.0F);
        EXPECT_TRUE(is_product(slope.view, elements(A.view, true), left_over, rows, 1e-6));

        Mat<float> own(rows, 2);  // x that is b, and changes its shape
        SimpleLA::copy_elements(b.view, own);
        ASSERT_EQ(solveLuNormal(A.view, own, own), 1);
        EXPECT_TRUE(near(own, x));
    }
}

TEST(Solve, WhatCannotBeSolvedGivesZerosOrALogLine) {
    const struct {
        const char* name;
        Rows A, b;
    } cases[] = {
        {"identical columns", {{1, 1}, {2, 2}, {3, 3}}, {{1}, {2}, {4}}},
        {"singular square", {{1, 2}, {2, 4}}, {{1}, {1}}},
        {"too few right-hand sides", {{1, 0}, {0, 1}, {1, 1}}, {{1}, {1}}},
    };
    test_support::clear_log();
    Mat<float> x;
    for (const auto& c : cases) {
        EXPECT_EQ(solveLuNormal(Guarded(c.A, 1).view, Guarded(c.b, 1).view, x), 0) << c.name;
        EXPECT_TRUE(holds(x, {{0}, {0}})) << c.name;
    }
    EXPECT_TRUE(test_support::log_lines().empty());
    EXPECT_EQ(solveLuNormal(Guarded(2, 3, 0).view, Guarded(2, 1, 0).view, x), 0);
    EXPECT_TRUE(x.rows == 3 && x.cols == 1);
    const std::vector<test_support::LogLine> under_determined = {
        {6, "log_utils", "The function can not solve under-determined linear systems"}};
    EXPECT_TRUE(test_support::log_lines() == under_determined);
}

}  // namespace
