#pragma once

#include <vector>

#include "videostabilizer/keypoint.h"
#include "videostabilizer/mat.h"

// Least-squares fit of the full affine motion (6 parameters) to pairs of points. Both functions
// read and write positions only; `response` and `reserved` of the points stay as they are.
// Threads: reentrant. Both throw std::bad_alloc; the exported caller catches it.

namespace videostabilizer {

// Moves the centroid of pts to the origin and scales their mean distance from it to sqrt(2), in
// place: Hartley's isotropic scaling, which makes the normal equations of a fit well conditioned.
// Returns: the 3x3 transform [[s, 0, -s mx], [0, s, -s my], [0, 0, 1]] from old to new coordinates,
//          with centroid (mx, my) and scale s. The caller deletes it. Without points s and the
//          translation are NaN; points that all coincide have an infinite scale.
SimpleLA::Mat<float>* normalizePoints(std::vector<KeyPoint>& pts);

// Fits the affine motion that carries src[i] to dst[i] with the least sum of squared distances, in
// dst's normalised coordinates. src and dst have the same length, at least 3.
// motion: existing 3x3 matrix with elements; receives [[a, b, c], [d, e, f], [0, 0, 1]]. Where the
//         points do not determine a motion (they coincide or lie on a line) the first two rows hold
//         anything, finite or not; the last row is always exact.
// Both lists are left normalised: pass copies of points that are still needed.
void fitAffine(SimpleLA::Mat<float>& motion, std::vector<KeyPoint>& src,
               std::vector<KeyPoint>& dst);

}  // namespace videostabilizer
