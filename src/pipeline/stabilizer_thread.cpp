// SPDX-License-Identifier: Apache-2.0

// The worker: analyses each frame and sends it to the warp stage once its look-ahead is known.
// While it runs, no other thread touches the analysis state of the stabilizer.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "camera_motion/camera_motion.h"
#include "motion/seeded_motion.h"
#include "path/crop.h"
#include "path/frame_numbers.h"
#include "path/steady_path.h"
#include "pipeline/decimate.h"
#include "pipeline/live_settings.h"
#include "pipeline/stabilizer_internal.h"
#include "pipeline/upper_bits.h"
#include "platform/log.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

namespace {

std::size_t slot_of(const VideoStabilizer* s, std::int64_t frame) {
    return ring_slot(frame, s->motions.size());
}

void set_newest_frame(VideoStabilizer* s, std::int64_t n) {
    s->newest_frame = n;
    s->frame_index = public_number(n);
}

void set_sent_frame(VideoStabilizer* s, std::int64_t n) {
    s->sent_frame = n;
    s->output_index = public_number(n);
}

struct LumaPlane {
    const unsigned char* data;
    int pitch;  // bytes from a row to the next
};

// The 8-bit luma of frame n, which is the newest or the one before. Beside the stated kernels, the
// wide ones of which take rows as packed, the analysis does so as well.
LumaPlane luma(const VideoStabilizer* s, std::int64_t n, const Frame* frame) {
    if (!s->upper_bits[0].empty()) {
        return {s->upper_bits[n % 2].data(), frame->width};
    }
    return {frame->plane_y, s->picture_stage != nullptr ? frame->stride_y : frame->width};
}

// Detects corners in the previous image and tracks them into the current one.
void track_corners(VideoStabilizer* s) {
    const int width = s->width / s->scale;
    const int height = s->height / s->scale;
    s->prev_points.clear();
    s->prev_points.reserve(static_cast<std::size_t>(s->max_points));
    fast16(s->prev_luma, s->prev_points, width, height, &s->fast_params);
    s->next_points.resize(s->prev_points.size());
    s->track_status.resize(s->prev_points.size());
    lk_pyramid_image(s->prev_luma, s->cur_luma, width, height, &s->lk_params, s->prev_points,
                     s->next_points, s->track_status);
}

KeyPoint to_full_resolution(KeyPoint point, float scale) {
    point.x *= scale;
    point.y *= scale;
    return point;
}

// Collects the tracked pairs, in full-resolution pixels.
void match_points(VideoStabilizer* s) {
    s->matched_prev.clear();
    s->matched_next.clear();
    s->matched_prev.reserve(static_cast<std::size_t>(s->max_points));
    s->matched_next.reserve(static_cast<std::size_t>(s->max_points));
    const auto scale = static_cast<float>(s->scale);
    for (std::size_t i = 0; i < s->prev_points.size(); ++i) {
        if (s->track_status[i] != 0) {
            s->matched_prev.push_back(to_full_resolution(s->prev_points[i], scale));
            s->matched_next.push_back(to_full_resolution(s->next_points[i], scale));
        }
    }
}

// Estimates the motion from the previous to the newest frame.
void estimate_motion(VideoStabilizer* s) {
    const std::int64_t from = s->newest_frame - 1;
    const std::size_t slot = slot_of(s, from);
    MotionLog& log = s->motion_logs[slot];
    // NaN without corners; the estimator then overwrites the log.
    log.track_ratio =
        static_cast<float>(s->matched_prev.size()) / static_cast<float>(s->prev_points.size());
    if (s->picture_stage != nullptr) {
        // Equal streams have equal outputs.
        estimate_motion_from_seed(*s->motions[slot], log, s->matched_prev, s->matched_next,
                                  s->ransac_params, static_cast<std::uint32_t>(from));
    } else {
        estimateGlobalMotionRansac(*s->motions[slot], log, s->matched_prev, s->matched_next,
                                   s->ransac_params);
    }
}

// The same for the steady path, from the pictures themselves. The previous one is still in the ring:
// look_ahead is at least 1.
void find_camera_step(VideoStabilizer* s) {
    const Frame* const frame = s->ring_frames[slot_of(s, s->newest_frame)];
    const LumaPlane plane = luma(s, s->newest_frame, frame);
    s->camera_motion->expect_shear(s->steady_path->expected_shear(), s->steady_path->has_columns());
    const CameraStep step = s->camera_motion->add(plane.data, plane.pitch);
    if (s->newest_frame == 0) {
        return;
    }
    const std::int64_t from = s->newest_frame - 1;
    const std::size_t slot = slot_of(s, from);
    motion_of_pose(step.pose, picture_centre(s->options.picture_width, s->options.picture_height),
                   s->motions[slot]->data);
    MotionLog& log = s->motion_logs[slot];
    log.npoints = step.followed;
    log.ninliers = step.agreeing;
    log.track_ratio = step.sites > 0 && step.found
                          ? static_cast<float>(step.followed) / static_cast<float>(step.sites)
                          : 0;
    log.status = step.found ? 0 : 1;
    s->steady_path->add(from, step, s->camera_motion->pairs());
}

// Stores the newest frame and makes its analysis image, unless the steady path needs none.
void take_newest(VideoStabilizer* s, Frame* frame, unsigned char* image) {
    const std::int64_t n = s->newest_frame + 1;
    set_newest_frame(s, n);
    s->ring_frames[slot_of(s, n)] = frame;
    const bool is_deep = s->format == PIX_FMT_PICTURE && s->layout.bit_depth > 8;
    if (s->steady_path != nullptr) {
        if (is_deep) {
            take_upper_bits(*frame, s->layout, 1, s->upper_bits[n % 2].data());
        }
        find_camera_step(s);
        return;
    }
    if (is_deep) {
        take_upper_bits(*frame, s->layout, s->scale, image);
        return;
    }
    const LumaPlane plane = luma(s, n, frame);
    decimate_rows(plane.data, plane.pitch, frame->width, frame->height, s->scale, image);
}

bool is_finite(const SimpleLA::Mat<float>& correction) {
    return std::all_of(correction.data, correction.data + 9,
                       [](float element) { return std::isfinite(element); });
}

// The motion to frame n as its correction uses it, and how that was estimated.
void tell_motion(const VideoStabilizer* s, std::int64_t n) {
    if (n > 0 && s->observer.on_motion != nullptr) {
        const std::size_t slot = slot_of(s, n - 1);
        s->observer.on_motion(s->observer.ctx, public_number(n - 1), s->motions[slot]->data,
                              &s->motion_logs[slot]);
    }
}

VideoStabilizerReport report_of(const VideoStabilizer* s, std::int64_t n,
                                const Steadied& steadied) {
    VideoStabilizerReport report{};
    report.frame = public_number(n);
    report.look_ahead = s->radius;
    report.sigma = s->filter->sigma;
    report.guarded = steadied.guarded ? 1 : 0;
    report.granted = static_cast<float>(steadied.granted);
    report.repaired = steadied.repaired ? 1 : 0;
    report.scene_start = steadied.scene_start ? 1 : 0;
    report.crop = static_cast<float>(steadied.crop);
    report.readout = static_cast<float>(steadied.readout);
    report.readout_confidence = static_cast<float>(steadied.confidence);
    report.columns = steadied.columns ? 1 : 0;
    for (std::size_t i = 0; i < 2; ++i) {
        report.first_line[i] = static_cast<float>(steadied.first_line[i]);
        report.last_line[i] = static_cast<float>(steadied.last_line[i]);
    }
    return report;
}

// Takes over what the host has changed since the last frame.
void take_settings(VideoStabilizer* s) {
    const std::unique_ptr<const LiveSettings> next(s->next_settings.exchange(nullptr));
    if (next == nullptr) {
        return;
    }
    gaussian_motion_filter_set_params(s->filter, s->radius, next->sigma);
    if (s->steady_path != nullptr) {
        s->steady_path->change(
            {static_cast<double>(next->sigma), static_cast<double>(next->crop_ratio),
             static_cast<double>(next->crop_least), static_cast<double>(next->crop_most),
             next->crop_speed},
            static_cast<double>(next->readout));
    }
}

// Computes the correction of frame n and sends the frame to the warp stage. Two matrices suffice:
// the stage's queue holds one frame, and its thread copies the matrix when it takes a frame. So
// once frame n + 1 is accepted, the matrix of frame n is free for frame n + 2.
void send_corrected(VideoStabilizer* s, std::int64_t n) {
    set_sent_frame(s, n);
    take_settings(s);
    SimpleLA::Mat<float>& correction = *s->warp_pool[ring_slot(n, s->warp_pool.size())];
    Steadied steadied;
    steadied.crop = static_cast<double>(s->options.crop_ratio);
    if (s->steady_path != nullptr) {
        steadied = s->steady_path->correct(n, s->newest_frame, s->filter, s->motions,
                                           s->motion_logs, correction);
    } else {
        filter_frame(s->filter, correction, n, s->motions, s->motion_logs, 0, s->newest_frame);
    }
    // A singular motion, from a degenerate fit, has no finite inverse: the frame stays uncorrected.
    if (!is_finite(correction)) {
        SimpleLA::set_identity(correction);
    }
    tell_motion(s, n);
    if (s->observer.on_correction != nullptr) {
        s->observer.on_correction(s->observer.ctx, public_number(n), correction.data);
    }
    if (s->observer.on_report != nullptr) {
        const VideoStabilizerReport report = report_of(s, n, steadied);
        s->observer.on_report(s->observer.ctx, &report);
    }
    if (s->options.whole_shift != 0) {
        fold_in_crop(picture_centre(s->options.picture_width, s->options.picture_height),
                     steadied.crop, correction);
    }
    Frame*& slot = s->ring_frames[slot_of(s, n)];
    Frame* const frame = slot;
    slot = nullptr;  // owned by the stage from here on
    frame->opaque = correction.data;
    if (s->picture_stage != nullptr) {
        PictureTransform& transform = *s->picture_transforms[ring_slot(n, s->warp_pool.size())];
        std::copy_n(correction.data, transform.whole.size(), transform.whole.begin());
        if (s->steady_path != nullptr) {
            s->steady_path->add_rows(transform);
        }
        frame->opaque = &transform;
    }
    send_to_stage(s, frame);
}

void drain(VideoStabilizer* s) {
    while (s->sent_frame < s->newest_frame) {
        send_corrected(s, s->sent_frame + 1);
    }
    signal_eos_to_stage(s);
}

void log_error(int code) {
    __android_log_print(LOG_ERROR, STABILIZER_TAG, "video stabilizer met an error: %d", code);
}

// Takes the first frame. Returns false when the thread is to end.
bool first_frame(VideoStabilizer* s) {
    Frame* frame = nullptr;
    const int code = take_input_frame(s, &frame);
    if (code == RESULT_END_OF_STREAM) {
        __android_log_print(LOG_WARN, STABILIZER_TAG, "thread meet EOS, and return");
        // The stage got no frame and will not report an end: this ends pop and wait_eos.
        s->quit.store(1);
        wake_output_waiters(s);
        return false;
    }
    if (code == RESULT_STOPPING) {
        __android_log_print(LOG_WARN, STABILIZER_TAG, "thread quited, and return");
        return false;
    }
    if (code != RESULT_OK) {
        log_error(code);
        return false;
    }
    if (frame == nullptr) {
        __android_log_print(LOG_ERROR, STABILIZER_TAG, "video stabilizer met an unknown error: %d",
                            code);
        return false;
    }
    take_newest(s, frame, s->prev_luma);
    __android_log_print(LOG_INFO, STABILIZER_TAG, "before thread loop...");
    return s->quit.load() == 0;
}

// Takes and analyses frames until there are no more. Returns the code that ended it, or 0 when the
// stop flag was seen between two frames.
int later_frames(VideoStabilizer* s) {
    do {
        Frame* frame = nullptr;
        const int code = take_input_frame(s, &frame);
        if (code != RESULT_OK) {
            return code;
        }
        if (frame == nullptr) {
            return RESULT_NO_FRAME;
        }
        take_newest(s, frame, s->cur_luma);
        if (s->steady_path == nullptr) {
            track_corners(s);
            std::swap(s->prev_luma, s->cur_luma);
            match_points(s);
            estimate_motion(s);
        }
        if (s->newest_frame - s->sent_frame > s->radius) {
            send_corrected(s, s->sent_frame + 1);
        }
    } while (s->quit.load() == 0);
    return RESULT_OK;
}

void run(VideoStabilizer* s) {
    if (!first_frame(s)) {
        return;
    }
    const int code = later_frames(s);
    switch (code) {
        case RESULT_OK:
            break;
        case RESULT_END_OF_STREAM:
            __android_log_print(LOG_WARN, STABILIZER_TAG, "Meet End of Input Stream...");
            drain(s);
            __android_log_print(LOG_WARN, STABILIZER_TAG, "thread meet EOS, and return");
            break;
        case RESULT_STOPPING:
            __android_log_print(LOG_WARN, STABILIZER_TAG, "thread quited, and return");
            break;
        default:
            log_error(code);
    }
}

}  // namespace

void* stabilizer_thread(void* arg) {
    try {
        run(static_cast<VideoStabilizer*>(arg));
    } catch (const std::bad_alloc&) {
        // A list of points or of hypotheses had to grow.
        __android_log_print(LOG_ERROR, STABILIZER_TAG, OUT_OF_MEMORY_TEXT);
        log_error(RESULT_NO_MEMORY);
        stabilizer_on_failure(arg);
    }
    return nullptr;
}

}  // namespace videostabilizer
