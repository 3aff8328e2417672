// SPDX-License-Identifier: Apache-2.0

#include "warp/picture_limits.h"

#include <algorithm>

namespace videostabilizer {

bool warp_stays_in_planes(const PictureGeometry& picture, bool planar, bool packed) {
    const int width = picture.width;
    const int height = picture.height;
    // Bilinear sampling reads two rows.
    if (width < 1 || height < 2 || picture.stride_y < width || picture.stride_uv < width / 2) {
        return false;
    }
    const std::int64_t chroma_bytes = plane_bytes(picture.stride_uv, height);
    if (std::max(plane_bytes(picture.stride_y, height), chroma_bytes) > LARGEST_PLANE_BYTES) {
        return false;
    }
    const std::int64_t rows_before_last = height / 2 - 1;
    if (planar) {
        const std::int64_t row = packed ? width / 2 : picture.stride_uv;
        const std::int64_t v_offset =
            packed ? plane_bytes(width, height) / 4 : plane_bytes(picture.stride_uv, height) / 2;
        const std::int64_t last_row = std::min<std::int64_t>((width + 1) / 2, row);
        return v_offset + rows_before_last * row + last_row <= chroma_bytes;
    }
    const std::int64_t row = packed ? width : picture.stride_y;
    // The last pair of an odd width is read as a whole if the row holds it.
    const std::int64_t last_row = std::min<std::int64_t>(width + width % 2, row);
    return rows_before_last * row + last_row <= chroma_bytes;
}

}  // namespace videostabilizer
