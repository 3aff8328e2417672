#include "videostabilizer/lu.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "tests/simplela/heap.h"
#include "tests/simplela/matrices.h"
#include "tests/support/log_capture.h"

namespace {

using SimpleLA::invert;
using SimpleLA::LU;
using SimpleLA::solveLuNormal;
using test_matrices::all_zero;
using test_matrices::Guarded;
using test_matrices::holds;
using test_matrices::Mat;
using test_matrices::Rows;

int decompose(Mat<float>& A, Mat<float>& b) {
    return LU(A.data, static_cast<unsigned>(A.step), A.rows, b.data, static_cast<unsigned>(b.step),
              b.cols);
}

// Largest |A x - b|, in double.
double residual(const Mat<float>& A, const Mat<float>& x, const Mat<float>& b) {
    double largest = 0;
    for (int i = 0; i < A.rows; ++i) {
        for (int j = 0; j < x.cols; ++j) {
            double difference = -static_cast<double>(b.at(i, j));
            for (int k = 0; k < A.cols; ++k) {
                difference += static_cast<double>(A.at(i, k)) * static_cast<double>(x.at(k, j));
            }
            largest = std::max(largest, std::abs(difference));
        }
    }
    return largest;
}

TEST(Lu, SwapsReciprocalPivotsAndSignOfSmallSystems) {
    const struct {
        const char* name;
        Rows A, b;
        int result;
        Rows x;
        std::initializer_list<float> diagonal;  // reciprocals of the pivots
    } cases[] = {
        {"one swap", {{0, 1}, {1, 0}}, {{2}, {3}}, -1, {{3}, {2}}, {1, 1}},
        {"equal candidates stay", {{2, 1}, {2, 3}}, {{4}, {8}}, 1, {{1}, {2}}, {0.5F, 0.5F}},
        {"opposite candidates stay", {{2, 1}, {-2, 3}}, {{4}, {4}}, 1, {{1}, {2}}, {0.5F, 0.25F}},
        {"two swaps, two columns",
         {{0, 1, 0}, {0, 0, 1}, {1, 0, 0}},
         {{1, 10}, {2, 20}, {3, 30}},
         1,
         {{3, 30}, {1, 10}, {2, 20}},
         {1, 1, 1}},
        {"order 1", {{-4}}, {{2}}, 1, {{-0.5F}}, {-0.25F}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Guarded A(c.A, 3);
        Guarded b(c.b, 2);
        EXPECT_EQ(decompose(A.view, b.view), c.result);
        EXPECT_TRUE(holds(b.view, c.x));
        int i = 0;
        for (const float reciprocal : c.diagonal) {
            EXPECT_EQ(A.view.at(i, i), reciprocal);
            ++i;
        }
        EXPECT_TRUE(A.guards_intact() && b.guards_intact());
    }
}

TEST(Lu, PivotsBelowTheEpsilonAreSingular) {
    for (const auto& [pivot, result] :
         {std::pair{1e-8F, 0}, {1.19e-7F, 0}, {0.0F, 0}, {1.1920929e-7F, 1}, {-1.2e-7F, 1}}) {
        Guarded A({{1, 0}, {0, pivot}}, 0);
        EXPECT_EQ(LU(A.view.data, 8, 2, nullptr, 0, 5), result) << pivot;
    }
    EXPECT_EQ(LU(nullptr, 0, 0, nullptr, 0, 0), 1);
    EXPECT_EQ(LU(nullptr, 0, -1, nullptr, 0, 0), 1);
}

TEST(Lu, SolvesRandomSystemsOfEveryOrder) {
    for (int order = 1; order <= 40; ++order) {
        SCOPED_TRACE(order);
        const Guarded A = Guarded(order, order, order % 3).randomize(static_cast<unsigned>(order));
        const Guarded b = Guarded(order, 3, 1).randomize(99);
        Guarded work = A;
        Guarded x = b;
        ASSERT_NE(decompose(work.view, x.view), 0);
        EXPECT_LT(residual(A.view, x.view, b.view), 1e-4);
    }
}

TEST(Invert, GivesTheInverseForEveryOrderInPlaceAndBeside) {
    for (int order = 1; order <= 20; ++order) {
        SCOPED_TRACE(order);
        Guarded src = Guarded(order, order, 2).randomize(static_cast<unsigned>(order));
        Guarded identity(order, order, 0);
        for (int i = 0; i < order; ++i) {
            for (int j = 0; j < order; ++j) {
                identity.view.at(i, j) = i == j ? 1.0F : 0.0F;
            }
            src.view.at(i, i) += 3.0F;  // well away from singular
        }
        Guarded beside(order, order, 3);
        ASSERT_EQ(invert(src.view, beside.view), 1);
        EXPECT_LT(residual(src.view, beside.view, identity.view), 1e-5);
        EXPECT_TRUE(order > 3 || beside.guards_intact());  // the LU form clears gaps

        Guarded in_place = src;
        ASSERT_EQ(invert(in_place.view, in_place.view), 1);
        for (int i = 0; i < order; ++i) {
            for (int j = 0; j < order; ++j) {
                EXPECT_EQ(in_place.view.at(i, j), beside.view.at(i, j));
            }
        }
    }
}

TEST(Invert, SingularOrImpossibleMatricesGiveZeros) {
    const struct {
        const char* name;
        Rows src;
        int result;
    } cases[] = {
        {"order 1", {{0}}, 0},
        {"order 2", {{1, 2}, {2, 4}}, 0},
        {"order 3", {{1, 2, 3}, {4, 5, 6}, {5, 7, 9}}, 0},
        {"order 3, tiny but not singular", {{1e-6F, 0, 0}, {0, 1e-6F, 0}, {0, 0, 1e-6F}}, 1},
        {"order 4", {{1, 2, 3, 4}, {2, 4, 6, 8}, {0, 1, 0, 1}, {1, 0, 1, 0}}, 0},
        {"order 4, a pivot of 1e-8",
         {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1e-8F}},
         0},
        {"more rows than columns", {{1, 2}, {3, 4}, {5, 6}}, 0},
        {"more columns than rows", {{1, 2, 3}, {4, 5, 6}}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Guarded src(c.src, 0);
        Mat<float> dst(7, 7);
        EXPECT_EQ(invert(src.view, dst), c.result);
        EXPECT_TRUE(dst.rows == src.view.cols && dst.cols == src.view.cols);
        EXPECT_EQ(all_zero(dst), c.result == 0);
    }
    Mat<float> dst;
    EXPECT_EQ(invert(Mat<float>::noMat(), dst), 0);
}

TEST(Solve, SquareSystemsAreSolvedAsTheyAre) {
    // Its normal matrix would be singular in single precision.
    const Guarded A({{1, 1}, {1, 1.0001F}}, 1);
    const Guarded b({{3, 1}, {3, 1}}, 2);
    Guarded x(2, 2, 2);
    EXPECT_EQ(solveLuNormal(A.view, b.view, x.view), 1);
    EXPECT_TRUE(holds(x.view, {{3, 1}, {0, 0}}, 1e-3F));
    Guarded in_place = b;
    EXPECT_EQ(solveLuNormal(A.view, in_place.view, in_place.view), 1);
    EXPECT_TRUE(holds(in_place.view, {{3, 1}, {0, 0}}, 1e-3F));
    Guarded on_matrix = A;
    EXPECT_EQ(solveLuNormal(on_matrix.view, b.view, on_matrix.view), 1);
    EXPECT_TRUE(holds(on_matrix.view, {{3, 1}, {0, 0}}, 1e-3F));
    EXPECT_TRUE(in_place.guards_intact() && on_matrix.guards_intact());
}

TEST(Solve, OverDeterminedSystemsAreSolvedInTheLeastSquaresSense) {
    // The residual of a least-squares solution is orthogonal to every column of A.
    const int shapes[][2] = {{10, 2}, {12, 6}, {4000, 6}, {13, 12}, {60, 30}, {12000, 3}};
    for (const auto& [rows, unknowns] : shapes) {
        SCOPED_TRACE(testing::Message() << rows << " x " << unknowns);
        Guarded A = Guarded(rows, unknowns, 1).randomize(1);
        for (int i = 0; i < unknowns; ++i) {
            A.view.at(i, i) += 3.0F;
        }
        const Guarded b = Guarded(rows, 2, 0).randomize(2);
        Mat<float> x;
        ASSERT_EQ(solveLuNormal(A.view, b.view, x), 1);
        for (int j = 0; j < b.view.cols; ++j) {
            for (int c = 0; c < unknowns; ++c) {
                double slope = 0;
                for (int i = 0; i < rows; ++i) {
                    double left = -static_cast<double>(b.view.at(i, j));
                    for (int k = 0; k < unknowns; ++k) {
                        left +=
                            static_cast<double>(A.view.at(i, k)) * static_cast<double>(x.at(k, j));
                    }
                    slope += left * static_cast<double>(A.view.at(i, c));
                }
                EXPECT_NEAR(slope / std::sqrt(rows), 0.0, 2e-5);
            }
        }
        Mat<float> own(rows, 2);  // x that is b, and changes its shape
        for (int i = 0; i < rows; ++i) {
            std::copy(b.view.row(i), b.view.row(i) + 2, own.row(i));
        }
        ASSERT_EQ(solveLuNormal(A.view, own, own), 1);
        EXPECT_EQ(own.rows, unknowns);
        EXPECT_EQ(own.at(0, 1), x.at(0, 1));
    }
}

TEST(Solve, WhatCannotBeSolvedGivesZerosOrALogLine) {
    const std::vector<test_support::LogLine> under_determined = {
        {6, "log_utils", "The function can not solve under-determined linear systems"}};
    const struct {
        const char* name;
        Rows A, b;
        bool logged;
    } cases[] = {
        {"identical columns", {{1, 1}, {2, 2}, {3, 3}}, {{1}, {2}, {4}}, false},
        {"singular square", {{1, 2}, {2, 4}}, {{1}, {1}}, false},
        {"too few right-hand sides", {{1, 0}, {0, 1}, {1, 1}}, {{1}, {1}}, false},
        {"fewer equations than unknowns", {{1, 2, 3}, {4, 5, 6}}, {{1}, {2}}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test_support::clear_log();
        Mat<float> x;
        EXPECT_EQ(solveLuNormal(Guarded(c.A, 1).view, Guarded(c.b, 1).view, x), 0);
        EXPECT_EQ(x.rows, static_cast<int>(c.A.begin()->size()));
        EXPECT_EQ(x.cols, 1);
        EXPECT_TRUE(c.logged || all_zero(x));
        EXPECT_EQ(test_support::log_lines() == under_determined, c.logged);
    }
}

TEST(Solve, SmallSystemsDoNotTouchTheHeapAndLargeOnesSurviveItsEnd) {
    const Guarded A = Guarded(12, 6, 0).randomize(1);
    const Guarded b = Guarded(12, 1, 0).randomize(2);
    Guarded x(6, 1, 0);
    EXPECT_EQ(heap::refuse_each([&] { solveLuNormal(A.view, b.view, x.view); }), 0);

    const Guarded large_A = Guarded(2000, 20, 0).randomize(3);
    const Guarded large_b = Guarded(2000, 1, 0).randomize(4);
    const int before = heap::live_blocks();
    EXPECT_EQ(heap::refuse_each([&] {
                  Mat<float> solution;
                  if (solveLuNormal(large_A.view, large_b.view, solution) == 0) {
                      EXPECT_TRUE(solution.data == nullptr || all_zero(solution));
                  }
              }),
              2);  // the solution and the normal matrix
    EXPECT_EQ(heap::live_blocks(), before);
}

}  // namespace
