#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "videostabilizer/export.h"
#include "videostabilizer/frame.h"
#include "videostabilizer/ocl_runtime.h"
#include "videostabilizer/opencl_types.h"

namespace videostabilizer {

// How a warp stage returns its frames. All four run on the stage's own thread; none may call
// affine_transformer_ocl_fini or _delete, which wait for that thread.
struct AffineTransformerCallbacks {
    // Receives each finished frame, in the order sent, and with it the ownership. May block, but
    // must return once its user is stopping, or fini waits for ever. The result is ignored.
    int (*on_frame)(void* user, Frame* frame);

    // Called once, after the last frame, when the input has ended; not after a stop or an error.
    void (*on_eos)(void* user);

    // Context of create_frame; null: the stage makes its output frames itself, with frame_create.
    void* ctx;

    // Makes an output frame for the stage to fill. Its planes must hold stride_y * height and
    // stride_uv * height bytes of the input frame's geometry; the rows are written with the input
    // frame's strides. Only its timestamp is set by the stage. Null ends the stage with an error.
    // Used only when the stage is not in place and ctx is non-null.
    Frame* (*create_frame)(void* ctx);
};

// The warp stage: a queue of frames and a thread that warps each of them on the GPU by the
// transform that the frame carries in `opaque`, and hands it to a callback.
//
// Transform:  six floats a b c d e f in row order, which carry a source position (x, y), in luma
//             pixels, to the output position (a x + b y + c, d x + e y + f). A frame whose `opaque`
//             is null is warped by the identity. With T the transform, r = crop_ratio and s the
//             size given to init, output position p shows source position (1 - r) / 2 s + r T^-1 p:
//             the centred r-sized part of the picture, enlarged to full size, with r times the
//             shift of T. A singular transform gives a picture of one colour. The floats are copied
//             when the stage's thread takes the frame from the queue; they must stay as they are
//             until then, that is until a queue of capacity n has taken n more frames.
// Sampling:   luma bilinear, chroma from the nearest sample; what lies outside the source repeats
//             its border.
// Rows:       with a width that is a multiple of 32, rows are taken and written as packed (luma and
//             semi-planar chroma `width` bytes, planar chroma width / 2 bytes apart) whatever the
//             strides say. With any other width the strides count, and the last width % 16 luma
//             columns, with the chroma that belongs to them, are not warped: they are black in
//             every output frame, in place or not. What lies between rows is overwritten too.
// Frames:     each brings its own geometry, normally that given to init. One that needs larger
//             planes than init's ends the stage with an error, as does one whose picture does not
//             fit its own strides.
// Errors:     an error of the stage's thread is logged and ends the thread. Frames are then still
//             accepted until the queue is full, after which a send waits until fini.
//
// Threads: send, get, signal_eos and the predicates are thread-safe; create, init, fini and delete
//          belong to one owner, except that a second fini at the same time is harmless.
// Log tag: "warp_affine_ocl".
//
// The fields are for reading; only the functions below change them.
struct AffineTransformerOcl {
    OclRuntime* runtime;          // shared by the process
    PixFmt format;                // as given to init, like the next four
    int width;                    // pixels; chooses the kernel, and the centre of the crop
    int height;                   // rows; the centre of the crop
    int stride_y;                 // bytes; with height, the size of the luma buffers
    int stride_uv;                // bytes; with height, the size of the chroma buffers
    int pixels_per_item;          // luma pixels of a kernel's work item: 32 or 16
    std::int32_t input_capacity;  // frames
    float crop_ratio;             // part of the source that the output shows; 1 is all of it

    cl_command_queue cmd_queue;
    cl_kernel kernel;
    cl_mem mem_src_y;
    cl_mem mem_src_uv;
    cl_mem mem_dst_y;
    cl_mem mem_dst_uv;
    cl_mem mem_wp;  // six floats: output position to source position

    Frame input_queue;                      // sentinel; its links are guarded by `mutex`
    std::atomic<std::int32_t> input_count;  // frames queued; written under `mutex`
    std::atomic<std::int32_t> input_eos;    // no more frames will be sent
    std::atomic<std::int32_t> output_eos;   // the last frame was delivered
    std::atomic<std::int32_t> quit;         // stop mark: set by fini, and at the end of the stream
    std::int32_t timeout_ms;                // length of one timed wait for input: 1000
    pthread_t worker;
    pthread_mutex_t mutex;
    pthread_cond_t cond;  // a frame was queued, or fini was called
    int in_place;         // nonzero: the output is written back into the input frame
    void* user;           // passed to on_frame and on_eos
    AffineTransformerCallbacks callbacks;

    std::atomic<std::int32_t> worker_started;  // 1: `worker` runs or waits to be joined
    std::atomic<std::int32_t> needs_fini;      // 1 until fini, which whoever clears it carries out
    Frame* input_in_hand;                      // frame being warped; after an error fini deletes it
    Frame* output_in_hand;  // its output, if that is a frame of its own; as above
    // Called last by a thread that ends with an error. Null, or set before init; the stabilizer's.
    void (*on_failure)(void* user);
};

// Makes a stage, to be initialised next. Frames sent and an end signalled before are forgotten by
// the initialisation.
// in_place:  nonzero: the output of a frame is the frame itself, its planes overwritten.
//            0: a new frame, with the input's timestamp; the input is deleted after on_frame.
// user:      passed to on_frame and on_eos
// callbacks: copied. Frames of a stage without on_frame are released when they are done.
// capacity:  frames that the queue holds, at least 1 (with less, every send waits until fini)
// Returns: the stage, for affine_transformer_ocl_delete; or null with an error in the log: no
//          memory, or affine_transformer_ocl_module_init has not succeeded before.
VIDEOSTABILIZER_API AffineTransformerOcl* affine_transformer_ocl_create(
    int in_place, void* user, AffineTransformerCallbacks callbacks, int capacity);

// Sets the geometry, makes the OpenCL objects and starts the stage's thread. Once per stage.
// format:     4:2:0, semi-planar or planar
// stride_y, stride_uv: bytes; times `height` they are the size of the luma and chroma planes
// crop_ratio: part of the source that the output shows, centred: 0.9 enlarges by 1 / 0.9
// Returns: 0; -1 with an error in the log (other formats, an OpenCL call failed, init of a running
//          stage); -10007 (no thread). After a failure what was made stays in the record until fini
//          or delete.
VIDEOSTABILIZER_API int affine_transformer_ocl_init(AffineTransformerOcl* t, PixFmt format,
                                                    int width, int height, int stride_y,
                                                    int stride_uv, float crop_ratio);

// Hands a frame to the stage; waits while the queue is full.
// Ownership: the frame is the stage's from this call on, whatever is returned.
// Returns:   0; -10002: the stage is stopping, the frame was deleted; -20000: `frame` is null.
VIDEOSTABILIZER_API int affine_transformer_ocl_send_frame(AffineTransformerOcl* t, Frame* frame);

// Takes the oldest frame out of the queue, unwarped; waits for one. The stage's thread does the
// same: another taker has its frames missing from the output.
// Ownership: *frame is the caller's.
// Returns:   0; -10001: the queue is empty and its end was signalled; -10002: it is empty and the
//            stage is stopping; -10003: woken with nothing to take. *frame is set only with 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_get_frame(AffineTransformerOcl* t, Frame** frame);

// Whether the queue is full or empty at this moment: 1 or 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_full(AffineTransformerOcl* t);
VIDEOSTABILIZER_API int affine_transformer_ocl_empty(AffineTransformerOcl* t);

// Marks the end of the input. What is queued is still warped and delivered, then on_eos is called.
// An idle stage notices within its timed wait, at most one second later.
VIDEOSTABILIZER_API void affine_transformer_ocl_signal_eos(AffineTransformerOcl* t);

// 1 when the last frame has been delivered (also inside on_eos), else 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_reach_eos(AffineTransformerOcl* t);

// Ends the stage: waits for the frame being warped and its callback, ends the thread, deletes the
// frames still queued or left in hand by an error, and releases the OpenCL objects. Works in every
// state: never or not completely initialised, idle, busy, at the end of the stream, after an error.
// A further call returns at once, also while the first is still at work.
// Threads: not from the stage's own callbacks.
// Returns: 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_fini(AffineTransformerOcl* t);

// Ends the stage as fini does, if that has not been done, and releases the record. No other thread
// may be using it. Null is allowed and does nothing.
VIDEOSTABILIZER_API void affine_transformer_ocl_delete(AffineTransformerOcl* t);

}  // namespace videostabilizer
