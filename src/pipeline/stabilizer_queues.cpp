// SPDX-License-Identifier: Apache-2.0

// The stabilizer's queues as seen by the host (push, pop, end of stream) and by the warp stage
// (callbacks).

#include "frames/deadline.h"
#include "frames/picture_layout.h"
#include "picture_stage/picture_stage.h"
#include "pipeline/geometry.h"
#include "pipeline/stabilizer_internal.h"
#include "pipeline/stabilizer_options.h"
#include "platform/log.h"
#include "warp/stage_internal.h"

namespace videostabilizer {

namespace {

constexpr int WAIT_EOS_ROUNDS = 10;

// The worker reads, and the warp stage uploads and warps, with the stream's size, plane sizes and
// chroma layout. Any other frame would be accessed outside its planes.
bool fits_stream(const VideoStabilizer* stabilizer, const Frame* frame) {
    if (stabilizer->format == PIX_FMT_PICTURE) {
        return is_picture_of(*frame, stabilizer->width, stabilizer->height, stabilizer->layout);
    }
    return frame->width == stabilizer->width && frame->height == stabilizer->height &&
           frame->stride_y <= stabilizer->stride_y && frame->stride_uv <= stabilizer->stride_uv &&
           can_be_warped(frame->format) &&
           (frame->format == PIX_FMT_YUV420P) == (stabilizer->format == PIX_FMT_YUV420P) &&
           geometry_fault(frame->width, frame->height, frame->stride_y, frame->stride_uv,
                          frame->format, uses_picture_stage(stabilizer->options)) == nullptr &&
           frame->plane_y != nullptr && frame->plane_uv != nullptr;
}

// The host must not wait for threads that have failed.
FrameFifo for_host(FrameFifo fifo, const VideoStabilizer* stabilizer) {
    fifo.failed = &stabilizer->failed;
    return fifo;
}

// Releases a frame that does not fit the stream and returns the result of its push. As for frames
// that fit, the end flags come first.
int refuse_misfit(const VideoStabilizer* stabilizer, Frame* frame) {
    int result = RESULT_FAILED;
    if (stabilizer->input_eos.load() != 0) {
        result = RESULT_END_OF_STREAM;
    } else if (stabilizer->quit.load() != 0) {
        result = RESULT_STOPPING;
    } else {
        __android_log_print(
            LOG_ERROR, STABILIZER_TAG,
            "push refused: frame of %d x %d, strides %d and %d, format %d in a stream of %d x %d, "
            "strides %d and %d, format %d",
            frame->width, frame->height, frame->stride_y, frame->stride_uv,
            static_cast<int>(frame->format), stabilizer->width, stabilizer->height,
            stabilizer->stride_y, stabilizer->stride_uv, static_cast<int>(stabilizer->format));
    }
    frame_delete(frame);
    return result;
}

// Whether the end of the output is still to come.
bool may_reach_eos(const VideoStabilizer* stabilizer) {
    return stabilizer->output_eos.load() == 0 && stabilizer->quit.load() == 0 &&
           stabilizer->failed.load() == 0;
}

}  // namespace

FrameFifo input_fifo(VideoStabilizer* stabilizer) {
    return {stabilizer->input_queue, stabilizer->input_count, stabilizer->input_capacity,
            stabilizer->input_mutex, stabilizer->input_cond,  stabilizer->quit,
            stabilizer->input_eos,   stabilizer->timeout_ms};
}

FrameFifo output_fifo(VideoStabilizer* stabilizer) {
    return {stabilizer->output_queue, stabilizer->output_count, stabilizer->output_capacity,
            stabilizer->output_mutex, stabilizer->output_cond,  stabilizer->quit,
            stabilizer->output_eos,   stabilizer->timeout_ms};
}

int video_stabilizer_push_frame(VideoStabilizer* stabilizer, Frame* frame) {
    if (frame == nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "push refused: no frame");
        return RESULT_NO_FRAME;
    }
    if (!fits_stream(stabilizer, frame)) {
        return refuse_misfit(stabilizer, frame);
    }
    return fifo_put(for_host(input_fifo(stabilizer), stabilizer), frame, WhenEnded::REFUSE);
}

int video_stabilizer_pop_frame(VideoStabilizer* stabilizer, Frame** out) {
    const int code = fifo_take(for_host(output_fifo(stabilizer), stabilizer), out);
    if (code != RESULT_END_OF_STREAM) {
        return code;
    }
    // Only one of several threads reports the end.
    if (stabilizer->quit.exchange(1) != 0) {
        return RESULT_STOPPING;
    }
    __android_log_print(LOG_WARN, STABILIZER_TAG, "Met output EOS.");
    return RESULT_END_OF_STREAM;
}

int video_stabilizer_input_empty(VideoStabilizer* stabilizer) {
    return fifo_is_empty(stabilizer->input_queue);
}

int video_stabilizer_input_full(VideoStabilizer* stabilizer) {
    return fifo_is_full(stabilizer->input_count, stabilizer->input_capacity);
}

int video_stabilizer_output_empty(VideoStabilizer* stabilizer) {
    return fifo_is_empty(stabilizer->output_queue);
}

int video_stabilizer_output_full(VideoStabilizer* stabilizer) {
    return fifo_is_full(stabilizer->output_count, stabilizer->output_capacity);
}

int video_stabilizer_signal_eos(VideoStabilizer* stabilizer) {
    stabilizer->input_eos.store(1);
    wake_waiters(stabilizer->input_mutex, stabilizer->input_cond);
    return RESULT_OK;
}

int video_stabilizer_reached_eos(VideoStabilizer* stabilizer) {
    return stabilizer->output_eos.load();
}

int video_stabilizer_wait_eos(VideoStabilizer* stabilizer) {
    pthread_mutex_lock(&stabilizer->output_mutex);
    for (int round = 0; round < WAIT_EOS_ROUNDS && may_reach_eos(stabilizer); ++round) {
        const timespec deadline = deadline_in(stabilizer->timeout_ms);
        pthread_cond_timedwait(&stabilizer->eos_cond, &stabilizer->output_mutex, &deadline);
    }
    pthread_mutex_unlock(&stabilizer->output_mutex);
    return stabilizer->output_eos.load() != 0 ? 0 : 1;
}

void wake_output_waiters(VideoStabilizer* stabilizer) {
    wake_waiters(stabilizer->output_mutex, stabilizer->output_cond);
    pthread_cond_broadcast(&stabilizer->eos_cond);  // same mutex
}

int take_input_frame(VideoStabilizer* stabilizer, Frame** out) {
    return fifo_take(input_fifo(stabilizer), out);
}

void send_to_stage(VideoStabilizer* stabilizer, Frame* frame) {
    if (stabilizer->picture_stage != nullptr) {
        stabilizer->picture_stage->send(frame);
    } else {
        affine_transformer_ocl_send_frame(stabilizer->transformer, frame);
    }
}

void signal_eos_to_stage(VideoStabilizer* stabilizer) {
    if (stabilizer->picture_stage != nullptr) {
        stabilizer->picture_stage->signal_eos();
    } else {
        affine_transformer_ocl_signal_eos(stabilizer->transformer);
        // The stage may already be waiting for input and would see the flag up to a second later.
        wake_stage(stabilizer->transformer);
    }
}

int stabilizer_on_frame(void* owner, Frame* frame) {
    return fifo_put(output_fifo(static_cast<VideoStabilizer*>(owner)), frame, WhenEnded::ACCEPT);
}

void stabilizer_on_eos(void* owner) {
    auto* const stabilizer = static_cast<VideoStabilizer*>(owner);
    stabilizer->output_eos.store(1);
    wake_output_waiters(stabilizer);
}

void stabilizer_on_failure(void* owner) {
    auto* const stabilizer = static_cast<VideoStabilizer*>(owner);
    stabilizer->failed.store(1);
    wake_output_waiters(stabilizer);
}

}  // namespace videostabilizer
