// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <optional>

#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/picture_stream.h"

// What a container and its first decoded picture tell about a video.

namespace apps {

// The video to stabilise: the stream of this number, or else the one with the largest pictures, the
// first of several; null if there is none.
AVStream* choose_video(const AVFormatContext& container, std::optional<int> wanted);

// Whether the pictures are two fields each, taken one after the other.
bool is_interlaced(const AVStream& video, const AVFrame& first);

// Marks pictures of a stream whose decoder does not know what its container tells.
void mark_interlaced(const AVStream& video, AVFrame& picture);

// Rates, colours, orientation and metadata of high dynamic range.
void take_facts(AVFormatContext& container, AVStream& video, const AVFrame& first,
                PictureFormat& format, Notes& notes);

}  // namespace apps
