// SPDX-License-Identifier: Apache-2.0

#include "warp/transformer_thread.h"

#include <algorithm>

#include "platform/log.h"
#include "simplela/warp_parameters.h"
#include "videostabilizer/result.h"
#include "warp/ocl.h"
#include "warp/picture_limits.h"

namespace videostabilizer {

namespace {

// Copies the frame's transform as the frame leaves the queue: afterwards its owner may reuse the
// memory for another frame.
void copy_transform(void* transform, Frame* frame) {
    AffineSix& copy = *static_cast<AffineSix*>(transform);
    if (frame->opaque == nullptr) {
        copy = IDENTITY_TRANSFORM;
    } else {
        std::copy_n(static_cast<const float*>(frame->opaque), copy.size(), copy.begin());
    }
}

// Provides the frame that receives the warped picture; a new one is also stored in output_in_hand.
// Returns RESULT_OK and *output, or the error, which is logged.
int make_output(AffineTransformerOcl* t, Frame* frame, Frame** output) {
    if (t->in_place != 0) {
        *output = frame;
        return RESULT_OK;
    }
    const AffineTransformerCallbacks& callbacks = t->callbacks;
    Frame* made = nullptr;
    if (callbacks.ctx != nullptr) {
        made = callbacks.create_frame != nullptr ? callbacks.create_frame(callbacks.ctx) : nullptr;
        if (made == nullptr) {
            __android_log_print(LOG_ERROR, WARP_OCL_TAG, "Failed to create external frame!!");
            return RESULT_NO_FRAME;
        }
    } else {
        made = frame_create(frame->width, frame->height, frame->stride_y, frame->stride_uv,
                            frame->format, nullptr);
        if (made == nullptr) {
            __android_log_print(LOG_ERROR, WARP_OCL_TAG, OUT_OF_MEMORY_TEXT);
            return RESULT_NO_MEMORY;
        }
    }
    made->timestamp = frame->timestamp;
    t->output_in_hand = made;
    *output = made;
    return RESULT_OK;
}

void set_arguments(AffineTransformerOcl* t, const Frame* frame) {
    const cl_mem* const buffers[] = {&t->mem_src_y, &t->mem_src_uv, &t->mem_dst_y, &t->mem_dst_uv,
                                     &t->mem_wp};
    const cl_int numbers[] = {frame->width, frame->height, frame->stride_y, frame->stride_uv};
    cl_uint index = 0;
    // Errors are detected by the launch, which refuses missing arguments.
    for (const cl_mem* buffer : buffers) {
        clSetKernelArg(t->kernel, index++, sizeof(cl_mem), buffer);
    }
    for (const cl_int& number : numbers) {
        clSetKernelArg(t->kernel, index++, sizeof(number), &number);
    }
}

bool succeeded(cl_int error, const char* call, const char* text) {
    if (ocl_succeeded(error, call)) {
        return true;
    }
    __android_log_print(LOG_ERROR, WARP_OCL_TAG, "%s", text);
    return false;
}

// Uploads the planes and `wp`, runs the kernel and downloads the result into `output`. Only the
// last download blocks; the queue is in order, so everything is complete when it returns. After an
// error, transfers may still be using the frames and `wp`.
bool enqueue_warp(AffineTransformerOcl* t, const Frame* frame, const Frame* output,
                  const AffineSix& wp) {
    const auto y_bytes = static_cast<std::size_t>(plane_bytes(frame->stride_y, frame->height));
    const auto uv_bytes = static_cast<std::size_t>(plane_bytes(frame->stride_uv, frame->height));
    const auto write = [t](cl_mem to, std::size_t bytes, const void* from, const char* text) {
        return succeeded(
            clEnqueueWriteBuffer(t->cmd_queue, to, CL_FALSE, 0, bytes, from, 0, nullptr, nullptr),
            "clEnqueueWriteBuffer", text);
    };
    const auto read = [t](cl_mem from, cl_bool blocking, std::size_t bytes, void* to,
                          const char* text) {
        return succeeded(
            clEnqueueReadBuffer(t->cmd_queue, from, blocking, 0, bytes, to, 0, nullptr, nullptr),
            "clEnqueueReadBuffer", text);
    };

    if (!write(t->mem_src_y, y_bytes, frame->plane_y, "Failed to write srcY buffer!!") ||
        !write(t->mem_src_uv, uv_bytes, frame->plane_uv, "Failed to write srcUV buffer!!") ||
        !write(t->mem_wp, sizeof(wp), wp.data(), "Failed to write wp buffer!!")) {
        return false;
    }
    set_arguments(t, frame);
    const std::size_t items[] = {
        static_cast<unsigned int>(frame->width) / static_cast<unsigned int>(t->pixels_per_item),
        static_cast<std::size_t>(frame->height)};
    if (!succeeded(clEnqueueNDRangeKernel(t->cmd_queue, t->kernel, 2, nullptr, items, nullptr, 0,
                                          nullptr, nullptr),
                   "clEnqueueNDRangeKernel", "Failed to clEnqueueNDRangeKernel!!")) {
        return false;
    }
    return read(t->mem_dst_y, CL_FALSE, y_bytes, output->plane_y, "Failed to read dstY buffer!!") &&
           read(t->mem_dst_uv, CL_TRUE, uv_bytes, output->plane_uv,
                "Failed to read dstUV buffer!!");
}

// Warps the frame into its output. Returns RESULT_OK and *output, or the error, which is logged.
int warp_frame(AffineTransformerOcl* t, Frame* frame, const AffineSix& transform, Frame** output) {
    const bool planar = t->format == PIX_FMT_YUV420P;
    const bool packed = t->pixels_per_item == 32;
    if (!warp_stays_in_planes({frame->width, frame->height, frame->stride_y, frame->stride_uv},
                              planar, packed)) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG,
                            "Frame does not fit its planes: %d x %d, strides %d, %d", frame->width,
                            frame->height, frame->stride_y, frame->stride_uv);
        return RESULT_FAILED;
    }
    const AffineSix wp = warp_parameters(transform, t->crop_ratio, t->width, t->height);
    const int result = make_output(t, frame, output);
    if (result != RESULT_OK) {
        return result;
    }
    if (!enqueue_warp(t, frame, *output, wp)) {
        clFinish(t->cmd_queue);  // transfers must not outlive the frames and `wp`
        return RESULT_FAILED;
    }
    return RESULT_OK;
}

void deliver(AffineTransformerOcl* t, Frame* output) {
    if (t->callbacks.on_frame != nullptr) {
        t->callbacks.on_frame(t->user, output);
    } else {
        frame_delete(output);
    }
}

void end_of_stream(AffineTransformerOcl* t) {
    __android_log_print(LOG_WARN, WARP_OCL_TAG, "Meet End of Input Stream...");
    t->output_eos.store(1);
    if (t->callbacks.on_eos != nullptr) {
        t->callbacks.on_eos(t->user);
    }
    __android_log_print(LOG_WARN, WARP_OCL_TAG, "thread meet EOS, and return");
    t->quit.store(1);
}

// Takes, warps and delivers one frame. Returns RESULT_OK, or the code that ends the thread.
int process_frame(AffineTransformerOcl* t) {
    Frame* frame = nullptr;
    AffineSix transform{};
    const int taken = fifo_take(input_fifo(t), &frame, copy_transform, &transform);
    if (taken != RESULT_OK) {
        return taken;
    }
    t->input_in_hand = frame;
    Frame* output = nullptr;
    const int warped = warp_frame(t, frame, transform, &output);
    if (warped != RESULT_OK) {
        return warped;
    }
    t->input_in_hand = nullptr;
    t->output_in_hand = nullptr;
    deliver(t, output);
    if (t->in_place == 0) {
        frame_delete(frame);
    }
    return RESULT_OK;
}

}  // namespace

FrameFifo input_fifo(AffineTransformerOcl* t) {
    return {t->input_queue, t->input_count, t->input_capacity, t->mutex,
            t->cond,        t->quit,        t->input_eos,      t->timeout_ms};
}

void* transformer_thread(void* transformer) {
    auto* const t = static_cast<AffineTransformerOcl*>(transformer);
    int result = RESULT_OK;
    while (result == RESULT_OK && t->quit.load() == 0) {
        result = process_frame(t);
    }
    switch (result) {
        case RESULT_OK:  // stopped between two frames
            break;
        case RESULT_STOPPING:
            __android_log_print(LOG_WARN, WARP_OCL_TAG, "AffineTransformerOcl quit");
            __android_log_print(LOG_WARN, WARP_OCL_TAG, "thread quited, and return");
            break;
        case RESULT_END_OF_STREAM:
            end_of_stream(t);
            break;
        default:
            __android_log_print(LOG_ERROR, WARP_OCL_TAG, "AffineTransformerOcl met an error: %d",
                                result);
            if (t->on_failure != nullptr) {
                t->on_failure(t->user);
            }
            break;
    }
    return nullptr;
}

}  // namespace videostabilizer
