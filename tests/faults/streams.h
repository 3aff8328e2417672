#pragma once

#include <string>
#include <vector>

#include "tests/pipeline/stream_helpers.h"
#include "videostabilizer/videostabilizer.h"

// Streams through the library that may end badly.

namespace fault_support {

using test_support::StabilizerPtr;

struct Size {
    int width, height;
};
constexpr Size SMALL = {64, 48};
constexpr Size WITH_MOTION = {320, 192};  // has the corners that a motion is estimated from

// For packed planar pictures, not started; null when the library gives none. The
// library's memory and OpenCL calls are watched from the first call on, its warp stages wait long,
// and the module is set up.
StabilizerPtr make_stabilizer(
    bool in_place = true,
    videostabilizer::VideoStabilizerStrength strength = videostabilizer::STABILIZER_GENTLE,
    Size size = SMALL);

// Lost wake-ups hang the test, instead of making it wait for seconds. Before the start.
void wait_long(videostabilizer::VideoStabilizer* s);

struct Ending {
    int popped;     // frames
    int code;       // of the pop that ended it
    bool in_order;  // every popped frame came in its turn
};

// Pushes `frames` and then the end of the input from a thread of its own, pops until a pop fails,
// and stops the stabilizer, which must have been started.
Ending run_to_the_end(videostabilizer::VideoStabilizer* s,
                      const std::vector<videostabilizer::Frame*>& frames);
std::vector<videostabilizer::Frame*> make_frames(int count, Size size = SMALL);

// The errors in the log, each as "tag: text", in order; those of the tracker, which are everyday
// matters, are left out.
std::vector<std::string> logged_errors();

}  // namespace fault_support
