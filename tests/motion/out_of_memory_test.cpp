#include <gtest/gtest.h>

#include <memory>

#include "tests/motion/failing_allocator.h"
#include "tests/motion/test_support.h"
#include "tests/support/log_capture.h"
#include "videostabilizer/gaussian_motion_filter.h"
#include "videostabilizer/motion_path.h"
#include "videostabilizer/ransac.h"

namespace videostabilizer {
namespace {

// Runs `call` with its first allocation failing, then its second, and so on until it needs no more.
// Returns how many allocations failed; `failed` checks what the call left behind each time.
template <typename Call, typename Check>
int fail_each_allocation(const Call& call, const Check& failed) {
    for (int n = 0;; ++n) {
        test_support::clear_log();
        allocations_left = n;
        call();
        const bool all_succeeded = allocations_left >= 0;
        allocations_left = -1;
        if (all_succeeded) {
            return n;
        }
        SCOPED_TRACE(testing::Message() << "allocation " << n << " failed");
        failed();
    }
}

TEST(OutOfMemory, EstimateIsTheIdentity) {
    std::vector<KeyPoint> points = spread_points(40);
    Mat<float> motion(3, 3);
    MotionLog log{};
    const int failures = fail_each_allocation(
        [&] {
            estimateGlobalMotionRansac(motion, log, points, points, {6, 2, 0, 0, 1});
        },
        [&] {
            EXPECT_TRUE(is_motion(motion, IDENTITY, 0, 0));
            EXPECT_EQ(log.status, 1);
            EXPECT_EQ(test_support::count_log("OUT OF MEMORY!!!"), 1);
        });
    EXPECT_GE(failures, 5);
    EXPECT_EQ(log.status, 0);
}

TEST(OutOfMemory, ComposedMotionIsStillRight) {
    const History history({{1, 0, 1, 0, 1, 0}});
    Mat<float>* m = new_motion(IDENTITY);
    Mat<float>* result = nullptr;
    const auto check = [&] { EXPECT_TRUE(is_motion(*result, {1, 0, 3, 0, 1, 0}, 0, 0)); };
    const int failures =
        fail_each_allocation([&] { m = result = getMotion(m, 0, 3, history.motions); }, check);
    EXPECT_EQ(failures, 1);
    check();
    delete result;
}

TEST(OutOfMemory, FilterIsNotMadeNotChangedOrDoesNotCorrect) {
    GaussianMotionFilter* filter = nullptr;
    const auto expect_log = [] { EXPECT_EQ(test_support::count_log("OUT OF MEMORY!!!"), 1); };
    int failures = fail_each_allocation([&] { filter = gaussian_motion_filter_create(10, -1.0F); },
                                        [&] {
                                            EXPECT_EQ(filter, nullptr);
                                            expect_log();
                                        });
    EXPECT_EQ(failures, 2);

    failures = fail_each_allocation([&] { gaussian_motion_filter_set_params(filter, 20, 3.0F); },
                                    [&] {
                                        EXPECT_EQ(filter->radius, 10);
                                        EXPECT_EQ(filter->weights.size(), 21U);
                                        expect_log();
                                    });
    EXPECT_EQ(failures, 1);

    History history({{1, 0, 1, 0, 1, 0}});
    std::vector<MotionLog> logs;
    Mat<float> out(3, 3);
    test_support::clear_log();
    allocations_left = 0;
    gaussian_motion_filter_stabilize(filter, out, 5, history.motions, logs, 0, 5);
    allocations_left = -1;
    EXPECT_TRUE(is_motion(out, IDENTITY, 0, 0));
    expect_log();
    gaussian_motion_filter_delete(filter);
}

}  // namespace
}  // namespace videostabilizer
