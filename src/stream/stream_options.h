// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "stream/stream_formats.h"
#include "videostabilizer/stabilizer_options.h"

namespace videostabilizer {

// Options of a stream, complete and checked.
struct StreamSettings {
    VideoStabilizerStreamOptions given;
    StreamFormat format;
    VideoStabilizerOptions options;  // of the stabilizer
};

// The options of a strength; null for an unknown one, with the record untouched.
bool options_of_strength(int strength, VideoStabilizerStreamOptions& out);

// What is wrong with a host's record, or null and the settings.
const char* read_settings(const VideoStabilizerStreamOptions* given, StreamSettings& out);

// Why a stream with settings `open` cannot have `wanted` from now on, or null.
const char* change_fault(const StreamSettings& open, const StreamSettings& wanted);

// The part of the logarithm of the crop that may change from picture to picture.
double crop_speed(const StreamSettings& settings);

}  // namespace videostabilizer
