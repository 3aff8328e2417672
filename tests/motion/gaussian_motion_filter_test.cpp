#include "videostabilizer/gaussian_motion_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

using FilterPtr = std::unique_ptr<GaussianMotionFilter, decltype(&gaussian_motion_filter_delete)>;

FilterPtr make_filter(int radius) {
    return {gaussian_motion_filter_create(radius, -1.0F), gaussian_motion_filter_delete};
}

TEST(GaussianMotionFilter, WeightsAreANormalisedGaussian) {
    const struct {
        int radius;
        float stdev;
        double variance;  // wanted
    } cases[] = {{10, -1.0F, 10}, {3, 2.5F, 6.25}, {4, 0, 4}, {9, NAN, 9}};
    const FilterPtr filter = make_filter(2);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "radius " << c.radius << ", stdev " << c.stdev);
        gaussian_motion_filter_set_params(filter.get(), c.radius, c.stdev);
        EXPECT_NEAR(static_cast<double>(filter->sigma), std::sqrt(c.variance), 1e-6);
        ASSERT_EQ(filter->weights.size(), static_cast<std::size_t>(2 * c.radius + 1));
        double sum = 0;
        for (int i = -c.radius; i <= c.radius; ++i) {
            sum += std::exp(-i * i / c.variance);
        }
        for (int i = -c.radius; i <= c.radius; ++i) {
            const double weight = static_cast<double>(filter->weights.data()[c.radius + i]);
            EXPECT_NEAR(weight, std::exp(-i * i / c.variance) / sum, 1e-7);
        }
    }
}

TEST(GaussianMotionFilter, AveragesTheTransformsOverItsSpan) {
    const History panning(std::vector<Affine>(64, Affine{1, 0, 1, 0, 1, 0}));
    const History zooming(std::vector<Affine>(64, Affine{2, 0, 0, 0, 2, 0}));
    // exp(-1) as the weight of the neighbours of a radius-1 filter, relative to the centre.
    const float e = std::exp(-1.0F);
    const struct {
        const char* name;
        const History& history;
        int radius, idx, first, last;
        float zoom, shift;  // wanted
        float tolerance;
    } cases[] = {
        {"full span stops one frame short", panning, 10, 50, 0, 60, 1, -8.1e-5F, 2e-6F},
        {"start of the stream", panning, 10, 0, 0, 10, 1, 1.488F, 1e-3F},
        {"only the frame before", panning, 1, 50, 0, 50, 1, -1, 1e-6F},
        {"the frame before and itself", panning, 1, 50, 0, 60, 1, -e / (1 + e), 1e-6F},
        {"both directions of a zoom", zooming, 1, 5, 0, 60, (0.5F * e + 1) / (1 + e), 0, 1e-6F},
        {"cut at first", panning, 10, 50, 50, 51, 1, 0, 1e-6F},
        {"no frames yet", panning, 10, 0, 0, 0, 1, 0, 0},
        {"NaN weights", panning, 0, 5, 0, 60, 1, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<Mat<float>*> motions = c.history.motions;
        std::vector<MotionLog> no_logs;
        Mat<float> out(3, 3);
        std::fill_n(out.data, 9, 7.0F);
        gaussian_motion_filter_stabilize(make_filter(c.radius).get(), out, c.idx, motions, no_logs,
                                         c.first, c.last);
        EXPECT_TRUE(is_motion(out, {c.zoom, 0, c.shift, 0, c.zoom, 0}, 1e-6F, c.tolerance));
    }
}

}  // namespace
}  // namespace videostabilizer
