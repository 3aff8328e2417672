// SPDX-License-Identifier: Apache-2.0

#include "pipeline/stabilizer_options.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>

#include "pipeline/stabilizer_internal.h"
#include "platform/log.h"
#include "work_pool/work_pool.h"

namespace videostabilizer {

namespace {

constexpr auto OUR_SIZE = static_cast<std::int32_t>(sizeof(VideoStabilizerOptions));
// The record as first published. New fields are only ever appended.
constexpr std::int32_t SMALLEST_SIZE = static_cast<std::int32_t>(
    offsetof(VideoStabilizerOptions, picture_height) + sizeof(std::int32_t));
constexpr std::int32_t LARGEST_SIZE = 4096;  // more means that the field is not initialised

constexpr int LONGEST_LOOK_AHEAD = 120;  // frames
constexpr float SMALLEST_SIGMA = 0.25F;  // frames
constexpr float LARGEST_SIGMA = 1000.0F;
constexpr float SMALLEST_CROP = 0.5F;
constexpr float LEAST_AUTO_CROP = 0.65F;  // where the options have no bounds
constexpr float MOST_AUTO_CROP = 0.95F;   //
constexpr float LARGEST_BOUND = 0.99F;    // of a crop that adapts: the path needs some room
constexpr int SMALLEST_PICTURE = 16;      // pixels

//                                        size     ahead sigma crop  shift guard repair cuts picture
constexpr VideoStabilizerOptions DEFAULTS{OUR_SIZE,
                                          10,
                                          0.0F,
                                          0.9F,
                                          0,
                                          0,
                                          0,
                                          0,
                                          0,
                                          0,
                                          STABILIZER_ENGINE_OPENCL,
                                          STABILIZER_SAMPLING_STATED,
                                          0,
                                          0,
                                          0.0F,
                                          0.0F,
                                          STABILIZER_SHUTTER_OFF,
                                          0.0F};

// The defaults on any machine.
constexpr VideoStabilizerOptions gentle_options() {
    VideoStabilizerOptions options = DEFAULTS;
    options.engine = STABILIZER_ENGINE_AUTO;
    return options;
}

constexpr VideoStabilizerOptions stronger_options(std::int32_t look_ahead, float sigma) {
    VideoStabilizerOptions options = gentle_options();
    options.look_ahead = look_ahead;
    options.sigma = sigma;
    options.whole_shift = options.edge_guard = 1;
    options.repair_motions = options.scene_cuts = 1;
    options.sampling = STABILIZER_SAMPLING_SHARP;
    options.shutter = STABILIZER_SHUTTER_AUTO;
    return options;
}

// By strength.
constexpr VideoStabilizerOptions STRENGTHS[] = {gentle_options(), stronger_options(10, 10.0F),
                                                stronger_options(20, 14.0F),
                                                stronger_options(30, 20.0F)};

bool is_switch(std::int32_t value) {
    return value == 0 || value == 1;
}

// False for NaN.
bool is_within(float value, float low, float high) {
    return value >= low && value <= high;
}

// 0 means the default.
bool is_bound(float crop) {
    return crop == 0.0F || is_within(crop, SMALLEST_CROP, LARGEST_BOUND);
}

// The bounds of a crop that adapts, with their defaults.
void complete_bounds(VideoStabilizerOptions& o) {
    if (o.crop_least == 0.0F) {
        o.crop_least =
            o.crop_most == 0.0F ? LEAST_AUTO_CROP : std::min(LEAST_AUTO_CROP, o.crop_most);
    }
    if (o.crop_most == 0.0F) {
        o.crop_most = std::max(MOST_AUTO_CROP, o.crop_least);
    }
}

// Size 0 x 0 means the whole frame.
bool is_picture(std::int32_t width, std::int32_t height, int frame_width, int frame_height) {
    if (width == 0 && height == 0) {
        return true;
    }
    return width >= SMALLEST_PICTURE && width <= frame_width && height >= SMALLEST_PICTURE &&
           height <= frame_height;
}

const char* options_fault(const VideoStabilizerOptions& o, int frame_width, int frame_height) {
    if (o.look_ahead < 1 || o.look_ahead > LONGEST_LOOK_AHEAD) {
        return "look_ahead is not 1 to 120";
    }
    if (o.sigma != 0.0F && !is_within(o.sigma, SMALLEST_SIGMA, LARGEST_SIGMA)) {
        return "sigma is neither 0 nor 0.25 to 1000";
    }
    if (!is_within(o.crop_ratio, SMALLEST_CROP, 1.0F)) {
        return "crop_ratio is not 0.5 to 1";
    }
    if (!is_switch(o.whole_shift) || !is_switch(o.edge_guard) || !is_switch(o.repair_motions) ||
        !is_switch(o.scene_cuts) || !is_switch(o.auto_crop)) {
        return "a switch is neither 0 nor 1";
    }
    if (!is_picture(o.picture_width, o.picture_height, frame_width, frame_height)) {
        return "the picture is not a part of the frames";
    }
    if (o.engine < STABILIZER_ENGINE_OPENCL || o.engine > STABILIZER_ENGINE_AUTO) {
        return "engine is none of opencl, native and auto";
    }
    if (o.sampling < STABILIZER_SAMPLING_STATED || o.sampling > STABILIZER_SAMPLING_SHARP) {
        return "sampling is none of stated, bilinear and sharp";
    }
    if (o.threads < 0 || o.threads > WorkPool::MOST_THREADS) {
        return "threads is not 0 to 64";
    }
    if (o.edge_guard != 0 && o.whole_shift == 0) {
        return "edge_guard needs whole_shift";
    }
    if (o.auto_crop != 0 && o.edge_guard == 0) {
        return "auto_crop needs edge_guard";
    }
    if (o.shutter < STABILIZER_SHUTTER_OFF || o.shutter > STABILIZER_SHUTTER_COLUMNS) {
        return "shutter is none of off, auto, rows and columns";
    }
    if (o.shutter > STABILIZER_SHUTTER_AUTO &&
        (o.edge_guard == 0 || o.sampling == STABILIZER_SAMPLING_STATED)) {
        return "a readout needs edge_guard, and another sampling than the stated one";
    }
    if (!is_within(o.readout, -1.0F, 1.0F)) {
        return "readout is not -1 to 1";
    }
    if (!is_bound(o.crop_least) || !is_bound(o.crop_most)) {
        return "a bound of the crop is neither 0 nor 0.5 to 0.99";
    }
    if (o.crop_least != 0.0F && o.crop_most != 0.0F && o.crop_least > o.crop_most) {
        return "crop_least is more than crop_most";
    }
    return nullptr;
}

// Whether a field that this version does not know is set.
bool asks_for_more(const VideoStabilizerOptions* given, std::int32_t size) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(given);
    return std::any_of(bytes + std::min(OUR_SIZE, size), bytes + size,
                       [](unsigned char byte) { return byte != 0; });
}

bool is_record_size(std::int32_t size) {
    return size >= SMALLEST_SIZE && size <= LARGEST_SIZE;
}

// Returns false, with the record untouched and a line in the log, when the size is out of range.
bool write_options(VideoStabilizerOptions* options, const VideoStabilizerOptions& values,
                   std::int32_t size) {
    if (!is_record_size(size)) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "refused an options record of %d bytes",
                            size);
        return false;
    }
    std::memset(options, 0, static_cast<std::size_t>(size));
    std::memcpy(options, &values, static_cast<std::size_t>(std::min(size, OUR_SIZE)));
    options->size = size;
    return true;
}

}  // namespace

const char* read_options(const VideoStabilizerOptions* given, int width, int height,
                         VideoStabilizerOptions& out) {
    out = DEFAULTS;
    out.picture_width = width;
    out.picture_height = height;
    if (given == nullptr) {
        return nullptr;
    }
    if (!is_record_size(given->size)) {
        return "the options were not initialised";
    }
    if (asks_for_more(given, given->size)) {
        return "the options are newer than the library";
    }
    std::memcpy(&out, given, static_cast<std::size_t>(std::min(given->size, OUR_SIZE)));
    out.size = OUR_SIZE;
    const char* const fault = options_fault(out, width, height);
    if (out.picture_width == 0) {
        out.picture_width = width;
        out.picture_height = height;
    }
    complete_bounds(out);
    return fault;
}

void video_stabilizer_options_init(VideoStabilizerOptions* options, std::int32_t size) {
    write_options(options, DEFAULTS, size);
}

int video_stabilizer_options_for_strength(VideoStabilizerOptions* options,
                                          VideoStabilizerStrength strength, std::int32_t size) {
    const auto index = static_cast<std::size_t>(strength);
    const bool known = strength >= 0 && index < std::size(STRENGTHS);
    const bool written = write_options(options, known ? STRENGTHS[index] : DEFAULTS, size);
    return written && known ? 0 : -1;
}

}  // namespace videostabilizer
