// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/mat.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>

#include "tests/simplela/matrices.h"

namespace {

using namespace SimpleLA;
using namespace test_matrices;

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

}  // namespace
