#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "videostabilizer/keypoint.h"
#include "videostabilizer/mat.h"

namespace videostabilizer {

using SimpleLA::Mat;

// The first two rows of a motion.
using Affine = std::array<float, 6>;

constexpr Affine IDENTITY = {1, 0, 0, 0, 1, 0};

// True when m is [affine; 0 0 1] to within the tolerance: `linear`, and `pixels` for the
// translation.
inline testing::AssertionResult is_motion(const Mat<float>& m, const Affine& affine, float linear,
                                          float pixels) {
    constexpr float LAST_ROW[] = {0, 0, 1};
    for (int i = 0; i < 9; ++i) {
        const float wanted = i < 6 ? affine[static_cast<std::size_t>(i)] : LAST_ROW[i - 6];
        const float tolerance = i == 2 || i == 5 ? pixels : linear;
        if (!(std::abs(m.data[i] - wanted) <= tolerance)) {  // a NaN is wrong, too
            return testing::AssertionFailure()
                   << "element " << i << " is " << m.data[i] << ", not " << wanted;
        }
    }
    return testing::AssertionSuccess();
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
            owned.push_back(std::make_unique<Mat<float>>(3, 3));
            motions.push_back(owned.back().get());
            std::copy(affine.begin(), affine.end(), motions.back()->data);
            std::copy_n(std::array<float, 3>{0, 0, 1}.data(), 3, motions.back()->row(2));
        }
    }
    std::vector<std::unique_ptr<Mat<float>>> owned;
    std::vector<Mat<float>*> motions;
};

}  // namespace videostabilizer
