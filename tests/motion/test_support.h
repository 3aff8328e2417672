// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <random>
#include <vector>

#include "motion/camera_pose.h"
#include "videostabilizer/keypoint.h"
#include "videostabilizer/mat.h"

namespace videostabilizer {

using SimpleLA::Mat;

// The first two rows of a motion.
using Affine = std::array<float, 6>;

constexpr Affine IDENTITY = {1, 0, 0, 0, 1, 0};
constexpr float LAST_ROW[] = {0, 0, 1};

// The tolerances: `linear`, and `pixels` for the translation.
inline void expect_motion(const Mat<float>& m, const Affine& affine, float linear, float pixels) {
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_NEAR(m.data[i], affine[i], i % 3 == 2 ? pixels : linear) << "element " << i;
    }
    EXPECT_TRUE(std::equal(LAST_ROW, LAST_ROW + 3, m.row(2)));
}

inline void expect_pose(const CameraPose& pose, const CameraPose& wanted, double pixels,
                        double turn) {
    EXPECT_NEAR(pose.x, wanted.x, pixels);
    EXPECT_NEAR(pose.y, wanted.y, pixels);
    EXPECT_NEAR(pose.angle, wanted.angle, turn);
    EXPECT_NEAR(pose.zoom, wanted.zoom, turn);
}

inline Affine affine_of(const CameraPose& pose, PictureCentre centre) {
    float motion[9];
    motion_of_pose(pose, centre, motion);
    return {motion[0], motion[1], motion[2], motion[3], motion[4], motion[5]};
}

inline KeyPoint move_point(const Affine& affine, const KeyPoint& p) {
    return {affine[0] * p.x + affine[1] * p.y + affine[2],
            affine[3] * p.x + affine[4] * p.y + affine[5], p.response, p.reserved};
}

// n points spread over a full-HD picture, always the same ones, each with its own other fields.
inline std::vector<KeyPoint> spread_points(int n) {
    std::mt19937 generator(1);
    std::vector<KeyPoint> points;
    for (int i = 0; i < n; ++i) {
        const float x = static_cast<float>(generator() % 1920);
        const float y = static_cast<float>(generator() % 1080);
        points.push_back({x, y, static_cast<float>(i), static_cast<unsigned>(i)});
    }
    return points;
}

// A motion history that owns its motions.
struct History {
    explicit History(const std::vector<Affine>& affines) {
        for (const Affine& affine : affines) {
            motions.push_back(&matrices.emplace_back(3, 3));
            std::copy(affine.begin(), affine.end(), motions.back()->data);
            std::copy_n(LAST_ROW, 3, motions.back()->row(2));
        }
    }
    std::deque<Mat<float>> matrices;
    std::vector<Mat<float>*> motions;
};

}  // namespace videostabilizer
