// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

#include "videostabilizer/picture_frame.h"

namespace videostabilizer {

constexpr int LARGEST_PICTURE = 32768;  // pixels a side

// What is wrong with a layout, or null.
const char* layout_fault(const PixelLayout& layout);

// Whether pictures of both are the same bytes: fields that mean nothing to them are not compared.
bool operator==(const PixelLayout& a, const PixelLayout& b);

// The number of planes, and the samples of a row and the rows of plane k; a pair of chroma samples
// are two samples.
int plane_count(const PixelLayout& layout);
int plane_samples(int width, const PixelLayout& layout, int k);
int plane_rows(int height, const PixelLayout& layout, int k);

// Plane k of a picture; 3 is alpha.
inline unsigned char* plane_data(const PicturePlanes& planes, int k) {
    return k < 3 ? planes.data[k] : planes.alpha;
}
inline std::int32_t plane_stride(const PicturePlanes& planes, int k) {
    return k < 3 ? planes.stride[k] : planes.alpha_stride;
}
inline void set_plane(PicturePlanes& planes, int k, unsigned char* data, std::int32_t stride) {
    (k < 3 ? planes.data[k] : planes.alpha) = data;
    (k < 3 ? planes.stride[k] : planes.alpha_stride) = stride;
}

constexpr int sample_bytes(const PixelLayout& layout) {
    return layout.bit_depth > 8 ? 2 : 1;
}

// Whether picture_frame_create has made the frame with this size and layout.
bool is_picture_of(const Frame& frame, int width, int height, const PixelLayout& layout);

}  // namespace videostabilizer
