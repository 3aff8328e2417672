#include "motion/affine_fit.h"

#include <gtest/gtest.h>

#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

TEST(FitAffine, RecoversMotionsExactlyAndFromErrorsThatCancel) {
    const Affine motions[] = {{1.01F, -0.02F, 3.0F, 0.02F, 0.99F, -1.5F},
                              {0.5F, 1.5F, -300.0F, -2.0F, 0.25F, 900.0F}};
    for (const Affine& affine : motions) {
        for (const int n : {3, 6, 500}) {
            SCOPED_TRACE(testing::Message() << "c = " << affine[2] << ", " << n << " pairs");
            std::vector<KeyPoint> src;
            std::vector<KeyPoint> dst;
            for (const float error : {0.0F, 4.0F, -4.0F}) {
                for (const KeyPoint& p : spread_points(n)) {
                    src.push_back(p);
                    dst.push_back(move_point(affine, {p.x + error, p.y - error, 0, 0}));
                }
                if (error != 4.0F) {
                    std::vector<KeyPoint> from = src;
                    std::vector<KeyPoint> to = dst;
                    Mat<float> motion(3, 3);
                    fitAffine(motion, from, to);
                    EXPECT_TRUE(is_motion(motion, affine, 2e-5F, 2e-2F));
                }
            }
        }
    }
}

TEST(FitAffine, LastRowIsExactForPointsThatDetermineNoMotion) {
    std::vector<KeyPoint> src(6, KeyPoint{3, 4, 0, 0});
    std::vector<KeyPoint> dst = src;
    Mat<float> motion(3, 3);
    fitAffine(motion, src, dst);
    EXPECT_TRUE(motion.at(2, 0) == 0 && motion.at(2, 1) == 0 && motion.at(2, 2) == 1);
}

}  // namespace
}  // namespace videostabilizer
