// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "rolling_shutter/line_motion.h"
#include "simplela/picture_transform.h"

namespace videostabilizer {

// Fills in the rows of a transform for a source that is read line by line, of which its `whole` shows the
// picture that would have been taken at once. False, without rows, if they had shown what is outside of
// the source.
bool make_rows(const LineMotion& lines, bool columns, int width, int height,
               PictureTransform& transform);

}  // namespace videostabilizer
