#include "videostabilizer/mat.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>

#include "simplela/mat_util.h"
#include "tests/simplela/matrices.h"

namespace {

using SimpleLA::completeSymm;
using SimpleLA::transpose;
using test_matrices::Guarded;
using test_matrices::holds;
using test_matrices::Mat;

// AddressSanitizer sees a block that is freed twice or never.
TEST(Mat, CopiesLookAtTheElementsAndMovesHandThemOver) {
    Mat<float> owner(3, 3);
    Mat<float> view = owner;
    EXPECT_TRUE(view.external_data && view.data == owner.data);
    owner = view;  // must not free what it then looks at
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

TEST(Mat, CreateReusesAViewOfTheShapeAndLeavesAnyOtherToItsOwner) {
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

TEST(Transpose, ReachesEveryElementAndNothingElse) {
    const int shapes[][2] = {{3, 5}, {8, 4}, {9, 11}, {1, 6}};
    for (const auto& [rows, cols] : shapes) {
        SCOPED_TRACE(testing::Message() << rows << " x " << cols);
        const Guarded src = Guarded(rows, cols, 3).randomize(1);
        Guarded dst(cols, rows, 2);
        transpose(src.view, dst.view);
        for (int n = 0; n < rows * cols; ++n) {
            EXPECT_EQ(dst.view.at(n % cols, n / cols), src.view.at(n / cols, n % cols));
        }
        EXPECT_TRUE(dst.guards_intact());
    }
}

TEST(Transpose, WorksInPlaceAndCopiesIntoAnyOtherShapeAsFarAsItReaches) {
    Guarded square({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 2);
    transpose(square.view, square.view);
    EXPECT_TRUE(holds(square.view, {{1, 4, 7}, {2, 5, 8}, {3, 6, 9}}));
    EXPECT_TRUE(square.guards_intact());
    const Guarded flat({{1, 2, 3}, {4, 5, 6}}, 0);
    const Mat<float> upright(3, 2, flat.view.data, 8);
    transpose(flat.view, upright);
    EXPECT_TRUE(holds(upright, {{1, 4}, {2, 5}, {3, 6}}));

    Guarded less(1, 2, 4);
    transpose(square.view, less.view);
    EXPECT_TRUE(holds(less.view, {{1, 4}}));
    EXPECT_TRUE(less.guards_intact());
}

TEST(CompleteSymm, CopiesTheChosenTriangle) {
    Guarded upper({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 1);
    Guarded lower = upper;
    completeSymm(upper.view, false);
    EXPECT_TRUE(holds(upper.view, {{1, 2, 3}, {2, 5, 6}, {3, 6, 9}}));
    completeSymm(lower.view, true);
    EXPECT_TRUE(holds(lower.view, {{1, 4, 7}, {4, 5, 8}, {7, 8, 9}}));
    EXPECT_TRUE(upper.guards_intact() && lower.guards_intact());
}

}  // namespace
