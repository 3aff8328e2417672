// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>

#include "apps/stabilize_video/pictures/ffmpeg.h"

// What containers can hold besides the video, and what is put there in place of the rest.

namespace apps {

// QuickTime and what is derived from it.
bool is_quicktime(const AVOutputFormat& muxer);

bool is_transport(const AVOutputFormat& muxer);

// Whether files of this format can hold sound at all.
bool holds_sound(const AVOutputFormat& muxer);

// Whether they can hold one sound only.
bool holds_one_sound(const AVOutputFormat& muxer);

// Whether sound begins with the file, since its times are those of counted samples.
bool counts_samples(const AVOutputFormat& muxer);

// Whether a stream can be copied into a file of this format, so that others can use it there.
bool holds(const AVOutputFormat& muxer, const AVStream& stream);

// The codec tag of a stream in this format; 0: the muxer's choice. The same tag may mean something else
// there.
unsigned tag_in(const AVOutputFormat& muxer, const AVCodecParameters& parameters);

// What is known of a recording, of location, camera, date and chapters, and has no place in a file of
// this format: "location, date".
std::string lost_facts(const AVOutputFormat& muxer, const AVFormatContext& recording);

// The codec for sound or subtitles that cannot be copied: the one that users of this format expect;
// AV_CODEC_ID_NONE if there is none.
AVCodecID substitute(const AVOutputFormat& muxer, const AVCodecParameters& parameters);

}  // namespace apps
