// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <videostabilizer/picture_frame.h>

#include <optional>

#include "apps/stabilize_video/pictures/ffmpeg.h"

// FFmpeg's pixel formats, and which of them the stabilizer takes.

namespace apps {

// The format without a range of its own: yuv420p for yuvj420p.
AVPixelFormat without_range(AVPixelFormat format);

// The format that is full range by its name: yuvj420p for yuv420p; the same if there is none.
AVPixelFormat with_full_range(AVPixelFormat format);

// The stabilizer's layout of pictures of this format; nothing for formats that it does not take.
// Without a location the chroma is on the left, as it mostly is in video.
std::optional<videostabilizer::PixelLayout> layout_of(AVPixelFormat format,
                                                      AVChromaLocation location);

// The planar format that the stabilizer takes with the same chroma and bit depth, or the next that
// have no less of either; without alpha.
AVPixelFormat planar_format_for(AVPixelFormat format);

// The planar format of these properties, AV_PIX_FMT_NONE if there is none.
AVPixelFormat planar_format(videostabilizer::ChromaFormat chroma, int bit_depth,
                            bool alpha = false);

// The planes of a picture for the stabilizer.
videostabilizer::PicturePlanes planes_of(const AVFrame& picture);

// "yuv420p10le".
std::string name_of(AVPixelFormat format);

bool is_rgb(AVPixelFormat format);
bool has_alpha(AVPixelFormat format);
// Bits of the deepest component.
int bit_depth_of(AVPixelFormat format);
videostabilizer::ChromaFormat chroma_of(AVPixelFormat format);

}  // namespace apps
