#pragma once

#include "videostabilizer/stabilizer_options.h"

namespace videostabilizer {

// Reads a caller's record, which may be null (the defaults), older and shorter than ours, or newer
// and longer. Returns null with the complete options in `out`, or what is wrong with the record.
const char* read_options(const VideoStabilizerOptions* given, VideoStabilizerOptions& out);

}  // namespace videostabilizer
