// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <vector>

#include "frames/frame_fifo.h"
#include "native_warp/plane_warp.h"

namespace videostabilizer {

struct NativeStageSettings {
    PixFmt format;  // 4:2:0, semi-planar or planar
    float crop_ratio;
    Resampling resampling;
    bool in_place;
    int capacity;  // of the queue, frames
};

// All called on the stage's thread; none may end the stage.
struct NativeStageCallbacks {
    void* owner;                                 // passed to the next three
    int (*on_frame)(void* owner, Frame* frame);  // takes the finished frame over
    void (*on_eos)(void* owner);                 // after the last frame
    void (*on_failure)(void* owner);             // called last, when the thread ends with an error
    void* ctx;                                   // of create_frame
    Frame* (*create_frame)(void* ctx);           // an output frame; null: frame_create makes it
};

// A queue of 4:2:0 frames and a thread that warps each on the processor by the six floats in its
// `opaque`, as the OpenCL stage reads them (source to output, luma pixels; null: none), and passes it
// on. It reads and writes rows with the strides of the frames. Chroma is taken to be left of the
// middle of its luma pixels, as in MPEG-2 and later.
// Threads: owner only, except send and signal_eos, which are thread-safe.
class NativeStage {
  public:
    // Throws std::bad_alloc.
    NativeStage(const NativeStageSettings& settings, const NativeStageCallbacks& callbacks);
    ~NativeStage();  // ends the stage
    NativeStage(const NativeStage&) = delete;
    NativeStage& operator=(const NativeStage&) = delete;

    // Starts the thread. Returns RESULT_OK or RESULT_NO_THREAD.
    int start();

    // Blocks while the queue is full. The frame is the stage's from here on. Returns RESULT_OK or
    // RESULT_STOPPING.
    int send(Frame* frame);

    void signal_eos();

    // Waits for the frame being warped and its callback, ends the thread and releases all frames.
    // A second call does nothing.
    void end();

  private:
    using Six = std::array<float, 6>;

    static void* thread(void* stage);
    FrameFifo fifo();
    void run();
    int process_frame();
    int make_output(const Frame& input, Frame** output);
    void warp(const Frame& input, const Six& transform, Frame& output);
    Frame without_overlap(const Frame& input, const Frame& output);
    void warp_plane(int height, const SourcePlane& source, const TargetPlane& target);

    NativeStageSettings settings_;
    NativeStageCallbacks callbacks_;
    ResamplingKernels kernels_;
    PlaneWarp plane_warp_;
    WarpMap luma_map_;  // of the frame in work, as the next
    WarpMap chroma_map_;
    WarpScratch scratch_;
    std::vector<unsigned char> copy_;  // of a frame that is warped in place

    Frame queue_{};  // sentinel
    std::atomic<std::int32_t> count_{0};
    std::int32_t capacity_;
    std::atomic<std::int32_t> quit_{0};
    std::atomic<std::int32_t> eos_{0};
    std::int32_t timeout_ms_ = 1000;
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond_ = PTHREAD_COND_INITIALIZER;
    pthread_t thread_{};
    bool started_ = false;
};

}  // namespace videostabilizer
