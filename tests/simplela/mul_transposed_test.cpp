#include <gtest/gtest.h>

#include <cmath>

#include "tests/simplela/matrices.h"
#include "videostabilizer/gemm.h"

namespace {

using SimpleLA::mulTransposed;
using test_matrices::Guarded;
using test_matrices::holds;
using test_matrices::Mat;

const Mat<float>& none = Mat<float>::noMat();

// Element (i, j) of the product by its definition: a sum in double, rounded to float once.
float expected(const Mat<float>& src, bool ata, const Mat<float>& delta, double scale, int i,
               int j) {
    const auto centred = [&](int row, int col) {
        const double value = static_cast<double>(src.at(row, col));
        if (delta.data == nullptr) {
            return value;
        }
        return value -
               static_cast<double>(delta.at(delta.rows == 1 ? 0 : row, delta.cols == 1 ? 0 : col));
    };
    double sum = 0;
    for (int k = 0; k < (ata ? src.rows : src.cols); ++k) {
        sum += ata ? centred(k, i) * centred(k, j) : centred(i, k) * centred(j, k);
    }
    return static_cast<float>(sum * scale);
}

// Compares both triangles with the definition; `ulps` is 0 where the order of the sum is the same.
testing::AssertionResult is_product(const Mat<float>& dst, const Mat<float>& src, bool ata,
                                    const Mat<float>& delta, double scale, float ulps) {
    const int order = ata ? src.cols : src.rows;
    if (dst.rows != order || dst.cols != order) {
        return testing::AssertionFailure() << "shape is " << dst.rows << " x " << dst.cols;
    }
    for (int i = 0; i < order; ++i) {
        for (int j = 0; j < order; ++j) {
            const float wanted = expected(src, ata, delta, scale, i, j);
            const float tolerance = ulps * std::ldexp(std::fabs(wanted), -23);
            if (!(std::fabs(dst.at(i, j) - wanted) <= tolerance) || dst.at(i, j) != dst.at(j, i)) {
                return testing::AssertionFailure()
                       << "(" << i << ", " << j << ") is " << dst.at(i, j) << ", not " << wanted;
            }
        }
    }
    return testing::AssertionSuccess();
}

TEST(MulTransposed, IsTheDoubleSumRoundedOnceWithAndWithoutDelta) {
    const int shapes[][2] = {{2000, 6}, {12, 6}, {3, 4}, {1, 5}, {5, 1}, {9, 11}, {120, 110}};
    for (const auto& [rows, cols] : shapes) {
        const Guarded src = Guarded(rows, cols, 2).randomize(1);
        const Guarded deltas[] = {Guarded(rows, cols, 1).randomize(2),
                                  Guarded(1, cols, 1).randomize(3),
                                  Guarded(rows, 1, 1).randomize(4), Guarded(1, 1, 1).randomize(5)};
        for (const bool ata : {true, false}) {
            if (!ata && rows > 200) {
                continue;  // an order of 2000 is no use of it
            }
            for (int d = -1; d < 4; ++d) {
                SCOPED_TRACE(testing::Message()
                             << rows << " x " << cols << ", ata " << ata << ", delta " << d);
                const Mat<float>& delta = d < 0 ? none : deltas[d].view;
                const bool by_gemm = d < 0 && rows > 99 && cols > 99;
                Guarded dst(ata ? cols : rows, ata ? cols : rows, 3);
                mulTransposed(src.view, dst.view, ata, delta, 0.7);
                EXPECT_TRUE(is_product(dst.view, src.view, ata, delta, 0.7, by_gemm ? 1.0F : 0.0F));
                EXPECT_TRUE(dst.guards_intact());
            }
        }
    }
}

TEST(MulTransposed, ResultMayLieOnItsOperands) {
    for (const bool ata : {true, false}) {
        const Guarded src = Guarded(5, 5, 1).randomize(1);
        const Guarded delta = Guarded(5, 5, 1).randomize(2);
        Guarded dst = src;
        mulTransposed(dst.view, dst.view, ata, none, 0.3);
        EXPECT_TRUE(is_product(dst.view, src.view, ata, none, 0.3, 1.0F));
        dst = src;
        mulTransposed(dst.view, dst.view, ata, delta.view, 0.3);
        EXPECT_TRUE(is_product(dst.view, src.view, ata, delta.view, 0.3, 0.0F));
        EXPECT_TRUE(dst.guards_intact());
        dst = delta;
        mulTransposed(src.view, dst.view, ata, dst.view, 0.3);
        EXPECT_TRUE(is_product(dst.view, src.view, ata, delta.view, 0.3, 0.0F));

        Mat<float> row(1, 3);  // grows to 3 x 3, or shrinks to 1 x 1
        transpose(Guarded({{1, 2, 3}}, 0).view, row);
        mulTransposed(row, row, ata, none, 1.0);
        EXPECT_TRUE(ata ? holds(row, {{1, 2, 3}, {2, 4, 6}, {3, 6, 9}}) : holds(row, {{14}}));
    }
}

TEST(MulTransposed, OfNothingIsZeroOrEmpty) {
    Mat<float> dst;
    mulTransposed(none, dst, true, none, 1.0);
    EXPECT_EQ(dst.rows, 0);
    mulTransposed(Mat<float>(0, 2, nullptr, 8), dst, true, none, 1.0);
    EXPECT_TRUE(holds(dst, {{0, 0}, {0, 0}}));
}

}  // namespace
