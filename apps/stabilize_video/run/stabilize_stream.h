// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <videostabilizer/stabilizer.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <stdexcept>

#include "apps/stabilize_video/cli/progress.h"
#include "apps/stabilize_video/pictures/picture_stream.h"
#include "apps/stabilize_video/results/path_follower.h"
#include "apps/stabilize_video/results/report.h"
#include "apps/stabilize_video/run/extras.h"

namespace apps {

// OpenCL or the stabilizer cannot be used or has failed. what() is a message for the user.
struct LibraryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What takes part in one stream. All of it must outlive the call.
struct StreamParts {
    PictureSource& source;
    PictureSink& sink;
    const videostabilizer::VideoStabilizerOptions& options;
    PathFollower* path;  // receives the camera path; may be null
    Extras& extras;      // receives the pictures
    Progress& progress;
    // The flag that the source watches. Set from outside, it ends the input; set here when the
    // stream fails.
    std::atomic<bool>& cancelled;
};

struct StreamResult {
    std::int64_t frames = 0;  // delivered to the sink
    // Why the input ended early (InputError), after its complete frames were delivered; else null.
    std::exception_ptr input_failure;
    StreamSeconds seconds;
    videostabilizer::VideoStabilizerOptions options{};  // as the stabilizer used them
};

// Reads all pictures, stabilises them and writes them in order, one steady picture for each shaky
// one; the caller finishes the sink. Reading, analysis, warping and writing overlap on threads of
// their own; the frames in flight are bounded, and the memory of steady ones is reused.
//
// Throws LibraryError, OutputError. No thread of the stabilizer runs any more when it returns or
// throws.
StreamResult stabilize_stream(const StreamParts& parts);

}  // namespace apps
