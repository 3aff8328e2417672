#include "videostabilizer/gaussian_motion_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

struct FilterDeleter {
    void operator()(GaussianMotionFilter* filter) const { gaussian_motion_filter_delete(filter); }
};
using FilterPtr = std::unique_ptr<GaussianMotionFilter, FilterDeleter>;

FilterPtr make_filter(int radius, float stdev) {
    return FilterPtr(gaussian_motion_filter_create(radius, stdev));
}

TEST(GaussianMotionFilter, WeightsAreANormalisedGaussian) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        int radius;
        float stdev;
        double variance;  // wanted
    } cases[] = {{10, -1.0F, 10}, {3, 2.5F, 6.25}, {1, 2.5F, 6.25}, {4, 0, 4}, {9, nan, 9}};
    const FilterPtr filter = make_filter(2, 1.0F);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "radius " << c.radius << ", stdev " << c.stdev);
        gaussian_motion_filter_set_params(filter.get(), c.radius, c.stdev);
        EXPECT_EQ(filter->radius, c.radius);
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
    // The table of the stabilizer's own filter.
    const FilterPtr own = make_filter(10, -1.0F);
    EXPECT_NEAR(own->weights[10], 0.17841F, 1e-5F);
    EXPECT_NEAR(own->weights[9], 0.16143F, 1e-5F);
    EXPECT_NEAR(own->weights[20], 8.1e-6F, 1e-7F);
}

TEST(GaussianMotionFilter, AveragesTheTransformsOverItsSpan) {
    const History still(std::vector<Affine>(64, IDENTITY));
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
        {"still camera", still, 10, 50, 0, 60, 1, 0, 1e-6F},
        {"full span stops one frame short", panning, 10, 50, 0, 60, 1, -8.1e-5F, 2e-6F},
        {"later frames do not count", panning, 10, 50, 0, 64, 1, -8.1e-5F, 2e-6F},
        {"start of the stream", panning, 10, 0, 0, 10, 1, 1.488F, 1e-3F},
        {"only the frame before", panning, 1, 50, 0, 50, 1, -1, 1e-6F},
        {"the frame before and itself", panning, 1, 50, 0, 60, 1, -e / (1 + e), 1e-6F},
        {"both directions of a zoom", zooming, 1, 5, 0, 60, (0.5F * e + 1) / (1 + e), 0, 1e-6F},
        {"cut at first", panning, 10, 50, 50, 51, 1, 0, 1e-6F},
        {"no frames yet", panning, 10, 0, 0, 0, 1, 0, 0},
        {"span before first", panning, 10, 5, 40, 60, 1, 0, 0},
        {"NaN weights", panning, 0, 5, 0, 60, 1, 0, 0},
        {"negative radius", panning, -3, 5, 0, 60, 1, 0, 0},
    };
    std::vector<MotionLog> no_logs;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const FilterPtr filter = make_filter(c.radius, -1.0F);
        std::vector<Mat<float>*> motions = c.history.motions;
        Mat<float> out(3, 3);
        std::fill_n(out.data, 9, 7.0F);
        gaussian_motion_filter_stabilize(filter.get(), out, c.idx, motions, no_logs, c.first,
                                         c.last);
        EXPECT_TRUE(is_motion(out, {c.zoom, 0, c.shift, 0, c.zoom, 0}, 1e-6F, c.tolerance));
    }
}

}  // namespace
}  // namespace videostabilizer
