// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "motion/camera_pose.h"
#include "videostabilizer/mat.h"

namespace videostabilizer {

// Appends the crop to a correction: the part of `crop_ratio` of the width and height around `centre`
// of the corrected picture is enlarged to full size. The warp stage's own crop comes before the
// correction instead, and so shortens its shift.
void fold_in_crop(PictureCentre centre, double crop_ratio, SimpleLA::Mat<float>& correction);

}  // namespace videostabilizer
