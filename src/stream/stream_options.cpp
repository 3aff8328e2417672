// SPDX-License-Identifier: Apache-2.0

#include "stream/stream_options.h"

#include <cmath>

#include "pipeline/geometry.h"
#include "pipeline/stabilizer_options.h"
#include "stream/record.h"

namespace videostabilizer {

namespace {

constexpr double USUAL_FRAME_RATE = 30;
// Of the logarithm of a crop that the host has changed, in a second: as fast as looks intended.
constexpr double CROP_SPEED = 0.1;

VideoStabilizerOptions stabilizer_options(const VideoStabilizerStreamOptions& given,
                                          const StreamFormat& format) {
    VideoStabilizerOptions options{};
    video_stabilizer_options_init(&options);
    options.look_ahead = given.look_ahead;
    options.sigma = given.sigma;
    options.crop_ratio = given.crop_ratio;
    options.whole_shift = given.whole_shift;
    options.edge_guard = given.edge_guard;
    options.repair_motions = given.repair_motions;
    options.scene_cuts = given.scene_cuts;
    options.picture_width = given.picture_width;
    options.picture_height = given.picture_height;
    options.engine = static_cast<VideoStabilizerEngine>(given.engine);
    options.sampling = static_cast<VideoStabilizerSampling>(given.sampling);
    options.threads = given.threads;
    options.auto_crop = given.auto_crop;
    options.crop_least = given.crop_least;
    options.crop_most = given.crop_most;
    options.shutter = static_cast<VideoStabilizerShutter>(given.shutter);
    options.readout = given.readout;
    if (format.is_packed() && options.sampling == STABILIZER_SAMPLING_STATED) {
        options.sampling = STABILIZER_SAMPLING_BILINEAR;  // no nearest blue and red beside green
    }
    return options;
}

}  // namespace

bool options_of_strength(int strength, VideoStabilizerStreamOptions& out) {
    VideoStabilizerOptions options{};
    if (video_stabilizer_options_for_strength(
            &options, static_cast<VideoStabilizerStrength>(strength)) != 0) {
        return false;
    }
    out = {};
    out.size = sizeof(out);
    out.look_ahead = options.look_ahead;
    out.sigma = options.sigma;
    out.crop_ratio = options.crop_ratio;
    out.whole_shift = options.whole_shift;
    out.edge_guard = options.edge_guard;
    out.repair_motions = options.repair_motions;
    out.scene_cuts = options.scene_cuts;
    out.engine = options.engine;
    out.sampling = options.sampling;
    out.shutter = options.shutter;
    out.log_level = VIDEOSTABILIZER_LOG_WARNING;
    return true;
}

const char* read_settings(const VideoStabilizerStreamOptions* given, StreamSettings& out) {
    const char* fault = read_record(given, SMALLEST_OPTIONS, out.given);
    if (fault != nullptr) {
        return fault;
    }
    const VideoStabilizerStreamOptions& o = out.given;
    const std::optional<StreamFormat> format = stream_format(o.format, o.siting);
    if (!format) {
        return "unknown pixel format or siting";
    }
    out.format = *format;
    if (!std::isfinite(o.frame_rate) || o.frame_rate < 0) {
        return "frame_rate is neither 0 nor a number above";
    }
    fault = picture_geometry_fault(o.width, o.height, &out.format.layout);
    if (fault != nullptr) {
        return fault;
    }
    const VideoStabilizerOptions options = stabilizer_options(o, out.format);
    fault = read_options(&options, o.width, o.height, out.options);
    if (fault == nullptr && out.options.engine == STABILIZER_ENGINE_OPENCL &&
        out.options.sampling == STABILIZER_SAMPLING_STATED) {
        fault = "the stated sampling is one of the native engine only";
    }
    if (out.options.sigma == 0.0F) {
        out.options.sigma = std::sqrt(static_cast<float>(out.options.look_ahead));
    }
    return fault;
}

const char* change_fault(const StreamSettings& open, const StreamSettings& wanted) {
    const VideoStabilizerStreamOptions& a = open.given;
    const VideoStabilizerStreamOptions& b = wanted.given;
    const VideoStabilizerOptions& from = open.options;
    const VideoStabilizerOptions& to = wanted.options;
    if (a.width != b.width || a.height != b.height || a.format != b.format ||
        a.siting != b.siting) {
        return "the kind of pictures cannot change in an open stream";
    }
    if (to.look_ahead > from.look_ahead) {
        return "look_ahead cannot grow in an open stream";
    }
    if (to.whole_shift != from.whole_shift || to.edge_guard != from.edge_guard ||
        to.repair_motions != from.repair_motions || to.scene_cuts != from.scene_cuts ||
        to.auto_crop != from.auto_crop || to.shutter != from.shutter) {
        return "switches cannot change in an open stream";
    }
    if (to.picture_width != from.picture_width || to.picture_height != from.picture_height ||
        a.engine != b.engine || to.sampling != from.sampling || a.threads != b.threads) {
        return "picture size, engine, sampling and threads cannot change in an open stream";
    }
    if (to.crop_ratio != from.crop_ratio && from.edge_guard == 0) {
        return "crop_ratio cannot change in an open stream without edge_guard";
    }
    return nullptr;
}

double crop_speed(const StreamSettings& settings) {
    const double rate = settings.given.frame_rate;
    return CROP_SPEED / (rate > 0 ? rate : USUAL_FRAME_RATE);
}

}  // namespace videostabilizer
