// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <obs-module.h>

#include <cstdint>
#include <vector>

#include "videostabilizer/stream.h"

namespace obs_videostabilizer {

// The library's name of what frames of a format are pushed as, or -1. Packed YUV is separated into
// planes.
std::int32_t stream_format(video_format format);

// What has to be the same for frames of one stream.
bool is_same_kind(const obs_source_frame& a, const obs_source_frame& b);

// The planes of a frame as they are pushed: its own, or for packed YUV copies in `separated`.
// `are_own` tells which.
VideoStabilizerPlanes planes_to_push(const obs_source_frame& frame,
                                     std::vector<std::uint8_t>& separated, bool& are_own);

// Writes a steady picture over a frame of the same kind; only its right half where `halves`.
void overwrite(obs_source_frame& frame, const VideoStabilizerPlanes& steady, bool halves);

}  // namespace obs_videostabilizer
