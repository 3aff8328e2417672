// The worker: analyses frame after frame and hands each on to the warp stage once the look-ahead
// after it is known. While it runs it alone touches the analysis state of the stabilizer.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <new>
#include <utility>

#include "motion/steady_path.h"
#include "pipeline/decimate.h"
#include "pipeline/stabilizer_internal.h"
#include "platform/log.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

namespace {

using Slot = std::size_t;

Slot ring_slot(const VideoStabilizer* s, int frame) {
    return static_cast<Slot>(frame % s->ring_size);
}

void decimate(const VideoStabilizer* s, const Frame* frame, unsigned char* image) {
    decimate_luma(frame->plane_y, frame->width, frame->height, s->scale, image);
}

// Finds the corners of the previous image and follows them into the current one.
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

// Collects the pairs that were tracked, in pixels of the full picture.
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

// Estimates the motion from the frame before the newest to the newest.
void estimate_motion(VideoStabilizer* s) {
    const int from = s->frame_index - 1;
    const Slot slot = ring_slot(s, from);
    MotionLog& log = s->motion_logs[slot];
    // 0/0 is NaN when there was no corner; the estimator then overwrites the log.
    log.track_ratio =
        static_cast<float>(s->matched_prev.size()) / static_cast<float>(s->prev_points.size());
    estimateGlobalMotionRansac(*s->motions[slot], log, s->matched_prev, s->matched_next,
                               s->ransac_params);
    if (s->steady_path != nullptr) {
        // The earlier frame is still here: it is sent after the newest was analysed, at the soonest.
        const LumaPair pictures = {s->ring_frames[slot]->plane_y,
                                   s->ring_frames[ring_slot(s, s->frame_index)]->plane_y, s->width};
        s->steady_path->add(s->motions[slot]->data, log, s->prev_points.size(), s->matched_prev,
                            s->matched_next, pictures);
    }
    if (s->observer.on_motion != nullptr) {
        s->observer.on_motion(s->observer.ctx, from, s->motions[slot]->data, &log);
    }
}

bool is_finite(const SimpleLA::Mat<float>& correction) {
    return std::all_of(correction.data, correction.data + 9,
                       [](float element) { return std::isfinite(element); });
}

// Puts the crop into a correction: the part of the picture around its centre, enlarged to full size.
void fold_in_crop(const VideoStabilizer* s, SimpleLA::Mat<float>& correction) {
    const PictureCentre centre =
        picture_centre(s->options.picture_width, s->options.picture_height);
    const double enlargement = 1.0 / static_cast<double>(s->options.crop_ratio);
    for (int r = 0; r < 2; ++r) {
        const double middle = r == 0 ? centre.x : centre.y;
        for (int c = 0; c < 3; ++c) {
            const double off = c == 2 ? middle : 0;
            const double element = static_cast<double>(correction.at(r, c));
            correction.at(r, c) = static_cast<float>(off + enlargement * (element - off));
        }
    }
}

// Computes the correction of frame n and sends the frame to the warp stage. There are two matrices
// for two frames inside the stage, one queued and one in work; the stage copies the matrix when it
// takes a frame, so frame n + 2 may have the matrix of frame n as soon as n + 1 was accepted.
void send_corrected(VideoStabilizer* s, int n) {
    s->output_index = n;
    SimpleLA::Mat<float>& correction =
        *s->warp_pool[static_cast<std::size_t>(n) % s->warp_pool.size()];
    Steadied steadied{false, 1, false, false};
    if (s->steady_path != nullptr) {
        steadied = s->steady_path->correct(n, s->frame_index, s->filter, s->motions, s->motion_logs,
                                           correction);
    } else {
        gaussian_motion_filter_stabilize(s->filter, correction, n, s->motions, s->motion_logs, 0,
                                         s->frame_index);
    }
    // Motions that turn everything into a point or a line, as a fit to bad pairs may, have inverses
    // beyond all numbers. Such a frame is shown as it came.
    if (!is_finite(correction)) {
        SimpleLA::set_identity(correction);
    }
    if (s->observer.on_correction != nullptr) {
        s->observer.on_correction(s->observer.ctx, n, correction.data);
    }
    if (s->observer.on_report != nullptr) {
        const VideoStabilizerReport report = {n,
                                              s->radius,
                                              s->filter->sigma,
                                              steadied.guarded ? 1 : 0,
                                              static_cast<float>(steadied.granted),
                                              steadied.repaired ? 1 : 0,
                                              steadied.scene_start ? 1 : 0};
        s->observer.on_report(s->observer.ctx, &report);
    }
    if (s->options.whole_shift != 0) {
        fold_in_crop(s, correction);
    }
    Frame*& slot = s->ring_frames[ring_slot(s, n)];
    Frame* const frame = slot;
    slot = nullptr;  // the stage's from here on
    frame->opaque = correction.data;
    affine_transformer_ocl_send_frame(s->transformer, frame);
}

void drain(VideoStabilizer* s) {
    while (s->output_index < s->frame_index) {
        send_corrected(s, s->output_index + 1);
    }
    affine_transformer_ocl_signal_eos(s->transformer);
    // The stage may have warped the last frame before the mark was set. It would see it at the end
    // of its timed wait, up to a second later.
    wake_waiters(s->transformer->mutex, s->transformer->cond);
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
        // No end of output will follow, since the stage never saw a frame: pops end by this.
        s->quit.store(1);
        wake_waiters(s->output_mutex, s->output_cond);
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
    s->ring_frames[0] = frame;
    s->frame_index = 0;
    decimate(s, frame, s->prev_luma);
    __android_log_print(LOG_INFO, STABILIZER_TAG, "before thread loop...");
    return s->quit.load() == 0;
}

// Takes and analyses frames until there are no more. Returns the code that ended it, or 0 when the
// stop mark was seen between two frames.
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
        s->frame_index += 1;
        s->ring_frames[ring_slot(s, s->frame_index)] = frame;
        decimate(s, frame, s->cur_luma);
        track_corners(s);
        std::swap(s->prev_luma, s->cur_luma);
        match_points(s);
        estimate_motion(s);
        if (s->frame_index >= s->radius) {
            send_corrected(s, s->frame_index - s->radius);
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
        // A point list outgrew its reservation and could not. The thread ends as after any error.
        __android_log_print(LOG_ERROR, STABILIZER_TAG, OUT_OF_MEMORY_TEXT);
        log_error(RESULT_NO_MEMORY);
        stabilizer_on_failure(arg);
    }
    return nullptr;
}

}  // namespace videostabilizer
