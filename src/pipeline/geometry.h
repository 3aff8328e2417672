// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/frame.h"
#include "videostabilizer/picture_frame.h"

namespace videostabilizer {

// Whether the warp supports the format.
bool can_be_warped(PixFmt format);

// Null when pictures of this geometry can be stabilised, else the reason why not. The chroma area
// is checked only for formats that can be warped.
// strided: all rows are accessed with their strides, as the picture stage does; the stated kernels
//          for widths that are multiples of 32 take rows as packed
const char* geometry_fault(int width, int height, int stride_y, int stride_uv, PixFmt format,
                           bool strided);

// The same for a stream of pictures. layout: may be null.
const char* picture_geometry_fault(int width, int height, const PixelLayout* layout);

}  // namespace videostabilizer
