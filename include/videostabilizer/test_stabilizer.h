// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

#include "videostabilizer/export.h"
#include "videostabilizer/frame.h"

// A test of the whole pipeline on a device: reads 90 raw frames of 1280 x 720 planar 4:2:0 from
// "/sdcard/keypoints_90f.yuv" (per frame 921,600 luma bytes, then 460,800 chroma bytes; no header),
// stabilises them in place and writes them to "/sdcard/keypoints_90f_stab.yuv" in the same layout.
// Called from Java through a native method, and from a shell through the exported `main` (not
// declared here: it would clash with a host's own), which calls test_stabilizer and returns 0.

namespace videostabilizer {

// One entry of the test's buffer pools.
struct Buffer {
    std::int32_t width;   // 1280
    std::int32_t height;  // 720
    unsigned char* y;     // heap block of 921,600 bytes
    unsigned char* uv;    // heap block of 460,800 bytes: U plane, then V plane
};

// The pools, valid while test_stabilizer runs. The input pool is larger than the number of frames
// that the pipeline can hold, so that no buffer is refilled while its frame is in flight.
struct FrameContext {
    Buffer output_buffers[6];    // in turns
    Buffer input_buffers[26];    // in turns
    std::int32_t output_cursor;  // next output buffer to use
    std::int32_t input_cursor;   // next input buffer to use
};

extern VIDEOSTABILIZER_API FrameContext frame_ctx;  // of the process

// Runs the test; prints its progress, the elapsed time and the number of frames to standard output.
// A missing file, a failed pop (a stream that ended early, also because of an OpenCL error) or a
// machine without OpenCL ends the test with a message. Threads, frames and pools are released.
// Threads: owner only, with the whole process as the object: one run at a time.
// Returns: 0 always.
VIDEOSTABILIZER_API int test_stabilizer();

// The test's producer thread: reads and pushes the frames and signals the end of the input. `arg`
// is the VideoStabilizer. Threads: owner only, as test_stabilizer. Returns null.
VIDEOSTABILIZER_API void* stabilizer_func(void* arg);

// A create_frame over the output buffers in turn; `ctx` is &frame_ctx. The frame's `opaque` points
// at its Buffer. Threads: owner only. Returns null when out of memory.
VIDEOSTABILIZER_API Frame* create_frame_from_video_buffer(void* ctx);

// A frame over the planes of `buffer`, which stays the caller's. Threads: thread-safe.
// Returns null when out of memory.
VIDEOSTABILIZER_API Frame* create_frame_from_video_stab_buffer(Buffer& buffer);

// Wall-clock time in milliseconds since the epoch. Threads: thread-safe.
VIDEOSTABILIZER_API std::int64_t time_ms();

}  // namespace videostabilizer
