#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <stdexcept>

#include "apps/stabilize_video/path_recorder.h"
#include "apps/stabilize_video/picture_layout.h"
#include "apps/stabilize_video/progress.h"
#include "apps/y4m.h"

namespace apps {

// OpenCL is missing or fails, or memory runs out inside the library. what() says why.
struct LibraryError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct StreamResult {
    std::int64_t frames = 0;  // delivered to the writer
    // Why the input broke off (Y4mError, InputError): every whole frame before has been delivered.
    // Null when it came to its end.
    std::exception_ptr input_failure;
};

// Reads all pictures, has them stabilised and writes them, in order, one steady picture for each
// shaky one. A second thread reads ahead, so that reading, analysis, warping and writing overlap;
// the frames in flight are bounded by the stabilizer's queues, and reused.
//
// recorder   receives the camera path; may be null
// cancelled  the flag that `reader`'s source and `writer`'s sink also watch. Set from outside, it
//            ends the work soon with an error; it is set here when the work fails.
// Throws LibraryError, OutputError. No thread of the stabilizer is running any more when it returns
// or throws.
StreamResult stabilize_stream(Y4mReader& reader, Y4mWriter& writer, const PictureLayout& layout,
                              PathRecorder* recorder, Progress& progress,
                              std::atomic<bool>& cancelled);

}  // namespace apps
