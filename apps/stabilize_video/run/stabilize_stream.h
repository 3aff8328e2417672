#pragma once

#include <videostabilizer/stabilizer.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <stdexcept>

#include "apps/stabilize_video/path_follower.h"
#include "apps/stabilize_video/picture_layout.h"
#include "apps/stabilize_video/progress.h"
#include "apps/stabilize_video/side_by_side.h"
#include "apps/stabilize_video/video_io.h"

namespace apps {

// OpenCL is missing or fails, or memory runs out inside the library. what() says why.
struct LibraryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What takes part in one stream. All of it outlives the call.
struct StreamParts {
    PictureSource& source;
    PictureSink& sink;
    const PictureLayout& layout;
    const videostabilizer::VideoStabilizerOptions& options;
    PathFollower* path;      // receives the camera path; may be null
    SideBySide* comparison;  // may be null
    Progress& progress;
    // The flag that source and sink also watch. Set from outside, it ends the work soon with an
    // error; it is set here when the work fails.
    std::atomic<bool>& cancelled;
};

// Where the time of the reading and the writing thread goes, seconds.
struct StreamSeconds {
    double reading = 0;  // and decoding, on the reading thread
    double pushing = 0;  // waiting for the stabilizer to take a frame
    double popping = 0;  // waiting for the stabilizer to give one, on the writing thread
    double writing = 0;  // and encoding
    double total = 0;
};

struct StreamResult {
    std::int64_t frames = 0;  // delivered to the sink
    // Why the input broke off (InputError): every whole frame before has been delivered. Null when
    // it came to its end.
    std::exception_ptr input_failure;
    StreamSeconds seconds;
};

// Reads all pictures, has them stabilised and writes them, in order, one steady picture for each
// shaky one; finishing the sink is the caller's. Another thread reads ahead, so that reading,
// analysis, warping and writing overlap; the frames in flight are bounded, and reused.
//
// Throws LibraryError, OutputError. No thread of the stabilizer is running any more when it returns
// or throws.
StreamResult stabilize_stream(const StreamParts& parts);

}  // namespace apps
