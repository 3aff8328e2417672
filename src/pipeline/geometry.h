// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/frame.h"

namespace videostabilizer {

// Whether the warp supports the format.
bool can_be_warped(PixFmt format);

// Null when pictures of this geometry can be stabilised, else the reason why not. The chroma area
// is checked only for formats that can be warped.
// native: of a stream that uses the native engine, which accesses all rows with their strides; the
//         OpenCL kernels for widths that are multiples of 32 take rows as packed
const char* geometry_fault(int width, int height, int stride_y, int stride_uv, PixFmt format,
                           bool native);

}  // namespace videostabilizer
