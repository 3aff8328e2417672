// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "native_warp/plane_warp.h"

namespace videostabilizer {

// The sampling of the OpenCL kernels on the processor, for planes of any format and stride: luma is
// bilinear and truncated, chroma is the nearest sample, both with float arithmetic. For 8-bit 4:2:0,
// luma is within a grey level of the kernels', and chroma is theirs but for positions midway between
// two samples. Positions outside of the source, also NaN, show its nearest sample, or any.
//
// wp: the output to source transform in luma samples, as the kernels take it; see
//     warp_parameters.h. The source position of (x, y) is
//     (wp[0] x + wp[1] y + wp[2], wp[3] x + wp[4] y + wp[5]).
// Both functions compute rows first..last - 1 of the output. The planes must not overlap.
// Threads: thread-safe.

// shape: of one channel.
void stated_luma_rows(const PlaneShape& shape, const float wp[6], const SourcePlane& source,
                      const TargetPlane& target, int first, int last);

// grid: only the steps matter, which are 1, 2 or 4; like the kernels, this takes a chroma sample to be
// where the first of its luma samples is. Samples are copied, but for values beyond the depth.
void stated_chroma_rows(const PlaneShape& shape, const PlaneGrid& grid, const float wp[6],
                        const SourcePlane& source, const TargetPlane& target, int first, int last);

}  // namespace videostabilizer
