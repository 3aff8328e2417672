// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/ransac.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <tuple>

#include "motion/affine_fit.h"
#include "motion/seeded_motion.h"
#include "tests/motion/test_support.h"
#include "tests/support/log_capture.h"

namespace {

// Replaces the C library's generator: the numbers of the script, then a fixed pseudo-random
// sequence. Not thread-safe, like the real one.
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

using Points = std::vector<KeyPoint>;

constexpr RansacParams PARAMS = {6, 2.0F, 0.5F, 0.99F, 293};
constexpr Affine CAMERA = {1.01F, -0.02F, 3.0F, 0.02F, 0.99F, -1.5F};
constexpr char TOO_FEW_INLIERS[] = "ninliersMax < npoints * 2/5 !!";
constexpr float RATIO = 0.75F;

struct Estimate {
    Mat<float> motion = Mat<float>(3, 3);
    MotionLog log = {-5, -5, RATIO, -5};
};

Estimate estimate(Points src, Points dst, const RansacParams& params = PARAMS) {
    const Points inputs[] = {src, dst};
    Estimate result;
    test_support::clear_log();
    estimateGlobalMotionRansac(result.motion, result.log, src, dst, params);
    EXPECT_EQ(0, std::memcmp(src.data(), inputs[0].data(), src.size() * sizeof(KeyPoint)));
    EXPECT_EQ(0, std::memcmp(dst.data(), inputs[1].data(), dst.size() * sizeof(KeyPoint)));
    return result;
}

// The points moved with the camera, but for the last `outliers` ones, which move at random.
Points moved(const Points& src, int outliers) {
    Points dst;
    for (const KeyPoint& p : src) {
        dst.push_back(move_point(CAMERA, p));
    }
    std::mt19937 generator(2);
    for (auto p = dst.end() - outliers; p != dst.end(); ++p) {
        p->x = static_cast<float>(generator() % 1920);
        p->y = static_cast<float>(generator() % 1080);
    }
    return dst;
}

auto fields(const MotionLog& log) {
    return std::make_tuple(log.npoints, log.ninliers, log.track_ratio, log.status);
}

void expect_failure(const Estimate& e, int npoints, int ninliers, const char* message) {
    expect_motion(e.motion, IDENTITY, 0, 0);
    EXPECT_EQ(fields(e.log), std::make_tuple(npoints, ninliers, 0.0F, 1));
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
        const Points src = spread_points(c.n);
        const Estimate e = estimate(src, moved(src, c.outliers));
        EXPECT_EQ(seedings, 1);
        if (c.success) {
            expect_motion(e.motion, CAMERA, 2e-5F, 2e-2F);
            EXPECT_EQ(fields(e.log), std::make_tuple(c.n, c.n - c.outliers, RATIO, 0));
            EXPECT_THAT(test_support::log_lines(), IsEmpty());
        } else {
            EXPECT_LE(e.log.ninliers, c.n - c.outliers);
            expect_failure(e, c.n, e.log.ninliers, TOO_FEW_INLIERS);
        }
    }
}

TEST(Ransac, BoundsErrorsByTheNumberOfPairs) {
    // One exact sample is drawn, and the last pair is off by a known error, pixels.
    const auto is_inlier = [](int n, float ex, float ey) {
        restart_generator({0, 1, 2, 3, 4, 5});
        const Points src = spread_points(n);
        Points dst = src;
        dst.back().x += ex;
        dst.back().y += ey;
        return estimate(src, dst, {6, 2, 0, 0, 1}).log.ninliers == n;
    };
    EXPECT_TRUE(is_inlier(24, -2.9F, -1.9F));
    EXPECT_FALSE(is_inlier(24, 3.1F, 0));
    EXPECT_FALSE(is_inlier(24, 0, -2.1F));
    EXPECT_TRUE(is_inlier(23, 1.35F, -1.35F));
    EXPECT_FALSE(is_inlier(23, 1.5F, 0));
    EXPECT_FALSE(is_inlier(12, 0, -1.5F));
}

TEST(Ransac, DrawsWithoutRepetitionAndStopsAtAGoodModel) {
    restart_generator({7, 7, 107, 3, 7, 3, 0, 99, 50, 20});  // 107 is 7 again, of 100 pairs
    const Points src = spread_points(100);
    EXPECT_EQ(estimate(src, moved(src, 0)).log.ninliers, 100);
    EXPECT_EQ(draws, 10U);
    // 75 inliers of 100 are not enough to stop, 76 are.
    for (const int outliers : {25, 24}) {
        restart_generator({0, 1, 2, 3, 4, 5});
        EXPECT_EQ(estimate(src, moved(src, outliers)).log.ninliers, 100 - outliers);
        EXPECT_EQ(draws == 6, outliers == 24) << outliers;
    }
}

TEST(Ransac, TakesTheLaterOfTwoEquallyGoodModels) {
    restart_generator({0, 1, 2, 3, 4, 5, 12, 13, 14, 15, 16, 17});
    const Points src = spread_points(24);
    Points dst = src;
    std::for_each(dst.begin() + 12, dst.end(), [](KeyPoint& p) { p.x += 20; });
    const Estimate e = estimate(src, dst, {6, 2, 0, 0, 2});
    EXPECT_EQ(e.log.ninliers, 12);
    expect_motion(e.motion, {1, 0, 20, 0, 1, 0}, 1e-5F, 1e-2F);
}

TEST(Ransac, GivesTheIdentityWhereNothingCanBeEstimated) {
    restart_generator({});
    const Points points = spread_points(100);
    const Points eleven = spread_points(11);
    const Points spot(100, KeyPoint{3, 4, 0, 0});
    const Points lost(100, KeyPoint{NAN, NAN, 0, 0});
    expect_failure(estimate(points, eleven), 11, 0, "npoints(11) < params.size(6) !!");
    // Twice this size overflows.
    expect_failure(estimate(eleven, eleven, {2000000000, 2, 0, 0, 293}), 11, 0,
                   "npoints(11) < params.size(2000000000) !!");
    expect_failure(estimate(points, points, {2, 2, 0, 0, 293}), 100, 0, "params.size(2) < 3 !!");
    expect_failure(estimate(points, points, {6, 2, 0, 0, 0}), 100, -1, TOO_FEW_INLIERS);
    expect_failure(estimate(spot, spot), 100, 0, TOO_FEW_INLIERS);
    expect_failure(estimate(points, lost), 100, 0, TOO_FEW_INLIERS);
}

// The generator above would tear, and show a race, without the estimator's lock.
TEST(Ransac, LocksTheGenerator) {
    restart_generator({});
    const Points src = spread_points(100);
    std::vector<std::thread> threads(4);
    for (std::thread& thread : threads) {
        thread = std::thread([&] { EXPECT_EQ(estimate(src, moved(src, 30)).log.ninliers, 70); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(seedings, 4);
}

TEST(Ransac, RepeatsWhatASeedGave) {
    const Points src = spread_points(100);
    for (const std::uint32_t seed : {0U, 7U, 0xFEDCBA98U}) {
        // The C library's own numbers for the seed.
        unsigned short state[] = {0x330E, static_cast<unsigned short>(seed & 0xFFFF),
                                  static_cast<unsigned short>(seed >> 16)};
        std::vector<long> numbers(5000);
        // NOLINTNEXTLINE(concurrency-mt-unsafe): nothing else uses the state
        std::generate(numbers.begin(), numbers.end(), [&] { return nrand48(state); });
        for (const int outliers : {30, 55}) {
            const Points dst = moved(src, outliers);
            restart_generator(numbers);
            const Estimate expected = estimate(src, dst);
            restart_generator({});
            for (int call = 0; call < 2; ++call) {
                Estimate e;
                estimate_motion_from_seed(e.motion, e.log, src, dst, PARAMS, seed);
                EXPECT_EQ(fields(e.log), fields(expected.log)) << seed;
                EXPECT_TRUE(std::equal(e.motion.data, e.motion.data + 9, expected.motion.data));
            }
            EXPECT_EQ(draws, 0U);
            EXPECT_EQ(seedings, 0);
        }
    }
}

TEST(FitAffine, RecoversMotionsFromErrorsThatCancel) {
    constexpr Affine STRONG = {0.5F, 1.5F, -300.0F, -2.0F, 0.25F, 900.0F};
    for (const int n : {3, 6, 500}) {
        SCOPED_TRACE(n);
        Points src;
        Points dst;
        for (const float error : {4.0F, -4.0F}) {
            for (const KeyPoint& p : spread_points(n)) {
                src.push_back(p);
                dst.push_back(move_point(STRONG, {p.x + error, p.y - error, 0, 0}));
            }
        }
        Mat<float> motion(3, 3);
        fitAffine(motion, src, dst);
        expect_motion(motion, STRONG, 2e-5F, 2e-2F);
    }
}

}  // namespace
}  // namespace videostabilizer
