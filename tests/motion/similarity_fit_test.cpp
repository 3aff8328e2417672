#include "motion/similarity_fit.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <string>

#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

// The affine estimate tolerates three pixels, so what moves by less is taken for background there.
TEST(SimilarityFit, FindsTheCameraAmongWhatMovesByItself) {
    const PictureCentre centre = picture_centre(1920, 1080);
    const CameraPose truth = {6, -4, 0.01, 0.005};
    float motion[9];
    motion_of_pose(truth, centre, motion);
    const Affine affine = {motion[0], motion[1], motion[2], motion[3], motion[4], motion[5]};
    std::mt19937 generator(5);
    const struct {
        const char* name;
        int outliers;  // of 100
        float shift;   // of these, pixels
    } cases[] = {{"clean", 0, 0}, {"slow object", 35, 5}, {"fast object", 40, 30}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<KeyPoint> from = spread_points(100);
        std::vector<KeyPoint> to;
        for (const KeyPoint& point : from) {
            KeyPoint moved = move_point(affine, point);
            moved.x += static_cast<float>(generator() % 200) / 1000.0F - 0.1F;
            moved.y += static_cast<float>(generator() % 200) / 1000.0F - 0.1F;
            if (static_cast<int>(to.size()) < c.outliers) {
                moved.x += c.shift;
            }
            to.push_back(moved);
        }
        // An estimate between the two movements.
        CameraPose pose = {truth.x - 0.01 * c.outliers * static_cast<double>(c.shift), truth.y,
                           truth.angle, truth.zoom};
        SimilarityFit(centre, 1).refine(from, to, pose);
        EXPECT_NEAR(pose.x, truth.x, 0.15);
        EXPECT_NEAR(pose.y, truth.y, 0.1);
        EXPECT_NEAR(pose.angle, truth.angle, 2e-4);
        EXPECT_NEAR(pose.zoom, truth.zoom, 2e-4);
    }
}

TEST(SimilarityFit, KeepsTheEstimateWhereThePairsSayNothing) {
    const CameraPose before = {1, 2, 0.1, 0.05};
    const std::vector<KeyPoint> same(40, KeyPoint{5, 5, 0, 0});
    for (const std::vector<KeyPoint>& points : {std::vector<KeyPoint>{}, spread_points(3), same}) {
        CameraPose pose = before;
        SimilarityFit(picture_centre(640, 480), 1).refine(points, points, pose);
        EXPECT_EQ(pose.x, before.x);
        EXPECT_EQ(pose.zoom, before.zoom);
    }
}

}  // namespace
}  // namespace videostabilizer
