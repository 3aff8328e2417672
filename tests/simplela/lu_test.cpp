// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/lu.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "tests/simplela/matrices.h"
#include "tests/support/log_capture.h"

namespace {

using namespace SimpleLA;
using namespace test_matrices;

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
        {"least squares", {{2, 0}, {0, 4}, {0, 0}}, {{1}, {2}, {9}}, {{0.5F}, {0.5F}}, 1},
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
