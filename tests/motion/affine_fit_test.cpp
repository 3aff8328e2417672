#include "motion/affine_fit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

std::vector<KeyPoint> move_all(const Affine& affine, std::vector<KeyPoint> points) {
    for (KeyPoint& p : points) {
        p = move_point(affine, p);
    }
    return points;
}

void expect_normalised(const std::vector<KeyPoint>& points) {
    double x = 0;
    double y = 0;
    double distance = 0;
    for (std::size_t i = 0; i < points.size(); ++i) {
        x += static_cast<double>(points[i].x);
        y += static_cast<double>(points[i].y);
        distance += static_cast<double>(std::hypot(points[i].x, points[i].y));
        EXPECT_EQ(points[i].response, static_cast<float>(i));
        EXPECT_EQ(points[i].reserved, i);
    }
    const double n = static_cast<double>(points.size());
    EXPECT_NEAR(x / n, 0, 1e-5);
    EXPECT_NEAR(y / n, 0, 1e-5);
    EXPECT_NEAR(distance / n, std::sqrt(2.0), 1e-5);
}

TEST(FitAffine, RecoversExactMotionsAndLeavesNormalisedPoints) {
    const Affine motions[] = {
        IDENTITY,
        {1, 0, 12.5F, 0, 1, -7.25F},
        {1.01F, -0.02F, 3.0F, 0.02F, 0.99F, -1.5F},
        {0.5F, 1.5F, -300.0F, -2.0F, 0.25F, 900.0F},
    };
    for (const Affine& affine : motions) {
        for (const int n : {3, 6, 500}) {
            SCOPED_TRACE(testing::Message() << "c = " << affine[2] << ", " << n << " pairs");
            std::vector<KeyPoint> src = spread_points(n);
            std::vector<KeyPoint> dst = move_all(affine, src);
            Mat<float> motion(3, 3);
            fitAffine(motion, src, dst);
            EXPECT_TRUE(is_motion(motion, affine, 2e-5F, 2e-2F));
            expect_normalised(src);
            expect_normalised(dst);
        }
    }
}

// Errors of opposite sign at the same place cancel in a least-squares fit.
TEST(FitAffine, AveragesErrorsWhateverTheOrderOfThePairs) {
    const Affine affine = {1.01F, -0.02F, 3.0F, 0.02F, 0.99F, -1.5F};
    std::vector<KeyPoint> src = spread_points(20);
    src.insert(src.end(), src.begin(), src.end());
    std::vector<KeyPoint> dst = move_all(affine, src);
    for (std::size_t i = 0; i < dst.size(); ++i) {
        const float error = i < 20 ? 4.0F : -4.0F;
        dst[i].x += error;
        dst[i].y -= error;
    }
    for (const bool reversed : {false, true}) {
        std::vector<KeyPoint> from = src;
        std::vector<KeyPoint> to = dst;
        if (reversed) {
            std::reverse(from.begin(), from.end());
            std::reverse(to.begin(), to.end());
        }
        Mat<float> motion(3, 3);
        fitAffine(motion, from, to);
        EXPECT_TRUE(is_motion(motion, affine, 2e-5F, 2e-2F)) << reversed;
    }
}

TEST(FitAffine, LastRowIsExactForPointsThatDetermineNoMotion) {
    const std::vector<KeyPoint> line = {{0, 0, 0, 0}, {1, 2, 0, 0}, {2, 4, 0, 0}, {5, 10, 0, 0}};
    const std::vector<KeyPoint> spot(6, KeyPoint{3, 4, 0, 0});
    const std::vector<KeyPoint> sets[] = {{}, {{1, 2, 0, 0}, {5, 1, 0, 0}}, line, spot};
    for (const std::vector<KeyPoint>& set : sets) {
        std::vector<KeyPoint> src = set;
        std::vector<KeyPoint> dst = set;
        Mat<float> motion(3, 3);
        fitAffine(motion, src, dst);
        EXPECT_EQ(motion.at(2, 0), 0.0F);
        EXPECT_EQ(motion.at(2, 1), 0.0F);
        EXPECT_EQ(motion.at(2, 2), 1.0F);
    }
}

}  // namespace
}  // namespace videostabilizer
