// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "videostabilizer/picture_frame.h"
#include "videostabilizer/stream.h"

namespace videostabilizer {

// How a format of the C interface reaches the stabilizer.
struct StreamFormat {
    PixelLayout layout;  // of the planes that are warped
    int channels;        // of packed RGB: 3 or 4; else 0
    bool blue_first;     // of packed RGB

    bool is_packed() const { return channels != 0; }
};

// Nothing for an unknown format or siting.
std::optional<StreamFormat> stream_format(std::int32_t format, std::int32_t siting);

// The format of a name, or -1.
std::int32_t format_by_name(const char* name);

// Of the planes that the host sees.
int host_planes(const StreamFormat& format);
std::size_t host_row_bytes(const StreamFormat& format, int width, int k);
int host_rows(const StreamFormat& format, int height, int k);

// What is wrong with planes of the host, or null.
const char* host_planes_fault(const StreamFormat& format, int width,
                              const VideoStabilizerPlanes& planes);

// The planes of a format that is not packed, as the stabilizer takes them.
PicturePlanes picture_planes(const StreamFormat& format, const VideoStabilizerPlanes& planes);

}  // namespace videostabilizer
