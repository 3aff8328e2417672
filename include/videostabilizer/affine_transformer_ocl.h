// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "videostabilizer/export.h"
#include "videostabilizer/frame.h"
#include "videostabilizer/ocl_runtime.h"
#include "videostabilizer/opencl_types.h"

namespace videostabilizer {

// How a warp stage returns its frames. All functions are called on the stage's thread and must not
// call affine_transformer_ocl_fini or _delete, which join that thread.
struct AffineTransformerCallbacks {
    // Receives each finished frame, in the order sent, and its ownership. May block, but must
    // return once its user is stopping, otherwise fini never returns. The result is ignored.
    int (*on_frame)(void* user, Frame* frame);

    // Called once, after the last frame, when the input has ended; not after a stop or an error.
    void (*on_eos)(void* user);

    // Context of create_frame. Null: the stage allocates its output frames with frame_create.
    void* ctx;

    // Returns an output frame with planes of at least stride_y * height and stride_uv * height
    // bytes of the input frame's geometry; rows are written with the input frame's strides. The
    // stage sets nothing but the timestamp. Null ends the stage with an error. Used only when the
    // stage is not in place and ctx is non-null.
    Frame* (*create_frame)(void* ctx);
};

// The warp stage: a queue of frames and a thread that warps each frame on the GPU by the transform
// in its `opaque` and passes it to a callback.
//
// Transform:  six floats a b c d e f in row order: source position (x, y), in luma pixels, goes to
//             output position (a x + b y + c, d x + e y + f). Null means the identity. With T the
//             transform, r = crop_ratio and s the size given to init, output position p shows
//             source position (1 - r) / 2 s + r T^-1 p: the centred r-sized part of the picture,
//             enlarged to full size, with r times the shift of T. A singular transform gives a
//             picture of one colour. The floats are copied when the stage's thread takes the frame
//             from the queue and must not change before; at the latest, that is when a queue of
//             capacity n has accepted n more frames.
// Sampling:   luma bilinear, chroma nearest; positions outside the source are clamped to it.
// Rows:       with a width that is a multiple of 32, rows are read and written as packed (luma and
//             semi-planar chroma `width` bytes, planar chroma width / 2 bytes apart) whatever the
//             strides are. With any other width the strides apply, and the last width % 16 luma
//             columns and their chroma are not warped: they are black in every output frame, in
//             place or not. Bytes between rows are overwritten.
// Frames:     each has its own geometry, normally the one given to init. A frame that needs larger
//             planes, or whose picture does not fit its own strides, ends the stage with an error.
// Errors:     an error of the stage's thread is logged and ends the thread. Frames are accepted
//             until the queue is full; after that, send blocks until fini.
// Log tag:    "warp_affine_ocl".
// Threads:    owner only, except where a function says thread-safe.
//
// The fields are for reading only.
struct AffineTransformerOcl {
    OclRuntime* runtime;          // shared by the process
    PixFmt format;                // as given to init, like the next four
    int width;                    // pixels
    int height;                   // rows
    int stride_y;                 // bytes; device luma buffers have stride_y * height bytes
    int stride_uv;                // bytes; device chroma buffers have stride_uv * height bytes
    int pixels_per_item;          // luma pixels per work item of the kernel: 32 or 16
    std::int32_t input_capacity;  // frames
    float crop_ratio;             // shown part of the source; 1 is all of it

    cl_command_queue cmd_queue;  // of this stage
    cl_kernel kernel;            // of this stage
    cl_mem mem_src_y;            // device buffers of a picture:
    cl_mem mem_src_uv;           //
    cl_mem mem_dst_y;            //
    cl_mem mem_dst_uv;           //
    cl_mem mem_wp;               // six floats: output position to source position

    Frame input_queue;                      // sentinel; its links are guarded by `mutex`
    std::atomic<std::int32_t> input_count;  // frames queued; written under `mutex`
    std::atomic<std::int32_t> input_eos;    // no more frames will be sent
    std::atomic<std::int32_t> output_eos;   // the last frame was delivered
    std::atomic<std::int32_t> quit;         // stop flag: set by fini, and at the end of the stream
    std::int32_t timeout_ms;                // 1000: length of one timed wait for input
    pthread_t worker;                       // the stage's thread
    pthread_mutex_t mutex;                  // guards the queue
    pthread_cond_t cond;                    // a frame was queued, or a flag was set
    int in_place;                           // nonzero: the output is written into the input frame
    void* user;                             // passed to on_frame and on_eos
    AffineTransformerCallbacks callbacks;   // of the owner

    std::atomic<std::int32_t> worker_started;  // 1: `worker` runs or waits to be joined
    std::atomic<std::int32_t> needs_fini;      // 1 until a call of fini clears it
    Frame* input_in_hand;            // frame being warped; after an error fini releases it
    Frame* output_in_hand;           // its output, unless in place; likewise
    void (*on_failure)(void* user);  // called last by a thread that ends with an error; may be null
};

// Creates a stage; init comes next and discards frames sent and an end signalled before it.
// in_place:  nonzero: the output overwrites the planes of the input frame.
//            0: a new frame with the input's timestamp; the input is released after on_frame.
// user:      passed to on_frame and on_eos
// callbacks: copied. Without on_frame, finished frames are released.
// capacity:  of the queue, frames; at least 1 (with less, every send blocks until fini)
// Threads: thread-safe.
// Returns: the stage, or null with an error in the log: out of memory, or
//          affine_transformer_ocl_module_init has not succeeded.
VIDEOSTABILIZER_API AffineTransformerOcl* affine_transformer_ocl_create(
    int in_place, void* user, AffineTransformerCallbacks callbacks, int capacity);

// Sets the geometry, creates the OpenCL objects and starts the stage's thread. Once per stage.
// format:     4:2:0, semi-planar or planar
// stride_y, stride_uv: bytes; times `height`, the sizes of the luma plane and the chroma area
// crop_ratio: centred part of the source that the output shows: 0.9 enlarges by 1 / 0.9
// Threads: owner only.
// Returns: 0; -1 with an error in the log (other format, an OpenCL call failed, already running);
//          -10007 (no thread). After a failure, fini or delete releases what was created.
VIDEOSTABILIZER_API int affine_transformer_ocl_init(AffineTransformerOcl* t, PixFmt format,
                                                    int width, int height, int stride_y,
                                                    int stride_uv, float crop_ratio);

// Passes a frame to the stage. Blocks while the queue is full.
// Ownership: the frame is the stage's from this call on, whatever the result.
// Threads:   thread-safe.
// Returns:   0; -10002: stopping, the frame was released; -20000: `frame` is null.
VIDEOSTABILIZER_API int affine_transformer_ocl_send_frame(AffineTransformerOcl* t, Frame* frame);

// Takes the oldest frame out of the queue, unwarped; blocks until there is one. Competes with the
// stage's thread: a frame taken here is missing from the output.
// Ownership: *frame is the caller's.
// Threads:   thread-safe.
// Returns:   0; with an empty queue -10001 (end signalled) or -10002 (stopping); -10003: woken with
//            nothing to take. *frame is written only with 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_get_frame(AffineTransformerOcl* t, Frame** frame);

// Whether the queue is full or empty at this moment: 1 or 0. Threads: thread-safe.
VIDEOSTABILIZER_API int affine_transformer_ocl_full(AffineTransformerOcl* t);
// Likewise.
VIDEOSTABILIZER_API int affine_transformer_ocl_empty(AffineTransformerOcl* t);

// Signals the end of the input: queued frames are still delivered, then on_eos is called. An idle
// stage notices at the end of its timed wait, at most a second later.
// Threads: thread-safe. Returns 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_signal_eos(AffineTransformerOcl* t);

// 1 once the last frame has been delivered (also inside on_eos), else 0. Threads: thread-safe.
VIDEOSTABILIZER_API int affine_transformer_ocl_reach_eos(AffineTransformerOcl* t);

// Ends the stage: waits for the frame being warped and its callback, joins the thread, releases the
// frames inside and the OpenCL objects. Allowed in every state, also after a failed init or an
// error. A further call returns at once, even while the first still runs.
// Threads: owner only, except that the thread-safe functions and a second fini may run meanwhile.
//          Not from the stage's callbacks.
// Returns: 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_fini(AffineTransformerOcl* t);

// Ends the stage if fini has not done so, and releases the record. Null is allowed.
// Threads: owner only. No other call may be in progress.
VIDEOSTABILIZER_API void affine_transformer_ocl_delete(AffineTransformerOcl* t);

}  // namespace videostabilizer
