#pragma once

#include <cstdint>

namespace videostabilizer {

// The largest plane that the library takes, in bytes: keeps every offset within a plane an int, and
// is what a device's constant buffers must hold for the kernels to read their source from there.
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

// Whether all that a kernel reads and writes of such a picture lies within planes of
// stride_y * height and stride_uv * height bytes.
// planar: U plane and V plane; else pairs, whose rows are as far apart as those of luma
// packed: what the 32-pixel kernels take: rows are `width` bytes apart whatever the strides say
bool warp_stays_in_planes(const PictureGeometry& picture, bool planar, bool packed);

}  // namespace videostabilizer
