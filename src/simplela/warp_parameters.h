// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>

namespace videostabilizer {

// Six floats in row order: rows 0 and 1 of an affine transform of (x, y, 1), in luma pixels.
using AffineSix = std::array<float, 6>;

constexpr AffineSix IDENTITY_TRANSFORM = {1.0F, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F};

// The kernels' parameters `wp`, which map an output position to its source position: the inverse of
// `transform` (source to output), restricted to the centred `crop_ratio` part of a picture of
// width x height pixels. A singular transform maps all positions to one.
AffineSix warp_parameters(const AffineSix& transform, float crop_ratio, int width, int height);

}  // namespace videostabilizer
