// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <utility>
#include <vector>

#include "apps/stabilize_video/pictures/ffmpeg.h"

namespace apps {

// How a player has to turn pictures: first by quarter turns clockwise, then, if mirrored, left to right.
struct Orientation {
    int quarter_turns = 0;  // 0 to 3
    bool mirrored = false;

    bool upright() const { return quarter_turns == 0 && !mirrored; }
};

// As the display matrix of the stream says.
Orientation orientation_of(const AVStream& stream);

// FFmpeg's filters that turn pictures upright: names and arguments.
std::vector<std::pair<const char*, const char*>> upright_filters(const Orientation& orientation);

// Where chroma lies once the pictures are upright; unspecified if that has no name.
AVChromaLocation turned(AVChromaLocation location, const Orientation& orientation);

}  // namespace apps
