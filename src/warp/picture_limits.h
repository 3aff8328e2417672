// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

namespace videostabilizer {

// The largest plane, in bytes: offsets within a plane fit an int. A device's constant buffers must
// hold as much for the kernels to read their source from them.
constexpr std::int64_t LARGEST_PLANE_BYTES = std::int64_t{128} << 20;

// Bytes of the luma plane (stride_y) or the chroma area (stride_uv) of a picture.
constexpr std::int64_t plane_bytes(int stride, int height) {
    return static_cast<std::int64_t>(stride) * height;
}

struct PictureGeometry {
    int width;      // pixels
    int height;     // rows
    int stride_y;   // bytes
    int stride_uv;  // bytes
};

// Whether a kernel accesses such a picture only within planes of stride_y * height and
// stride_uv * height bytes.
// planar: U plane and V plane; otherwise interleaved pairs, in rows stride_y apart
// packed: rows are `width` bytes apart whatever the strides are, as in the 32-pixel kernels
bool warp_stays_in_planes(const PictureGeometry& picture, bool planar, bool packed);

}  // namespace videostabilizer
