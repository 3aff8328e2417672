// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace videostabilizer {

// Result codes of the stabilizer and of the warp stage.
enum Result : int {
    RESULT_OK = 0,
    RESULT_FAILED = -1,             // unsupported format or geometry, or an OpenCL call failed
    RESULT_END_OF_STREAM = -10001,  // the queue is empty and its end was signalled
    RESULT_STOPPING = -10002,       // the stop flag is set
    RESULT_NOTHING_TAKEN = -10003,  // woken with nothing to take
    RESULT_NO_MEMORY = -10004,      // out of memory
    RESULT_NO_THREAD = -10007,      // a thread could not be started
    RESULT_NO_FRAME = -20000,       // null, or another kind of frame than expected
};

}  // namespace videostabilizer
