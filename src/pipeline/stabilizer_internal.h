// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "frames/frame_fifo.h"
#include "videostabilizer/stabilizer.h"

// Shared by the files of the pipeline: the stabilizer's queues, its callbacks for the warp stage,
// and its worker thread.

namespace videostabilizer {

constexpr char STABILIZER_TAG[] = "video_stabilizer";

FrameFifo input_fifo(VideoStabilizer* stabilizer);
FrameFifo output_fifo(VideoStabilizer* stabilizer);

// Wakes all threads that wait for output or for its end. Call it after setting a flag.
void wake_output_waiters(VideoStabilizer* stabilizer);

// The worker's blocking take. Returns 0, -10001 (ended and empty), -10002 (stopping) or -10003.
int take_input_frame(VideoStabilizer* stabilizer, Frame** out);

// The warp stage's input, with either engine.
void send_to_stage(VideoStabilizer* stabilizer, Frame* frame);
void signal_eos_to_stage(VideoStabilizer* stabilizer);

// Callbacks of the warp stage, called on its thread; `owner` is the stabilizer.
int stabilizer_on_frame(void* owner, Frame* frame);
void stabilizer_on_eos(void* owner);

// Unblocks the host after a thread has ended with an error, since no more frames will come out.
// Called on that thread. The stop and end flags are unchanged.
void stabilizer_on_failure(void* owner);

// Thread function of the worker; `arg` is the stabilizer. Always returns null.
void* stabilizer_thread(void* arg);

}  // namespace videostabilizer
