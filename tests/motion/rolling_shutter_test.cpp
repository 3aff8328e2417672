// SPDX-License-Identifier: Apache-2.0

#include "rolling_shutter/rolling_shutter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>

#include "rolling_shutter/row_transforms.h"
#include "tests/motion/test_support.h"

namespace videostabilizer {
namespace {

constexpr int WIDTH = 640;
constexpr int HEIGHT = 360;

// Hand-shake of 2 to 11 Hz at 30 pictures per second.
CameraPose shaking(double time) {
    const auto wave = [time](double hertz, double phase) {
        return std::sin(hertz * time * 2 * 3.14159265358979 / 30 + phase);
    };
    return {5 * wave(2.1, 0.4) + wave(7.3, 1) + 0.4 * wave(11, 2),
            4 * wave(2.9, 1.4) + wave(6.1, 3) + 0.3 * wave(10, 5),
            0.006 * wave(3.7, 2.2) + 0.001 * wave(9.1, 0), 0.002 * wave(1.9, 4)};
}

TEST(PathSpline, IsThePathBetweenThePicturesToo) {
    std::vector<CameraPose> poses(40);
    for (std::size_t k = 0; k < poses.size(); ++k) {
        poses[k] = shaking(static_cast<double>(k));
    }
    PathSpline spline(40);
    spline.fit(poses.data(), poses.size());
    for (int eighth = 0; eighth < 128; ++eighth) {
        const double time = 12 + eighth / 8.0;
        expect_pose(spline.at(time), shaking(time), 0.01, 1e-5);
    }
    // Few poses have a speed, too.
    const CameraPose pan[] = {{0, 0, 0, 0}, {20, -8, 0, 0}, {40, -16, 0, 0}};
    spline.fit(pan, 3);
    expect_pose(spline.at(0.5), {10, -4, 0, 0}, 0.05, 1e-9);
    // Without a second pose there is none.
    spline.fit(poses.data(), 1);
    expect_pose(spline.at(0.5), poses[0], 1e-9, 1e-9);
}

// Where a camera with this readout sees a place of the first picture's plane in picture k.
struct Place {
    double x, y;
};
Place seen(Place world, int k, double readout, bool columns) {
    Place p = world;
    for (int i = 0; i < 20; ++i) {
        const CameraPose pose = shaking(k + readout * (columns ? p.x / WIDTH : p.y / HEIGHT));
        const CameraPose at = pose_seen_from({world.x, world.y, 0, 0}, pose);
        p = {at.x, at.y};
    }
    return p;
}

TEST(RollingShutter, FindsTheReadoutAndTheStepsOfTheCamera) {
    // Readout, by columns, share of the places that move on their own, noise in pixels.
    const std::tuple<double, bool, double, double> cases[] = {
        {0.7, false, 0, 0.02},  {-0.3, false, 0.2, 0.1}, {1, false, 0.1, 0.02},
        {0.5, true, 0.1, 0.05}, {-0.8, true, 0, 0.05},   {0, false, 0.2, 0.1},
    };
    constexpr int STEPS = 60;
    constexpr int SETTLED = 8;
    for (const auto& [readout, columns, moving, noise] : cases) {
        SCOPED_TRACE(readout);
        RollingShutter shutter({WIDTH, HEIGHT, true, 0, false, 40, 20});
        std::mt19937 generator(7);
        const auto random = [&generator](double low, double high) {
            return low + (high - low) * static_cast<double>(generator()) / 4294967295.0;
        };
        std::vector<CameraPose> steps;
        for (int k = 0; k < STEPS; ++k) {
            std::vector<SeenPair> pairs;
            for (int i = 0; i < 120; ++i) {
                const Place world = {random(-300, 300), random(-165, 165)};
                const Place a = seen(world, k, readout, columns);
                const Place b = seen(world, k + 1, readout, columns);
                const double off = i < 120 * moving ? 3.5 : 0;
                const auto variance = static_cast<float>(noise * noise);
                const auto seen_as = [&, noise = noise](double value) {
                    return static_cast<float>(value + random(-1.7, 1.7) * noise);
                };
                pairs.push_back({static_cast<float>(a.x), static_cast<float>(a.y),
                                 seen_as(b.x - a.x + off), seen_as(b.y - a.y), variance, 0,
                                 variance, 1});
            }
            steps.push_back(pose_seen_from(shaking(k + 1), shaking(k)));
            steps.back().angle += 0.0005;  // as far as it is known before
            shutter.keep(k, pairs);
            const int first = std::max(0, k - 18);
            std::vector<CameraPose> path(1);
            for (int i = first; i <= k; ++i) {
                path.push_back(pose_after(path.back(), steps[static_cast<std::size_t>(i)]));
            }
            shutter.lay_path(first, path.data(), path.size());
            const bool all = shutter.take_change();
            for (int i = first; i <= k; ++i) {
                if (all || i == k || i == k - 2 || i == k - SETTLED) {
                    ASSERT_TRUE(shutter.refit(i, steps[static_cast<std::size_t>(i)]));
                    if (i <= k - SETTLED) {
                        shutter.learn(i);
                    }
                }
            }
            shutter.choose();
        }
        EXPECT_NEAR(shutter.readout(), readout, 0.02);
        EXPECT_GT(shutter.confidence(), 0.9);
        if (readout != 0) {
            EXPECT_EQ(shutter.by_columns(), columns);
        }
        for (int k = 30; k < 50; ++k) {
            expect_pose(steps[static_cast<std::size_t>(k)],
                        pose_seen_from(shaking(k + 1), shaking(k)), 0.03 + noise, 0.0003);
        }
        // Lines go where they would have been seen at once.
        const LineMotion lines = shutter.lines_of(50);
        for (const double line : {-0.5, 0.3}) {
            const CameraPose pose = pose_seen_from(shaking(50 + readout * line), shaking(50));
            const Similarity field = lines.field(line);
            EXPECT_NEAR(field.map_x(0, 0), pose.x, 0.1);
            EXPECT_NEAR(field.map_y(0, 0), pose.y, 0.1);
        }
    }
}

TEST(ReadoutEstimator, OutlastsRestAndNoticesAnotherCamera) {
    ReadoutEstimator estimator;
    std::int64_t k = 0;
    const auto add = [&](int steps, double told, double readout) {
        for (int i = 0; i < steps; ++i, ++k) {
            ReadoutEvidence evidence;
            evidence.m[0][0] = evidence.m[1][1] = evidence.m[2][2] = told;
            evidence.m[0][ReadoutEvidence::UNKNOWNS] = told * (readout + (k % 2 == 0 ? 0.1 : -0.1));
            estimator.add(k, evidence);
        }
    };
    add(60, 100, 0.7);
    add(300, 0.001, 0);
    EXPECT_NEAR(estimator.readout(), 0.7, 0.01);
    estimator.begin_scene();
    add(10, 30, 0.72);
    EXPECT_NEAR(estimator.readout(), 0.7, 0.02);
    EXPECT_GT(estimator.steps(), 60U);
    estimator.begin_scene();
    add(20, 30, 0);
    EXPECT_NEAR(estimator.readout(), 0, 0.01);
    EXPECT_EQ(estimator.steps(), 20U);
}

TEST(RollingShutter, RowsOfAWarpUndoWhatLinesWereMovedBy) {
    for (const bool columns : {false, true}) {
        SCOPED_TRACE(columns);
        LineMotion lines;
        for (std::size_t node = 0; node < LineMotion::NODES; ++node) {
            const double t = LineMotion::line_of(node);
            lines.nodes[node] = {0.002 * t, 0.004 * t, 9 * t + 3 * t * t, -7 * t};
        }
        PictureTransform transform;
        transform.whole = affine_of({2, -3, 0.02, 0.15}, picture_centre(WIDTH, HEIGHT));
        ASSERT_TRUE(make_rows(lines, columns, WIDTH, HEIGHT, transform));
        for (std::size_t row = 0; row < PictureTransform::ROWS; ++row) {
            const double y = static_cast<double>(row) * transform.rows_apart();
            const auto at = [&, r = row](std::size_t i) {
                return static_cast<double>(transform.rows[r][i]);
            };
            for (const double x : {0.0, 200.0, 400.0, WIDTH - 1.0}) {
                const double from_x = at(0) * x + at(1) * y + at(2) - 0.5 * (WIDTH - 1);
                const double from_y = at(3) * x + at(4) * y + at(5) - 0.5 * (HEIGHT - 1);
                const Similarity field = lines.field(columns ? from_x / WIDTH : from_y / HEIGHT);
                const KeyPoint there = move_point(
                    transform.whole,
                    {static_cast<float>(from_x + field.map_x(from_x, from_y) + 0.5 * (WIDTH - 1)),
                     static_cast<float>(from_y + field.map_y(from_x, from_y) + 0.5 * (HEIGHT - 1)),
                     0, 0});
                // A row is a straight line; columns bend it.
                const double off = columns ? 0.6 : 0.05;
                EXPECT_NEAR(there.x, x, off);
                EXPECT_NEAR(there.y, y, off);
            }
        }
        lines.scale(8);  // further than the crop leaves room for
        EXPECT_FALSE(make_rows(lines, columns, WIDTH, HEIGHT, transform));
        EXPECT_EQ(transform.by_rows, 0);
    }
}

}  // namespace
}  // namespace videostabilizer
