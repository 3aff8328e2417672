#pragma once

#include "frames/frame_fifo.h"
#include "videostabilizer/stabilizer.h"

// What the files of the pipeline share: the stabilizer's queues, its callbacks for the warp stage,
// and the body of its worker thread.

namespace videostabilizer {

constexpr char STABILIZER_TAG[] = "video_stabilizer";

FrameFifo input_fifo(VideoStabilizer* stabilizer);
FrameFifo output_fifo(VideoStabilizer* stabilizer);

// The worker's blocking take. Returns 0, -10001 (ended and empty), -10002 (stopping) or -10003.
int take_input_frame(VideoStabilizer* stabilizer, Frame** out);

// Callbacks of the warp stage, run on its thread; `owner` is the stabilizer.
int stabilizer_on_frame(void* owner, Frame* frame);
void stabilizer_on_eos(void* owner);

// Lets go of hosts that would wait for ever, since a thread has ended with an error: no more frames
// will come out. Run on that thread. The stop and end marks stay as they are.
void stabilizer_on_failure(void* owner);

// Thread function of the worker; `arg` is the stabilizer. Always returns null.
void* stabilizer_thread(void* arg);

}  // namespace videostabilizer
