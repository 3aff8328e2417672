#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include "videostabilizer/affine_transformer_ocl.h"
#include "videostabilizer/export.h"
#include "videostabilizer/fast16.h"
#include "videostabilizer/frame.h"
#include "videostabilizer/gaussian_motion_filter.h"
#include "videostabilizer/keypoint.h"
#include "videostabilizer/lucas_kanade.h"
#include "videostabilizer/mat.h"
#include "videostabilizer/ransac.h"
#include "videostabilizer/result.h"
#include "videostabilizer/stabilizer_options.h"

// The stabilizer: shaky frames in, steady frames out, in the same order, ten frames later (or as many
// as the options say).
//
//   video_stabilizer_module_init -> create -> start -> push, pop, signal_eos -> stop -> delete
//
// Threads, said once for all functions below:
//   *thread-safe*   any number of threads may call it at once, also with other thread-safe ones.
//   *owner only*    one thread, while no other call on this stabilizer runs (pop, push and the
//                   like may run during stop, which releases them).
// None of the functions may be called from a callback of the same stabilizer (frame maker,
// observer): the pipeline stands still while those run.
//
// A frame's way: push hands it to the stabilizer for good; a frame that is refused, or that is
// inside when the stream is stopped, is released there (the record; and the pixels if it owns
// them). Up to look_ahead + 8 frames are inside at once, 18 by default: 3 in the input queue,
// look_ahead + 1 with the worker, 2 with the warp stage, 2 in the output queue.

namespace videostabilizer {

class SteadyPath;  // the library's own

// How a host makes output frames itself. Matters only if the stabilizer works not in place.
struct VideoStabilizerUser {
    void* ctx;                          // handed to create_frame; must not be null
    Frame* (*create_frame)(void* ctx);  // makes the frame that receives a steady picture: planes of
                                        // at least stride_y * height and stride_uv * height bytes
                                        // of the stream. Called on the warp stage's thread. Null
                                        // ends the stream with an error in the log.
};

// How the correction of one frame came about.
struct VideoStabilizerReport {
    std::int32_t frame;       // from 0
    std::int32_t look_ahead;  // frames: the delay of the stream
    float sigma;              // frames: of the weights in use
    std::int32_t guarded;     // 1: the edge guard held something of the wished correction back
    float granted;            // 0..1: the part of the wished correction that was made
    std::int32_t repaired;    // 1: the motion from the frame before was not found, but made up from
                              // its neighbours
    std::int32_t scene_start;  // 1: the first frame after a scene cut
};

// What the analysis found, for hosts that show or record it. Any function may be null. All are
// called on the worker thread, in the order of the frames; arrays and logs are valid only during
// the call. Frames count from 0. Matrices are row-major 3x3 in full-resolution pixels.
struct VideoStabilizerObserver {
    void* ctx;  // handed to all functions
    // The motion that carries positions in frame `frame` to frame `frame` + 1, as estimated.
    void (*on_motion)(void* ctx, std::int32_t frame, const float motion[9], const MotionLog* log);
    // The transform that carries positions in frame `frame` to the steady picture, before the crop.
    // Without whole_shift the warp stage's crop also shortens the shift by the crop ratio (the
    // stage's header has the arithmetic). Called just before the frame goes to the stage.
    void (*on_correction)(void* ctx, std::int32_t frame, const float correction[9]);
    // How the correction of a frame came about. Called after on_correction.
    void (*on_report)(void* ctx, const VideoStabilizerReport* report) = nullptr;
};

// The record of one stream. Hosts use the functions below; the fields are laid open for inspection
// and belong to the library's threads while the stream runs.
struct VideoStabilizer {
    std::int32_t width;      // stream geometry: pixels, bytes
    std::int32_t height;     //
    std::int32_t stride_y;   //
    std::int32_t stride_uv;  //
    PixFmt format;
    Frame input_queue;                       // sentinel; links guarded by input_mutex
    Frame output_queue;                      // sentinel; links guarded by output_mutex
    std::atomic<std::int32_t> input_count;   // written under input_mutex
    std::atomic<std::int32_t> output_count;  // written under output_mutex
    std::int32_t input_capacity;             // 3
    std::int32_t output_capacity;            // 2
    std::int32_t scale;                      // decimation of the analysis images: 1, 2 or 4
    unsigned char* luma_block;               // both analysis images
    unsigned char* prev_luma;                // analysis image of the previous frame
    unsigned char* cur_luma;                 // analysis image of the newest frame
    FastParams fast_params;
    LK_Params lk_params;
    RansacParams ransac_params;
    std::int32_t max_points;             // 256: reserved capacity of every point list
    std::vector<KeyPoint> next_points;   // tracked corners in the newest analysis image
    std::vector<KeyPoint> prev_points;   // corners of the previous analysis image
    std::vector<KeyPoint> matched_prev;  // tracked pairs, full-resolution pixels
    std::vector<KeyPoint> matched_next;
    std::vector<unsigned char> track_status;  // per corner: 1 tracked, 0 lost
    std::int32_t radius;        // look_ahead: half the smoothing span, and the delay, frames
    std::int32_t ring_size;     // 2 * radius + 1
    std::int32_t frame_index;   // newest frame taken by the worker; -1 before
    std::int32_t output_index;  // newest frame sent to the warp stage; -1 before
    std::vector<Frame*>
        ring_frames;  // frames that wait for their correction, by index mod ring_size
    std::vector<SimpleLA::Mat<float>*>
        motions;  // slot i mod ring_size: motion from frame i to i + 1
    std::vector<SimpleLA::Mat<float>*>
        warp_pool;                       // correcting transforms on their way to the stage
    std::vector<MotionLog> motion_logs;  // beside `motions`
    GaussianMotionFilter* filter;
    std::int32_t in_place;
    AffineTransformerOcl* transformer;     // the warp stage
    VideoStabilizerUser* user;             // the host's; may be null
    std::atomic<std::int32_t> quit;        // stop mark
    std::atomic<std::int32_t> input_eos;   // the host signalled the end of its input
    std::atomic<std::int32_t> output_eos;  // the warp stage has delivered its last frame
    std::int32_t timeout_ms;               // 3000: length of one timed wait
    pthread_t worker;
    pthread_mutex_t input_mutex;
    pthread_mutex_t output_mutex;
    pthread_cond_t input_cond;   // with input_mutex: a frame was queued, or a flag raised
    pthread_cond_t output_cond;  // with output_mutex: likewise
    pthread_cond_t eos_cond;     // with output_mutex: output_eos was set

    std::atomic<std::int32_t> worker_joinable;  // 1 from start until the worker is joined
    std::atomic<std::int32_t> failed;           // 1: a thread has ended with an error
    VideoStabilizerObserver observer;
    VideoStabilizerOptions options;
    SteadyPath* steady_path;  // null where the filter alone does
};

// Sets up OpenCL once per process. Threads: thread-safe. Returns 0, or -1 with the reason in the
// log (no platform, no device, kernels do not build); a failure is final for the process.
VIDEOSTABILIZER_API int video_stabilizer_module_init();

// Counterpart of module_init. What was set up stays for the rest of the process, so that init and
// fini may alternate; but fini before the first init spends the one chance to set up. Returns 0.
VIDEOSTABILIZER_API int video_stabilizer_module_fini();

// Makes a stabilizer for one stream. The warp stage's thread runs when it returns, the worker does
// not.
//
// width, height  even, at least 16 and at least the decimation factor; planes up to 128 MiB.
// stride_y       at least width. The analysis reads the luma plane as packed rows of `width` bytes,
//                WHATEVER stride_y SAYS: a stream whose stride_y differs from its width is warped
//                as its (meaningless) measured motion demands.
// stride_uv      planar: at least width / 2. Semi-planar: large enough that stride_uv * height
//                bytes hold height / 2 rows of pairs, stride_y apart. width / 2 for packed
//                pictures.
//                When width is a multiple of 32, the warp takes the rows of all planes as packed,
//                and the V plane at width * height / 4, whatever both strides say. In short: copy
//                padded pictures into packed frames.
// format         PIX_FMT_YUV420P or a semi-planar format.
// reserved       not read.
// in_place       nonzero: the steady picture is written into the very frame that was pushed, which
//                is then popped. 0: into a frame of user->create_frame, or, without a user record
//                or with one whose fields are not both set, into a new owning frame.
// user           the host's; must live as long as the stabilizer. May be null.
//
// When width is not a multiple of 16 the last width mod 16 columns of each row are not warped and
// come out black. Hosts that need every column pad the width to a multiple of 16.
//
// Threads: thread-safe. Returns null, with the reason in the log, when the geometry or the format
// is refused, OpenCL is not set up, memory runs out or the warp stage cannot be initialised;
// nothing is left behind.
VIDEOSTABILIZER_API VideoStabilizer* video_stabilizer_create(int width, int height, int stride_y,
                                                             int stride_uv, PixFmt format,
                                                             int reserved, int in_place,
                                                             VideoStabilizerUser* user);

// The same with a choice of options; null stands for the defaults.
//
// Memory per stream, in bytes, with s the decimation (1, 2 or 4) and a = look_ahead:
//   the library   2 (width / s) (height / s) for the analysis, 600 a and 100,000 for the rest,
//                 with edge_guard 200,000 more;
//                 on the OpenCL device 2 height (stride_y + stride_uv)
//   the frames    (a + 8) frames of the host are inside at once, at most: for 1280 x 720 and the
//                 longest look-ahead 128 frames of 1.4 MB each
//
// Errors:  as above, and null with one line in the log for options outside their ranges.
// Threads: thread-safe; `options` is read during the call only.
VIDEOSTABILIZER_API VideoStabilizer* video_stabilizer_create_with_options(
    int width, int height, int stride_y, int stride_uv, PixFmt format, int in_place,
    VideoStabilizerUser* user, const VideoStabilizerOptions* options);

// Sets or (null) removes the observer. The record is copied.
// Threads: owner only, before start.
VIDEOSTABILIZER_API void video_stabilizer_set_observer(VideoStabilizer* stabilizer,
                                                       const VideoStabilizerObserver* observer);

// Starts the worker. Frames pushed before are kept; an end of input signalled before is forgotten.
// A stream runs once: a stabilizer that was started or stopped before is not started again.
// Threads: owner only. Returns 0, or -10007 when the thread cannot be created or was started
// before.
VIDEOSTABILIZER_API int video_stabilizer_start(VideoStabilizer* stabilizer);

// Ends the stream at any point: releases every call that waits, joins both threads, releases the
// OpenCL objects and every frame that is still inside. A second stop, or one after the end of the
// stream was popped, says so in the log and only joins and releases what is left. Safe on a
// stabilizer that was never started.
// Threads: owner only, but push, pop, signal_eos and the predicates may run meanwhile; not together
//          with delete. Returns 0.
VIDEOSTABILIZER_API int video_stabilizer_stop(VideoStabilizer* stabilizer);

// Releases the frames in both queues. Threads: thread-safe. Returns 0.
VIDEOSTABILIZER_API int video_stabilizer_flush(VideoStabilizer* stabilizer);

// Stops the stream if that has not happened, and releases everything. Null is allowed.
// Threads: owner only, and no other call may be in progress, wait_eos included.
VIDEOSTABILIZER_API void video_stabilizer_delete(VideoStabilizer* stabilizer);

// Hands a frame to the stabilizer; blocks while the input queue is full (3 frames), which is as
// long as the host does not pop.
// Ownership: the frame is the stabilizer's from this call on, whatever is returned.
// Threads:   thread-safe; frames are taken in the order in which pushes succeed.
// Returns:   0; -10001 when the input was ended; -10002 when stopping, or when the queue is full
//            and a library thread has ended with an error; -1 (and a line in the log) for a frame
//            whose picture size is not the stream's, whose chroma layout is another, or whose
//            planes are missing or larger than the stream's; -20000 for null.
VIDEOSTABILIZER_API int video_stabilizer_push_frame(VideoStabilizer* stabilizer, Frame* frame);

// Takes the next steady frame; blocks until there is one or there will be none.
// Ownership: *out is the caller's. Its `opaque` is no longer valid when working in place.
// Threads:   thread-safe.
// Returns:   0; -10001 once, when the output has ended and all frames were taken; -10002 from then
//            on, when stopping, and when the input ended before any frame; -10003 never in
//            practice. *out is written only with 0.
// Errors:    when a library thread has ended with an error (an OpenCL call failed, memory ran out,
//            the frame maker returned null; the log says which), pop hands out the frames that are
//            done and then returns -10002. The stream is over, but nobody has stopped it: stop, or
//            delete, releases what is inside as ever.
VIDEOSTABILIZER_API int video_stabilizer_pop_frame(VideoStabilizer* stabilizer, Frame** out);

// Snapshots of the queues, 1 or 0, for hosts that want to avoid blocking. Threads: thread-safe.
VIDEOSTABILIZER_API int video_stabilizer_input_empty(VideoStabilizer* stabilizer);
VIDEOSTABILIZER_API int video_stabilizer_input_full(VideoStabilizer* stabilizer);
VIDEOSTABILIZER_API int video_stabilizer_output_empty(VideoStabilizer* stabilizer);
VIDEOSTABILIZER_API int video_stabilizer_output_full(VideoStabilizer* stabilizer);

// Marks the end of the input: later pushes are refused, the frames inside are delivered, then the
// end of the output follows. Threads: thread-safe. Returns 0.
VIDEOSTABILIZER_API int video_stabilizer_signal_eos(VideoStabilizer* stabilizer);

// 1 once the last frame has been put into the output queue (from where it may yet have to be
// popped), else 0. Threads: thread-safe.
VIDEOSTABILIZER_API int video_stabilizer_reached_eos(VideoStabilizer* stabilizer);

// Waits for the above, ten times timeout_ms (30 seconds) at most. Somebody else must pop meanwhile.
// It does not look at the stop mark: a stop ends one of the ten waits early at most, and the
// stabilizer must not be deleted meanwhile. Threads: thread-safe. Returns 0 when the output has
// ended, else 1.
VIDEOSTABILIZER_API int video_stabilizer_wait_eos(VideoStabilizer* stabilizer);

}  // namespace videostabilizer
