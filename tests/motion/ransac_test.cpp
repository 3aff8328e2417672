#include "videostabilizer/ransac.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

#include "motion/ransac_variants.h"
#include "tests/motion/test_support.h"
#include "tests/support/log_capture.h"

namespace {

// The generator that the library draws from in this program: the numbers of the script, then a
// fixed pseudo-random sequence. Deliberately unprotected, as the real one is.
std::vector<long> script;
std::size_t draws = 0;
int seedings = 0;
std::minstd_rand unscripted;

void restart_generator(std::vector<long> first_numbers) {
    script = std::move(first_numbers);
    draws = 0;
    seedings = 0;
    unscripted.seed(1);
}

}  // namespace

extern "C" void srand48(long /*seed*/) noexcept {
    ++seedings;
}

extern "C" long lrand48() noexcept {
    const std::size_t i = draws++;
    return i < script.size() ? script[i] : static_cast<long>(unscripted());
}

namespace videostabilizer {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr RansacParams PARAMS = {6, 2.0F, 0.5F, 0.99F, 293};
constexpr Affine CAMERA = {1.01F, -0.02F, 3.0F, 0.02F, 0.99F, -1.5F};
constexpr char TOO_FEW_INLIERS[] = "ninliersMax < npoints * 2/5 !!";
constexpr float RATIO = 0.75F;

struct Estimate {
    Mat<float> motion = Mat<float>(3, 3);
    MotionLog log = {-5, -5, RATIO, -5};
};

Estimate estimate(std::vector<KeyPoint> src, std::vector<KeyPoint> dst, int niters = 293) {
    const std::vector<KeyPoint> inputs[] = {src, dst};
    RansacParams params = PARAMS;
    params.niters = niters;
    Estimate result;
    test_support::clear_log();
    estimateGlobalMotionRansac(result.motion, result.log, src, dst, params);
    const std::size_t bytes = src.size() * sizeof(KeyPoint);
    EXPECT_EQ(0, std::memcmp(src.data(), inputs[0].data(), bytes));
    EXPECT_EQ(0, std::memcmp(dst.data(), inputs[1].data(), bytes));
    return result;
}

std::array<std::uint32_t, 9> bits(const Mat<float>& motion) {
    std::array<std::uint32_t, 9> result;
    std::memcpy(result.data(), motion.data, sizeof result);
    return result;
}

// The points moved with the camera, but for the last `outliers` ones, which go their own ways.
std::vector<KeyPoint> moved(const std::vector<KeyPoint>& src, int outliers) {
    std::mt19937 generator(2);
    std::vector<KeyPoint> dst;
    for (const KeyPoint& p : src) {
        dst.push_back(move_point(CAMERA, p));
        if (dst.size() + static_cast<std::size_t>(outliers) > src.size()) {
            dst.back().x = static_cast<float>(generator() % 1920);
            dst.back().y = static_cast<float>(generator() % 1080);
        }
    }
    return dst;
}

void expect_failure(const Estimate& e, int npoints, int ninliers, const char* message) {
    EXPECT_TRUE(is_motion(e.motion, IDENTITY, 0, 0));
    EXPECT_EQ(e.log.npoints, npoints);
    EXPECT_EQ(e.log.ninliers, ninliers);
    EXPECT_EQ(e.log.track_ratio, 0.0F);
    EXPECT_EQ(e.log.status, 1);
    EXPECT_THAT(test_support::log_lines(),
                ElementsAre(test_support::LogLine{5, "global_motion", message}));
}

TEST(Ransac, FindsTheCameraMotionAmongOutliers) {
    const struct {
        int n, outliers;
        bool success;
    } cases[] = {
        {12, 3, true},  {12, 6, false},                                      // 7 inliers needed
        {23, 7, true},  {23, 11, false},                                     // 13
        {24, 8, true},  {24, 16, false},                                     // 9
        {100, 0, true}, {100, 30, true}, {100, 50, true}, {100, 61, false},  // 40
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.n << " pairs, " << c.outliers << " outliers");
        restart_generator({});
        const std::vector<KeyPoint> src = spread_points(c.n);
        const Estimate e = estimate(src, moved(src, c.outliers));
        EXPECT_EQ(seedings, 1);
        if (c.success) {
            EXPECT_TRUE(is_motion(e.motion, CAMERA, 2e-5F, 2e-2F));
            EXPECT_EQ(e.log.npoints, c.n);
            EXPECT_EQ(e.log.ninliers, c.n - c.outliers);
            EXPECT_EQ(e.log.track_ratio, RATIO);
            EXPECT_EQ(e.log.status, 0);
            EXPECT_THAT(test_support::log_lines(), IsEmpty());
        } else {
            EXPECT_LE(e.log.ninliers, c.n - c.outliers);
            expect_failure(e, c.n, e.log.ninliers, TOO_FEW_INLIERS);
        }
    }
}

// One exact sample is drawn, and the last pair is off by a known error.
TEST(Ransac, ErrorBoundsDependOnTheNumberOfPairs) {
    const struct {
        int n;
        float ex, ey;  // pixels
        bool inlier;
    } cases[] = {
        {24, -2.9F, -1.9F, true},  {24, 3.1F, 0, false}, {24, 0, -2.1F, false},
        {23, 1.35F, -1.35F, true}, {23, 1.5F, 0, false}, {12, 0, -1.5F, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.n << " pairs, off by " << c.ex << ", " << c.ey);
        restart_generator({0, 1, 2, 3, 4, 5});
        const std::vector<KeyPoint> src = spread_points(c.n);
        std::vector<KeyPoint> dst = src;
        dst.back().x += c.ex;
        dst.back().y += c.ey;
        EXPECT_EQ(estimate(src, dst, 1).log.ninliers, c.inlier ? c.n : c.n - 1);
    }
}

TEST(Ransac, DrawsWithoutRepetitionAndStopsAtAGoodModel) {
    restart_generator({7, 7, 107, 3, 7, 3, 0, 99, 50, 20});  // 107 is 7 again, of 100 pairs
    const std::vector<KeyPoint> src = spread_points(100);
    EXPECT_EQ(estimate(src, moved(src, 0)).log.ninliers, 100);
    EXPECT_EQ(draws, 10U);
    // 75 inliers of 100 are not enough to stop, 76 are.
    for (const int outliers : {25, 24}) {
        restart_generator({0, 1, 2, 3, 4, 5});
        EXPECT_EQ(estimate(src, moved(src, outliers)).log.ninliers, 100 - outliers);
        EXPECT_EQ(draws == 6, outliers == 24) << outliers;
    }
}

TEST(Ransac, GivesTheIdentityWhereNothingCanBeEstimated) {
    std::vector<KeyPoint> points = spread_points(100);
    std::vector<KeyPoint> eleven = spread_points(11);
    std::vector<KeyPoint> spot(100, KeyPoint{3, 4, 0, 0});
    std::vector<KeyPoint> lost(100, KeyPoint{NAN, NAN, 0, 0});
    const struct {
        std::vector<KeyPoint>& src;
        std::vector<KeyPoint>& dst;
        RansacParams params;
        int npoints, ninliers;
        const char* message;
    } cases[] = {
        {points, eleven, PARAMS, 11, 0, "npoints(11) < params.size(6) !!"},
        {eleven,
         eleven,
         {2000000000, 2, 0, 0, 293},
         11,
         0,  // twice that is beyond an int
         "npoints(11) < params.size(2000000000) !!"},
        {points, points, {2, 2, 0, 0, 293}, 100, 0, "params.size(2) < 3 !!"},
        {points, points, {6, 2, 0, 0, 0}, 100, -1, TOO_FEW_INLIERS},
        {spot, spot, PARAMS, 100, 0, TOO_FEW_INLIERS},
        {points, lost, PARAMS, 100, 0, TOO_FEW_INLIERS},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        restart_generator({});
        test_support::clear_log();
        Estimate e;
        estimateGlobalMotionRansac(e.motion, e.log, c.src, c.dst, c.params);
        expect_failure(e, c.npoints, c.ninliers, c.message);
    }
}

// Few pairs and many, sizes of samples and vectors that do not divide each other, pairs that a
// model hardly fits, that repeat, that lie on a line or that are no numbers: the same
// motion bit for bit.
TEST(Ransac, VariantsEstimateWhatTheMatricesDo) {
    std::mt19937 generator(9);
    int estimated = 0;
    int samples_to_the_end = 0;
    for (int i = 0; i < 400; ++i) {
        const int n = i % 3 == 0 ? 12 + i % 50 : 12 + static_cast<int>(generator() % 300);
        const RansacParams params = {i % 5 == 0 ? 3 + i % 7 : 6, 2.0F, 0.5F, 0.99F,
                                     i % 11 == 0 ? 1 + i % 40 : 293};
        std::vector<KeyPoint> src = spread_points(n);
        std::vector<KeyPoint> dst = moved(src, n * (i % 7) / 10);
        for (int k = 0; k < n; ++k) {
            KeyPoint& from = src[static_cast<std::size_t>(k)];
            KeyPoint& to = dst[static_cast<std::size_t>(k)];
            const bool every_second = k % 2 == 0;
            switch (i % 8) {
                case 0:  // noise of tracked positions
                    to.x += static_cast<float>(generator() % 100) / 40.0F;
                    to.y -= static_cast<float>(generator() % 100) / 40.0F;
                    break;
                case 1:
                    from = every_second ? src[0] : from;
                    break;
                case 2:
                    from.y = from.x * 0.5F + 1.0F;
                    break;
                case 3:
                    to.x = k % 9 == 0 ? NAN : to.x;
                    from.y = k % 14 == 0 ? INFINITY : from.y;
                    break;
                case 4:
                    to = every_second ? dst[0] : to;
                    break;
                case 5:
                    from.x = to.x = every_second ? 0.0F : -0.0F;
                    break;
                case 6:
                    from.x *= 1e20F;
                    to.y *= every_second ? 1e-30F : 1e19F;
                    break;
                default:
                    break;
            }
        }
        Estimate expected;
        for (const EstimateVariant& variant : estimate_variants) {
            if (!cpu_supports(variant.level)) {
                continue;
            }
            restart_generator({});
            Estimate e;
            estimate_motion(variant, e.motion, e.log, src, dst, params);
            if (&variant == estimate_variants) {
                expected.log = e.log;
                std::copy_n(e.motion.data, 9, expected.motion.data);
                estimated += static_cast<int>(e.log.status == 0);
                samples_to_the_end +=
                    static_cast<int>(static_cast<int>(draws) >= params.niters * params.size);
            }
            EXPECT_EQ(bits(e.motion), bits(expected.motion))
                << variant.name << ", case " << i << ", " << n << " pairs";
            EXPECT_EQ(e.log.ninliers, expected.log.ninliers) << variant.name << ", case " << i;
            EXPECT_EQ(e.log.status, expected.log.status) << variant.name << ", case " << i;
        }
    }
    EXPECT_GT(estimated, 100);
    EXPECT_GT(samples_to_the_end, 100);
}

// The generator above would show a race, and tear, without the estimator's own lock.
TEST(Ransac, ConcurrentEstimatesShareTheGenerator) {
    restart_generator({});
    std::thread threads[4];
    for (std::thread& thread : threads) {
        thread = std::thread([] {
            std::vector<KeyPoint> src = spread_points(100);
            std::vector<KeyPoint> dst = moved(src, 30);
            Estimate e;
            estimateGlobalMotionRansac(e.motion, e.log, src, dst, PARAMS);
            EXPECT_EQ(e.log.ninliers, 70);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(seedings, 4);
}

}  // namespace
}  // namespace videostabilizer
