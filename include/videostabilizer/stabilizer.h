// SPDX-License-Identifier: Apache-2.0

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
#include "videostabilizer/picture_frame.h"
#include "videostabilizer/ransac.h"
#include "videostabilizer/result.h"
#include "videostabilizer/stabilizer_options.h"

// The stabilizer: shaky frames in, steady frames out, in the same order, look_ahead frames later
// (10 by default).
//
//   video_stabilizer_module_init -> create -> start -> push, pop, signal_eos -> stop -> delete
//
// Threads: as stated per function; docs/threads.md defines the terms. No function may be called
//          from a callback (frame maker, observer) of the same stabilizer: the pipeline waits
//          for the callback to return.
//
// Ownership: push transfers a frame to the stabilizer. Refused frames, and frames inside
// when the stream is stopped, are released (the record, and the pixels if the frame owns them). At
// most look_ahead + 8 frames are inside, 18 by default: 3 in the input queue, look_ahead + 1 in the
// worker, 2 in the warp stage, 2 in the output queue.

namespace videostabilizer {

class PictureStage;       // internal
class CameraMotion;       // internal
class SteadyPath;         // internal
struct PictureTransform;  // internal
struct LiveSettings;      // internal

// The host's allocator of output frames; used only when in_place is 0.
struct VideoStabilizerUser {
    void* ctx;                          // passed to create_frame; must not be null
    Frame* (*create_frame)(void* ctx);  // returns the frame that receives a steady picture, with
                                        // planes of at least stride_y * height and
                                        // stride_uv * height bytes of the stream. Null ends the
                                        // stream with an error. Called on the warp stage's thread.
};

// How the correction of one frame was computed.
struct VideoStabilizerReport {
    std::int32_t frame;        // see VideoStabilizerObserver
    std::int32_t look_ahead;   // frames: the delay of the stream
    float sigma;               // frames: of the weights in use
    std::int32_t guarded;      // 1: the edge guard reduced the correction
    float granted;             // 0..1: share of the unconstrained correction that was applied
    std::int32_t repaired;     // 1: the motion from the previous frame was interpolated
    std::int32_t scene_start;  // 1: first frame after a scene cut
    float crop;                // 0.5..1: part of the width and height that is shown
    float readout;  // -1..1: see VideoStabilizerOptions; 0: the frame has no correction of lines
    float readout_confidence;  // 0..1; 1 where it is given
    std::int32_t columns;      // 1: lines are columns
    // Pixels that the middle of the first and of the last line is moved by against that of the picture.
    float first_line[2];
    float last_line[2];  //
};

// Results of the analysis, for hosts that display or record them. Any function may be null. All are
// called on the worker thread, in frame order; arrays and logs are valid during the call only.
// Frames are numbered from 0; after 2^31 - 1 comes 0 again. Matrices are row-major 3x3, in
// full-resolution pixels.
struct VideoStabilizerObserver {
    void* ctx;  // passed to all functions
    // The motion that maps positions in frame `frame` to frame `frame` + 1, as the correction of
    // frame `frame` + 1 uses it: interpolated where it was not found with repair_motions (log status
    // 2). With edge_guard, repair_motions or scene_cuts it is a similarity, and the log has the places
    // that were followed as npoints and track_ratio, and those that agree with it as ninliers. Called
    // just before that frame's on_correction.
    void (*on_motion)(void* ctx, std::int32_t frame, const float motion[9], const MotionLog* log);
    // The transform that maps positions in frame `frame` to the steady picture, before the crop.
    // Without whole_shift the warp stage multiplies its shift by the crop ratio (see
    // affine_transformer_ocl.h). Called just before the frame is sent to the stage.
    void (*on_correction)(void* ctx, std::int32_t frame, const float correction[9]);
    // Called after on_correction.
    void (*on_report)(void* ctx, const VideoStabilizerReport* report) = nullptr;
};

// The record of one stream. Hosts use the functions below. The fields are public for inspection
// only; while the stream runs they belong to the library's threads.
struct VideoStabilizer {
    std::int32_t width;                       // stream geometry: pixels, bytes
    std::int32_t height;                      //
    std::int32_t stride_y;                    // 0 in streams of PIX_FMT_PICTURE
    std::int32_t stride_uv;                   // likewise
    PixFmt format;                            // of the frames
    Frame input_queue;                        // sentinel; links guarded by input_mutex
    Frame output_queue;                       // sentinel; links guarded by output_mutex
    std::atomic<std::int32_t> input_count;    // written under input_mutex
    std::atomic<std::int32_t> output_count;   // written under output_mutex
    std::int32_t input_capacity;              // 3
    std::int32_t output_capacity;             // 2
    std::int32_t scale;                       // decimation of the analysis images: 1, 2 or 4
    unsigned char* luma_block;                // both analysis images
    unsigned char* prev_luma;                 // analysis image of the previous frame
    unsigned char* cur_luma;                  // analysis image of the newest frame
    FastParams fast_params;                   // of the corner detector
    LK_Params lk_params;                      // of the tracker
    RansacParams ransac_params;               // of the motion estimator
    std::int32_t max_points;                  // 256: reserved capacity of every point list
    std::vector<KeyPoint> next_points;        // tracked corners in the newest analysis image
    std::vector<KeyPoint> prev_points;        // corners of the previous analysis image
    std::vector<KeyPoint> matched_prev;       // tracked pairs, full-resolution pixels
    std::vector<KeyPoint> matched_next;       //
    std::vector<unsigned char> track_status;  // per corner: 1 tracked, 0 lost
    std::int32_t radius;                      // frames: look-ahead, and half the smoothing span
    std::int32_t ring_size;                   // 2 * radius + 1
    std::int32_t frame_index;   // newest frame taken by the worker, modulo 2^31; -1: none yet
    std::int32_t output_index;  // newest frame sent to the warp stage, likewise
    // Rings: frame i has slot i mod ring_size.
    std::vector<Frame*> ring_frames;             // frames that await their correction
    std::vector<SimpleLA::Mat<float>*> motions;  // motion from frame i to i + 1
    // Correcting transforms on their way to the stage.
    std::vector<SimpleLA::Mat<float>*> warp_pool;
    std::vector<MotionLog> motion_logs;    // ring; belongs to `motions`
    GaussianMotionFilter* filter;          // smooths the path
    std::int32_t in_place;                 // as given
    AffineTransformerOcl* transformer;     // the warp stage of the stated kernels; else null
    VideoStabilizerUser* user;             // the host's; may be null
    std::atomic<std::int32_t> quit;        // stop flag
    std::atomic<std::int32_t> input_eos;   // the host signalled the end of its input
    std::atomic<std::int32_t> output_eos;  // the warp stage has delivered its last frame
    std::int32_t timeout_ms;               // 3000: length of one timed wait
    pthread_t worker;                      // the thread of the analysis
    pthread_mutex_t input_mutex;           // see the queues
    pthread_mutex_t output_mutex;          //
    pthread_cond_t input_cond;   // with input_mutex: a frame was queued, or a flag was set
    pthread_cond_t output_cond;  // with output_mutex: likewise
    pthread_cond_t eos_cond;     // with output_mutex: a flag was set

    std::atomic<std::int32_t> worker_joinable;  // 1 from start until the worker is joined
    std::atomic<std::int32_t> failed;           // 1: a thread has ended with an error
    VideoStabilizerObserver observer;           // the host's
    VideoStabilizerOptions options;             // as decided
    SteadyPath* steady_path;                    // null: the filter alone is used
    std::int64_t newest_frame;                  // frame_index, unbounded
    std::int64_t sent_frame;                    // output_index, unbounded
    PictureStage* picture_stage;                // the warp stage where `transformer` is null
    PixelLayout layout;  // of the pictures, where `format` is PIX_FMT_PICTURE
    // Pictures of more than 8 bits, with steady_path: the upper 8 of the luma of frame i, packed, in
    // i mod 2; else empty.
    std::vector<unsigned char> upper_bits[2];
    CameraMotion* camera_motion;  // finds the steps for steady_path; null without
    // On their way to picture_stage, like warp_pool.
    PictureTransform* picture_transforms[2];
    std::atomic<LiveSettings*> next_settings;  // which the worker is to take over; null: none
};

// Sets up OpenCL, once per process.
// Threads: thread-safe.
// Returns: 0, or -1 with the reason in the log (no platform, no device, kernels do not build). A
//          failure is final for the process.
VIDEOSTABILIZER_API int video_stabilizer_module_init();

// Counterpart of module_init. OpenCL stays set up until the process ends, so pairs of init and fini
// may be repeated. A fini before the first init prevents every later one from succeeding.
// Threads: thread-safe. Returns 0.
VIDEOSTABILIZER_API int video_stabilizer_module_fini();

// Creates a stabilizer for one stream. Starts the warp stage's thread, but not the worker.
//
// width, height  pixels; even, at least 16.
// stride_y       bytes, at least width. The analysis reads luma rows of `width` bytes WHATEVER
//                stride_y IS: with stride_y > width it measures meaningless motions.
// stride_uv      bytes. Planar: at least width / 2. Semi-planar: stride_uv * height bytes must hold
//                height / 2 rows of pairs, stride_y apart. width / 2 for packed pictures.
//                With a width that is a multiple of 32 the warp takes the rows of all planes as
//                packed, and the V plane at width * height / 4, whatever both strides are.
//                In short: copy padded pictures into packed frames.
//                The luma plane and the chroma area are at most 128 MiB each.
// format         PIX_FMT_YUV420P or a semi-planar 4:2:0 format.
// reserved       ignored.
// in_place       nonzero: the steady picture overwrites the pushed frame, which is then popped.
//                0: it is written to a frame from user->create_frame or, without a complete user
//                record, to a new owning frame.
// user           the host's, must outlive the stabilizer. May be null.
//
// When width is not a multiple of 16, the last width mod 16 columns of each row are not warped and
// come out black. Pad the width to a multiple of 16 if every column matters.
//
// Threads: thread-safe.
// Returns: the stabilizer, or null with the reason in the log: geometry or format refused, OpenCL
//          not set up, out of memory, an OpenCL call failed.
VIDEOSTABILIZER_API VideoStabilizer* video_stabilizer_create(int width, int height, int stride_y,
                                                             int stride_uv, PixFmt format,
                                                             int reserved, int in_place,
                                                             VideoStabilizerUser* user);

// As above, with options; null means the defaults. `options` is read during the call only.
// All streams but those of the stated sampling with OpenCL read all rows with the strides of the
// pushed frame and write them with the same, whatever those of a frame from create_frame are; they warp
// every column, and repeat: equal input gives equal output. With the native engine module_init is not
// needed.
//
// Memory per stream, in bytes, with s the decimation (1, 2 or 4) and a = look_ahead:
//   host memory    2 (width / s) (height / s) + 300 a + 100,000
//                  edge_guard, repair_motions or scene_cuts: 320 a + 350,000 more, and two thirds of
//                  width height; with shutter another 8,500 a + 150,000
//   OpenCL device  2 height (stride_y + stride_uv) with the stated sampling; with the others 5 for
//                  each sample of a picture, 7 beyond 8 bits, and 300,000, in part host memory
//   native engine  130,000 instead, 66,000 for each thread but the first, and up to 370,000 more
//                  once pictures are reduced; with shutter up to 2,700,000 more, once lines are moved
//   in_place       the planes of a picture, but not with the stated sampling of OpenCL; also where
//                  frames of create_frame share memory with pushed ones
//   frames         at most a + 8 frames of the host
//
// Threads: thread-safe.
// Returns: as above; also null with the reason in the log for options outside their ranges.
VIDEOSTABILIZER_API VideoStabilizer* video_stabilizer_create_with_options(
    int width, int height, int stride_y, int stride_uv, PixFmt format, int in_place,
    VideoStabilizerUser* user, const VideoStabilizerOptions* options);

// As above, for frames that picture_frame_create has made with this size and layout. Each is read or
// written with its own strides, whatever they are. The analysis reads the upper 8 bits of luma.
//
// width, height  pixels; 16..32768
// layout         read during the call only
// user           create_frame returns frames of picture_frame_create with this size and layout
// options        null means the defaults with engine auto. The stated sampling is native only.
//
// Memory: as above with the engine's; beyond 8 bits with edge_guard, repair_motions or scene_cuts also
//         2 width height bytes.
// Threads: thread-safe.
// Returns: as above.
VIDEOSTABILIZER_API VideoStabilizer* video_stabilizer_create_for_pictures(
    int width, int height, const PixelLayout* layout, int in_place, VideoStabilizerUser* user,
    const VideoStabilizerOptions* options);

// Sets the observer, or removes it (null). The record is copied.
// Threads: owner only, before start.
VIDEOSTABILIZER_API void video_stabilizer_set_observer(VideoStabilizer* stabilizer,
                                                       const VideoStabilizerObserver* observer);

// Starts the worker. Frames pushed before are kept; an end of input signalled before is discarded.
// A stabilizer can be started once, and not after a stop.
// Threads: owner only.
// Returns: 0; -10007 when the thread cannot be created, or on a second start.
VIDEOSTABILIZER_API int video_stabilizer_start(VideoStabilizer* stabilizer);

// Ends the stream: unblocks every waiting call, joins both threads, releases the OpenCL objects and
// all frames inside. Allowed in every state, also before start, after the end of the stream and a
// second time (which is logged).
// Threads: owner only, except that the thread-safe functions of this stabilizer may run meanwhile.
// Returns: 0.
VIDEOSTABILIZER_API int video_stabilizer_stop(VideoStabilizer* stabilizer);

// Releases the frames in the input and the output queue. Threads: thread-safe. Returns 0.
VIDEOSTABILIZER_API int video_stabilizer_flush(VideoStabilizer* stabilizer);

// Stops the stream if necessary and releases everything. Null is allowed.
// Threads: owner only. No other call may be in progress, wait_eos included.
VIDEOSTABILIZER_API void video_stabilizer_delete(VideoStabilizer* stabilizer);

// Passes a frame to the stabilizer. Blocks while the input queue is full (3 frames), which lasts
// until the host pops.
// Ownership: the frame is the stabilizer's from this call on, whatever the result.
// Threads:   thread-safe; frames are processed in the order in which pushes succeed.
// Returns:   0
//            -10001  the end of the input was signalled
//            -10002  stopped, or the queue is full and a library thread has ended with an error
//            -1      with a line in the log: the frame's size or layout differs from the stream's, a
//                    plane is null, or, but in streams of pictures, a stride is larger than the
//                    stream's
//            -20000  frame is null
VIDEOSTABILIZER_API int video_stabilizer_push_frame(VideoStabilizer* stabilizer, Frame* frame);

// Takes the next steady frame. Blocks until there is one or no more can come.
// Ownership: *out is the caller's; with in_place its `opaque` must not be used.
// Threads:   thread-safe.
// Returns:   0
//            -10001  once, when all frames were taken after the end of the input
//            -10002  after that; when stopped; when the input ended before any frame; when a
//                    library thread has ended with an error (an OpenCL call failed, out of memory,
//                    create_frame returned null or a frame that cannot hold the picture; see the
//                    log) and the finished frames were taken. After an error the stream is over but
//                    not yet stopped: call stop or delete.
//            *out is written only with 0. -10003 is reserved.
VIDEOSTABILIZER_API int video_stabilizer_pop_frame(VideoStabilizer* stabilizer, Frame** out);

// 1 or 0 at this moment, for hosts that want to avoid blocking. Threads: thread-safe.
VIDEOSTABILIZER_API int video_stabilizer_input_empty(VideoStabilizer* stabilizer);
// Likewise.
VIDEOSTABILIZER_API int video_stabilizer_input_full(VideoStabilizer* stabilizer);
// Likewise.
VIDEOSTABILIZER_API int video_stabilizer_output_empty(VideoStabilizer* stabilizer);
// Likewise.
VIDEOSTABILIZER_API int video_stabilizer_output_full(VideoStabilizer* stabilizer);

// Signals the end of the input: later pushes are refused, the frames inside are delivered, then pop
// reports the end. Threads: thread-safe. Returns 0.
VIDEOSTABILIZER_API int video_stabilizer_signal_eos(VideoStabilizer* stabilizer);

// 1 once the last frame is in the output queue (it may still have to be popped), else 0.
// Threads: thread-safe.
VIDEOSTABILIZER_API int video_stabilizer_reached_eos(VideoStabilizer* stabilizer);

// Waits until reached_eos, for at most ten times timeout_ms (30 seconds). Another thread must pop
// meanwhile. Returns at once when the end can no longer come: after a stop, after an error of a
// library thread, or when the input ended before any frame.
// Threads: thread-safe.
// Returns: 0 when the last frame is in the output queue, else 1.
VIDEOSTABILIZER_API int video_stabilizer_wait_eos(VideoStabilizer* stabilizer);

}  // namespace videostabilizer
