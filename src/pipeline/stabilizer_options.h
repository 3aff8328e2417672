// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/stabilizer_options.h"

namespace videostabilizer {

// Reads a caller's record, which may be null (the defaults), or older and shorter or newer and
// longer than ours. width, height: of the frames, pixels. Returns null with the complete options in
// `out`, including the picture size, or the reason why the record is refused.
const char* read_options(const VideoStabilizerOptions* given, int width, int height,
                         VideoStabilizerOptions& out);

// Whether the stream has the picture stage: all but what the stated OpenCL kernels do. With the stated
// sampling the engine is not auto any more.
inline bool uses_picture_stage(const VideoStabilizerOptions& options) {
    return options.sampling != STABILIZER_SAMPLING_STATED ||
           options.engine != STABILIZER_ENGINE_OPENCL;
}

}  // namespace videostabilizer
