// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "stream/stream_formats.h"

namespace videostabilizer {

// Separates a packed picture into planes G, B, R (and A), and interleaves them again. Of the planes'
// strides and of the packed one's any will do.
void separate(const StreamFormat& format, int width, int height,
              const VideoStabilizerPlanes& packed, const VideoStabilizerPlanes& planes);
void interleave(const StreamFormat& format, int width, int height,
                const VideoStabilizerPlanes& planes, const VideoStabilizerPlanes& packed);

// Copies a picture of one format to other planes.
void copy_picture(const StreamFormat& format, int width, int height,
                  const VideoStabilizerPlanes& from, const VideoStabilizerPlanes& to);

// The format of the planes of a packed one.
StreamFormat separated(const StreamFormat& format);

}  // namespace videostabilizer
