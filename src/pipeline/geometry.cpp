// SPDX-License-Identifier: Apache-2.0

#include "pipeline/geometry.h"

#include <algorithm>

#include "frames/picture_layout.h"
#include "warp/picture_limits.h"

namespace videostabilizer {

namespace {

constexpr int MIN_PICTURE_SIZE = 16;  // pixels per work item of the 16-pixel kernels

const char* chroma_fault(const PictureGeometry& picture, PixFmt format, bool strided) {
    if (plane_bytes(picture.stride_uv, picture.height) > LARGEST_PLANE_BYTES) {
        return "the chroma area is larger than 128 MiB";
    }
    const bool planar = format == PIX_FMT_YUV420P;
    const bool packed = !strided && picture.width % 32 == 0;
    return warp_stays_in_planes(picture, planar, packed) ? nullptr
                                                         : "stride_uv is too small for the chroma";
}

}  // namespace

bool can_be_warped(PixFmt format) {
    return format >= PIX_FMT_YUV420SP_0 && format <= PIX_FMT_LUMA_ONLY &&
           chroma_planes_factor[format] == 1;
}

const char* geometry_fault(int width, int height, int stride_y, int stride_uv, PixFmt format,
                           bool strided) {
    if (width < MIN_PICTURE_SIZE || height < MIN_PICTURE_SIZE) {
        return "width and height must be at least 16";
    }
    if (width % 2 != 0 || height % 2 != 0) {
        return "width and height must be even";
    }
    if (stride_y < width) {
        return "stride_y is below the width";
    }
    if (plane_bytes(stride_y, height) > LARGEST_PLANE_BYTES) {
        return "the luma plane is larger than 128 MiB";
    }
    return can_be_warped(format)
               ? chroma_fault({width, height, stride_y, stride_uv}, format, strided)
               : nullptr;
}

const char* picture_geometry_fault(int width, int height, const PixelLayout* layout) {
    if (std::min(width, height) < MIN_PICTURE_SIZE || std::max(width, height) > LARGEST_PICTURE) {
        return "width and height must be 16 to 32768";
    }
    return layout != nullptr ? layout_fault(*layout) : "no layout";
}

}  // namespace videostabilizer
