// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "native_warp/plane_warp.h"
#include "native_warp/warp_map.h"
#include "videostabilizer/picture_frame.h"

namespace videostabilizer {

struct PicturePlane {
    PlaneShape shape;
    PlaneGrid grid;
};

// The planes of a picture: one of luma; none, one or two of chroma, which do not differ; and plane 3 for
// alpha, which does not differ from luma's.
struct PictureShape {
    int planes;
    PicturePlane plane[4];
};
constexpr bool is_chroma(int k) {
    return k == 1 || k == 2;
}

// layout: one that layout_fault accepts.
PictureShape picture_shape(int width, int height, const PixelLayout& layout);

}  // namespace videostabilizer
