// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "frames/frame_fifo.h"
#include "native_warp/warp_map.h"
#include "picture_warp/picture_warper.h"
#include "simplela/picture_transform.h"

namespace videostabilizer {

struct PictureStageSettings {
    int width;           // pixels
    int height;          // rows
    PixelLayout layout;  // of the pictures
    float crop_ratio;
    bool in_place;
    int capacity;  // of the queue, frames
};

// All called on the stage's thread; none may end the stage.
struct PictureStageCallbacks {
    void* owner;                                 // passed to the next three
    int (*on_frame)(void* owner, Frame* frame);  // takes the finished frame over
    void (*on_eos)(void* owner);                 // after the last frame
    void (*on_failure)(void* owner);             // called last, when the thread ends with an error
    void* ctx;                                   // of create_frame
    Frame* (*create_frame)(void* ctx);           // an output frame; null: the stage makes it
};

// A queue of frames and a thread that has each warped by the PictureTransform at its `opaque` (null:
// none), and passes it on. Rows are read and written with the strides of the frames.
// Threads: owner only, except send and signal_eos, which are thread-safe.
class PictureStage {
  public:
    PictureStage(const PictureStageSettings& settings, const PictureStageCallbacks& callbacks,
                 std::unique_ptr<PictureWarper> warper);
    ~PictureStage();  // ends the stage
    PictureStage(const PictureStage&) = delete;
    PictureStage& operator=(const PictureStage&) = delete;

    // Starts the thread. Returns RESULT_OK or RESULT_NO_THREAD.
    int start();

    // Blocks while the queue is full. The frame is the stage's from here on. Returns RESULT_OK or
    // RESULT_STOPPING.
    int send(Frame* frame);

    void signal_eos();

    // Waits for the frame being warped and its callback, ends the thread and releases all frames and
    // the warper.
    // A second call does nothing.
    void end();

  private:
    static void* thread(void* stage);
    FrameFifo fifo();
    void run();
    int process_frame();
    int make_output(const Frame& input, Frame** output);
    Frame* new_output(const Frame& input) const;
    bool fits_stream(const Frame& output, PixFmt format) const;
    void set_map(const PictureTransform& transform);
    int warp(const Frame& input, const PictureTransform& transform, const Frame& output);
    PicturePlanes planes_of(const Frame& frame, const Frame& strides) const;
    void copy_overlapping(PicturePlanes& source, const PicturePlanes& target);

    PictureStageSettings settings_;
    PictureStageCallbacks callbacks_;
    std::unique_ptr<PictureWarper> warper_;
    WarpMap map_;                      // of the frame in work
    std::vector<unsigned char> copy_;  // of planes that share memory with the output

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
