#pragma once

#include "videostabilizer/frame.h"

namespace videostabilizer {

// Whether the warp can take pictures of this format.
bool can_be_warped(PixFmt format);

// Null when pictures of this geometry can be worked on, else what is wrong with it. The chroma area
// is judged for formats that can be warped only.
const char* geometry_fault(int width, int height, int stride_y, int stride_uv, PixFmt format);

}  // namespace videostabilizer
