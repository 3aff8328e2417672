#include "videostabilizer/mat.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>

#include "simplela/mat_util.h"
#include "tests/simplela/heap.h"
#include "tests/simplela/matrices.h"

namespace {

using SimpleLA::completeSymm;
using SimpleLA::transpose;
using test_matrices::Guarded;
using test_matrices::holds;
using test_matrices::Mat;

TEST(Mat, HeadersOfEachKindSayWhatTheyHold) {
    const Mat<float>& none = Mat<float>::noMat();
    EXPECT_EQ(&none, &Mat<float>::noMat());
    EXPECT_FALSE(none.external_data || none.continuous || none.data != nullptr);
    EXPECT_EQ(none.rows + none.cols + none.step, 0);

    const Mat<float> own(4, 3);
    EXPECT_TRUE(!own.external_data && own.continuous && own.data != nullptr);
    EXPECT_EQ(own.step, 12);

    const Guarded gapped(2, 3, 1);
    EXPECT_TRUE(gapped.view.external_data && !gapped.view.continuous);
    EXPECT_EQ(&gapped.view.at(1, 2), gapped.view.data + 6);
    EXPECT_TRUE(Guarded(2, 3, 0).view.continuous);
}

TEST(Mat, EachBlockIsFreedOnceByItsOwner) {
    const int before = heap::live_blocks();
    {
        Mat<float> owner(3, 3);
        Mat<float> view = owner;
        EXPECT_TRUE(view.external_data);
        EXPECT_EQ(view.data, owner.data);
        EXPECT_EQ(heap::live_blocks(), before + 1);

        owner = view;  // must not free what it then looks at
        EXPECT_FALSE(owner.external_data);
        owner = std::move(view);
        EXPECT_FALSE(owner.external_data);
        EXPECT_EQ(heap::live_blocks(), before + 1);

        Mat<float> heir(std::move(owner));
        EXPECT_EQ(owner.data, nullptr);  // NOLINT(bugprone-use-after-move): what a move leaves
        EXPECT_FALSE(heir.external_data);
        Mat<float> other(2, 2);
        EXPECT_EQ(heap::live_blocks(), before + 2);
        other = std::move(heir);
        EXPECT_EQ(heap::live_blocks(), before + 1);

        float* const kept = other.data;
        other.create(3, 3);
        EXPECT_EQ(other.data, kept);
        other.create(9, 1);  // as many elements, another shape
        EXPECT_TRUE(other.rows == 9 && other.cols == 1 && other.step == 4);
        EXPECT_EQ(heap::live_blocks(), before + 1);
    }
    EXPECT_EQ(heap::live_blocks(), before);
}

TEST(Mat, CreateReusesAViewOfTheShapeAndLeavesAnyOtherToItsOwner) {
    Guarded memory(2, 3, 2);
    Mat<float> m = memory.view;
    m.create(2, 3);
    EXPECT_TRUE(m.external_data && m.data == memory.view.data && m.step == 20);
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
    const int shapes[][2] = {{3, 5}, {8, 4}, {9, 11}, {1, 6}, {6, 1}};
    for (const auto& [rows, cols] : shapes) {
        SCOPED_TRACE(testing::Message() << rows << " x " << cols);
        const Guarded src = Guarded(rows, cols, 3).randomize(1);
        Guarded dst(cols, rows, 2);
        transpose(src.view, dst.view);
        for (int i = 0; i < rows; ++i) {
            for (int j = 0; j < cols; ++j) {
                EXPECT_EQ(dst.view.at(j, i), src.view.at(i, j));
            }
        }
        EXPECT_TRUE(dst.guards_intact());
    }
}

TEST(Transpose, WorksInPlace) {
    Guarded square({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 2);
    transpose(square.view, square.view);
    EXPECT_TRUE(holds(square.view, {{1, 4, 7}, {2, 5, 8}, {3, 6, 9}}));
    EXPECT_TRUE(square.guards_intact());

    const Guarded flat({{1, 2, 3}, {4, 5, 6}}, 0);
    const Mat<float> upright(3, 2, flat.view.data, 8);
    transpose(flat.view, upright);
    EXPECT_TRUE(holds(upright, {{1, 4}, {2, 5}, {3, 6}}));

    const Guarded row({{1, 2, 3, 4, 5, 6}}, 0);
    const Mat<float> column(6, 1, row.view.data, 4);
    transpose(row.view, column);
    EXPECT_TRUE(holds(row.view, {{1, 2, 3, 4, 5, 6}}));
}

TEST(Transpose, CopiesIntoAnyOtherShapeAsFarAsItReaches) {
    const Guarded row({{1, 2, 3, 4, 5, 6}}, 1);
    Guarded same(1, 6, 4);
    transpose(row.view, same.view);
    EXPECT_TRUE(holds(same.view, {{1, 2, 3, 4, 5, 6}}));
    Guarded less(1, 4, 4);
    transpose(row.view, less.view);
    EXPECT_TRUE(holds(less.view, {{1, 2, 3, 4}}));
    EXPECT_TRUE(same.guards_intact() && less.guards_intact());
    transpose(row.view, Mat<float>::noMat());
    transpose(Mat<float>::noMat(), less.view);
    EXPECT_TRUE(holds(less.view, {{1, 2, 3, 4}}));
}

TEST(CompleteSymm, CopiesTheChosenTriangle) {
    Guarded upper({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 1);
    completeSymm(upper.view, false);
    EXPECT_TRUE(holds(upper.view, {{1, 2, 3}, {2, 5, 6}, {3, 6, 9}}));
    Guarded lower({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 1);
    completeSymm(lower.view, true);
    EXPECT_TRUE(holds(lower.view, {{1, 4, 7}, {4, 5, 8}, {7, 8, 9}}));
    EXPECT_TRUE(upper.guards_intact() && lower.guards_intact());
    completeSymm(Mat<float>::noMat(), false);
}

TEST(MatUtil, NothingOutsideACornerOfAMatrixIsWritten) {
    Guarded whole({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}}, 0);
    Mat<float> corner(2, 2, &whole.view.at(1, 1), whole.view.step);
    SimpleLA::set_identity(corner);
    EXPECT_TRUE(holds(corner, {{1, 0}, {0, 1}}));
    EXPECT_TRUE(whole.guards_intact());
    Mat<float> left(3, 1, whole.view.data, whole.view.step);
    SimpleLA::copy_elements(Guarded({{-1}, {-2}, {-3}}, 0).view, left);
    EXPECT_TRUE(holds(left, {{-1}, {-2}, {-3}}));
    EXPECT_EQ(whole.view.at(0, 1), 2.0F);
}

}  // namespace
