#pragma once

#include <cstdint>

#include "videostabilizer/export.h"

namespace videostabilizer {

// What may be chosen for one stream. Fill a record with video_stabilizer_options_init or
// video_stabilizer_options_for_strength, change what is to be different, and hand it to
// video_stabilizer_create_with_options. Switches are 0 or 1.
struct VideoStabilizerOptions {
    std::int32_t size;        // bytes of the record as its owner knows it; set by init
    std::int32_t look_ahead;  // 1..120 frames; 10. So many later frames are known before a frame is
                              // corrected: the delay of the output, and the half width of the
                              // smoothing span
    float sigma;              // width of the smoothing: 0.25..1000 frames, or 0 for the square root
                              // of look_ahead; 0. Frames i apart weigh exp(-(i / sigma)^2), which
                              // is 1.41 times the standard deviation of such weights; with
                              // edge_guard about exp(-|i| / sigma), a time constant
    float crop_ratio;         // 0.5..1; 0.9. The output shows the centred part of this size
    std::int32_t whole_shift;     // 0: the crop shortens the shift of every correction by its
                                  // ratio; 1: the whole shift is made good; 0
    std::int32_t edge_guard;      // 1: no output pixel is taken from outside the source picture;
                                  // needs whole_shift; 0
    std::int32_t repair_motions;  // 1: where no motion was found, the path goes on like its
                                  // neighbours instead of standing still; 0
    std::int32_t scene_cuts;      // 1: the smoothing stops at scene cuts; 0
    // The part of the frames, from their top left corner on, that is picture; 0, 0 for all of it.
    // What is beyond was added to make up the size of the frames: whole_shift keeps the crop, and
    // edge_guard the view, to the picture.
    std::int32_t picture_width;   // pixels, up to the frames' width
    std::int32_t picture_height;  //
};

// Predefined options, all with a crop ratio of 0.9. Which to take: standard wherever a third of a
// second of delay is no matter, strong for recordings, maximum for files; gentle where pictures are
// to stay as close to the camera's as before. All but gentle correct the whole shift, guard the
// edges, repair motions and stop at scene cuts. Where the shake is larger than the margin that the
// crop leaves, a smaller crop_ratio does more than a longer look-ahead.
enum VideoStabilizerStrength : std::int32_t {
    STABILIZER_GENTLE,    // look-ahead 10: the defaults, as video_stabilizer_create has them
    STABILIZER_STANDARD,  // look-ahead 10, sigma 10
    STABILIZER_STRONG,    // look-ahead 20, sigma 14
    STABILIZER_MAXIMUM,   // look-ahead 30, sigma 20
};

// Fills in the defaults, with which video_stabilizer_create_with_options does what
// video_stabilizer_create does. `size` is the size of the caller's record, so that a program and a
// library with different ideas of the record understand each other; leave it to the compiler.
// Threads: thread-safe.
VIDEOSTABILIZER_API void video_stabilizer_options_init(
    VideoStabilizerOptions* options,
    std::int32_t size = static_cast<std::int32_t>(sizeof(VideoStabilizerOptions)));

// Fills in the options of a strength. Anything that is not a strength gives the defaults and
// returns -1, else 0. Threads: thread-safe.
VIDEOSTABILIZER_API int video_stabilizer_options_for_strength(
    VideoStabilizerOptions* options, VideoStabilizerStrength strength,
    std::int32_t size = static_cast<std::int32_t>(sizeof(VideoStabilizerOptions)));

}  // namespace videostabilizer
