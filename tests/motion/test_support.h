#pragma once

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

#include "videostabilizer/keypoint.h"
#include "videostabilizer/mat.h"

namespace videostabilizer {

using SimpleLA::Mat;

// The first two rows of a motion.
using Affine = std::array<float, 6>;

constexpr Affine IDENTITY = {1, 0, 0, 0, 1, 0};

Mat<float>* new_motion(const Affine& affine);

// True when m is [affine; 0 0 1] to within the tolerance: `linear`, and `pixels` for the
// translation.
testing::AssertionResult is_motion(const Mat<float>& m, const Affine& affine, float linear,
                                   float pixels);

KeyPoint move_point(const Affine& affine, const KeyPoint& p);

// n points spread over a full-HD picture, always the same ones, each with its own other fields.
std::vector<KeyPoint> spread_points(int n);

// A motion history that owns its motions.
class History {
  public:
    explicit History(const std::vector<Affine>& affines);
    std::vector<Mat<float>*> motions;

  private:
    std::vector<std::unique_ptr<Mat<float>>> owned_;
};

}  // namespace videostabilizer
