// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

#include "videostabilizer/export.h"

namespace videostabilizer {

// What warps the pictures of a stream.
enum VideoStabilizerEngine : std::int32_t {
    STABILIZER_ENGINE_OPENCL,  // needs video_stabilizer_module_init
    STABILIZER_ENGINE_NATIVE,  // the processor; needs no OpenCL, and reads rows with their strides
    STABILIZER_ENGINE_AUTO,    // OpenCL if module_init has found a GPU that can, else native
};

// How the samples of the output are computed.
enum VideoStabilizerSampling : std::int32_t {
    STABILIZER_SAMPLING_STATED,    // luma bilinear, nearest chroma
    STABILIZER_SAMPLING_BILINEAR,  // luma and chroma bilinear
    STABILIZER_SAMPLING_SHARP,     // Lanczos, six taps, which keeps fine detail
};

// What is done about a rolling shutter: a sensor that is read line by line, so that pictures of a moving
// camera are sheared and bent.
enum VideoStabilizerShutter : std::int32_t {
    STABILIZER_SHUTTER_OFF,      // nothing
    STABILIZER_SHUTTER_AUTO,     // the readout is estimated; nothing is done until it is known well
    STABILIZER_SHUTTER_ROWS,     // lines are rows, and `readout` is given
    STABILIZER_SHUTTER_COLUMNS,  // lines are columns: pictures that were turned after they were taken
};

// Options of one stream. Fill a record with video_stabilizer_options_init or
// video_stabilizer_options_for_strength, change fields, and pass it to
// video_stabilizer_create_with_options. Comments give range and default; switches are 0 or 1.
struct VideoStabilizerOptions {
    std::int32_t size;        // bytes of the record in the caller's version of it; set by init
    std::int32_t look_ahead;  // 1..120 frames; 10. Adds the same delay; half width of the smoothing
                              // span
    float sigma;       // smoothing width: 0.25..1000 frames, or 0 for sqrt(look_ahead); 0. The
                       // weight at distance i is exp(-(i / sigma)^2), so sigma is 1.41
                       // standard deviations; with edge_guard about exp(-|i| / sigma)
    float crop_ratio;  // 0.5..1; 0.9. The output shows the centred part of this size
    std::int32_t whole_shift;     // 0: the shift of a correction is multiplied by crop_ratio;
                                  // 1: the full shift is applied; 0
    std::int32_t edge_guard;      // 1: no output pixel comes from outside the source picture; needs
                                  // whole_shift; 0
    std::int32_t repair_motions;  // 1: motions that were not found are interpolated; 0: they count
                                  // as standing still; 0
    std::int32_t scene_cuts;      // 1: smoothing stops at scene cuts; 0
    // The top left part of each frame that is picture; 0, 0 means all of it. The rest is padding:
    // whole_shift crops, and edge_guard guards, the picture only.
    std::int32_t picture_width;        // pixels; 16..frame width
    std::int32_t picture_height;       // pixels; 16..frame height
    VideoStabilizerEngine engine;      // opencl
    VideoStabilizerSampling sampling;  // stated
    // Of the native engine: 1..64, or 0 for one per processor that the process may use; 0. With 1 the
    // stream has no threads but its own two; others are shared by all streams.
    std::int32_t threads;
    // 1: the output shows as much as the path allows, which changes slowly, in place of crop_ratio;
    // needs edge_guard; 0.
    std::int32_t auto_crop;
    float crop_least;  // 0.5..0.99: bounds of that part of the width and height, or 0 for 0.65 and
    float crop_most;   // 0.95; 0
    // Each line is shown as if the whole picture had been taken in one moment. Needs edge_guard, and
    // another sampling than the stated one; without them auto does nothing; off.
    VideoStabilizerShutter shutter;
    // -1..1: from the first line to the last, share of the frame interval; negative where the last line
    // comes first; 0. Read with rows and columns only.
    float readout;
};

// Predefined options, all with engine auto and a crop ratio of 0.9. All but gentle apply the full
// shift, guard the edges, repair motions, stop at scene cuts, correct a rolling shutter and sample
// sharp. Choose standard where a third of a second of delay is acceptable, strong for recordings,
// maximum for files, gentle for the least change. If shake exceeds the cropped margin, a smaller
// crop_ratio helps more than a longer look-ahead.
enum VideoStabilizerStrength : std::int32_t {
    STABILIZER_GENTLE,    // look-ahead 10: as video_stabilizer_create, within one grey level
    STABILIZER_STANDARD,  // look-ahead 10, sigma 10
    STABILIZER_STRONG,    // look-ahead 20, sigma 14
    STABILIZER_MAXIMUM,   // look-ahead 30, sigma 20
};

// Fills in the defaults, which make create_with_options equivalent to video_stabilizer_create.
// size: bytes of the caller's record, 40 to 4096; leave it to the compiler. It lets a program and a
//       library with different versions of the record work together.
// Errors:  with any other size the record is left untouched, with a line in the log.
// Threads: thread-safe.
VIDEOSTABILIZER_API void video_stabilizer_options_init(
    VideoStabilizerOptions* options,
    std::int32_t size = static_cast<std::int32_t>(sizeof(VideoStabilizerOptions)));

// Fills in the options of a strength. size: as above.
// Threads: thread-safe.
// Returns: 0; -1 for an unknown strength (the defaults are filled in), or for a size out of range
//          (the record is left untouched, with a line in the log).
VIDEOSTABILIZER_API int video_stabilizer_options_for_strength(
    VideoStabilizerOptions* options, VideoStabilizerStrength strength,
    std::int32_t size = static_cast<std::int32_t>(sizeof(VideoStabilizerOptions)));

}  // namespace videostabilizer
