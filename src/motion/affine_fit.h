// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include "videostabilizer/keypoint.h"
#include "videostabilizer/mat.h"

// Least-squares fit of the full affine motion (6 parameters) to pairs of points. Both functions
// read and write positions only; `response` and `reserved` of the points stay as they are.
// Threads: thread-safe. Both throw std::bad_alloc; the exported caller catches it.

namespace videostabilizer {

// Moves the centroid of pts to the origin and scales their mean distance from it to sqrt(2), in
// place: Hartley's isotropic scaling, which makes the normal equations of a fit well conditioned.
// Returns: the 3x3 transform [[s, 0, -s mx], [0, s, -s my], [0, 0, 1]] from old to new coordinates,
//          with centroid (mx, my) and scale s. The caller deletes it. Without points s and the
//          translation are NaN; points that all coincide have an infinite scale.
SimpleLA::Mat<float>* normalizePoints(std::vector<KeyPoint>& pts);

// Fits the affine motion that maps src[i] to dst[i] with the least sum of squared distances, in the
// normalised coordinates of dst. src and dst have the same length, at least 3.
// motion: existing 3x3 matrix with elements; receives [[a, b, c], [d, e, f], [0, 0, 1]]. Where the
//         points do not determine a motion (they coincide or are collinear) the first two rows are
//         unspecified, and may not be finite; the last row is always exact.
// Both lists are left normalised.
void fitAffine(SimpleLA::Mat<float>& motion, std::vector<KeyPoint>& src,
               std::vector<KeyPoint>& dst);

}  // namespace videostabilizer
