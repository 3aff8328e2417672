#pragma once

#include "videostabilizer/stabilizer_options.h"

namespace videostabilizer {

// Reads a caller's record, which may be null (the defaults), older and shorter than ours, or newer
// and longer, for frames of this size. Returns null with the complete options in `out`, the picture's
// size filled in, or what is wrong with the record.
const char* read_options(const VideoStabilizerOptions* given, int width, int height,
                         VideoStabilizerOptions& out);

}  // namespace videostabilizer
