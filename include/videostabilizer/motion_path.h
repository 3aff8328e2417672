// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include "videostabilizer/export.h"
#include "videostabilizer/mat.h"
#include "videostabilizer/ransac.h"

// Operations on the motion history: the last H motions of a stream in a ring. Slot i mod H of
// `motions` holds the 3x3 motion [[a, b, c], [d, e, f], [0, 0, 1]] from frame i to frame i + 1, in
// pixels; the same slot of `logs` holds the outcome of its estimate. Frames count from 0. The slot
// of a frame more than H back holds a later motion, which is read instead.
//
// Ownership: the history owns its matrices; each is an object of its own, made with `new`.
// Threads:   owner only, for the history; getMotion may run concurrently with itself.

namespace videostabilizer {

// Composes the transform that maps pixel positions of frame `from` to frame `to`:
//   to > from   M(to - 1) ... M(from + 1) M(from)
//   to < from   the affine inverse of M(from - 1) ... M(to + 1) M(to)
//   to = from   the identity
//
// m: a 3x3 matrix with elements, made with `new`; its values are ignored.
// Ownership: takes m; the caller deletes the returned matrix. The two are the same object when
//            |to - from| is even; otherwise the result is a new matrix and m has been deleted.
// Errors:    a singular backward composition gives a zero linear part and zero translation. An empty
//            history gives the identity, in m. Without memory for a new matrix the result is in m.
VIDEOSTABILIZER_API SimpleLA::Mat<float>* getMotion(
    SimpleLA::Mat<float>* m, int from, int to, const std::vector<SimpleLA::Mat<float>*>& motions);

// Repairs, in place, each motion of frames from..to-1 whose log has status 1 (the identity, as the
// estimator left it) by blending it with its neighbours in time, and sets its status to 2:
//   M(i) = (M(i) + wp M(i - 1) + wn M(i + 1)) / (1 + wp + wn),  w = track_ratio / 4
// Only neighbours within from..to-1 with status 0 take part, so a repaired motion does not serve to
// repair the next. Does nothing unless `logs` has as many slots as `motions`.
VIDEOSTABILIZER_API void check_motions(std::vector<SimpleLA::Mat<float>*>& motions,
                                       std::vector<MotionLog>& logs, int from, int to);

// Prints m to standard output for debugging, one line per row between two lines of hyphens.
VIDEOSTABILIZER_API void print_mat(SimpleLA::Mat<float>& m);

}  // namespace videostabilizer
