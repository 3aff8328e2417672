// SPDX-License-Identifier: Apache-2.0

#include "stream/stream_engine.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "platform/mutex_lock.h"
#include "videostabilizer/result.h"

namespace videostabilizer {

namespace {

// As the C interface tells it; MotionLog's has 0 for motions that were found.
int motion_found(const MotionLog& log) {
    return log.status == 0 ? 1 : (log.status == 2 ? 2 : 0);
}

// Also where the program has the log, in which the stream cannot read what is missing.
int thread_code(int start_error) {
    return start_error == ENOMEM ? VIDEOSTABILIZER_NO_MEMORY : VIDEOSTABILIZER_NO_THREAD;
}

}  // namespace

int StreamEngine::create(const StreamSettings& settings, EngineUser& user, const LogSink& log,
                         std::unique_ptr<StreamEngine>& out) {
    std::unique_ptr<StreamEngine> engine(new (std::nothrow) StreamEngine(user, log));
    if (engine == nullptr) {
        return VIDEOSTABILIZER_NO_MEMORY;
    }
    const LogScope scope(&log);
    const VideoStabilizerEngine wanted = settings.options.engine;
    if (wanted != STABILIZER_ENGINE_NATIVE && video_stabilizer_module_init() != 0 &&
        wanted == STABILIZER_ENGINE_OPENCL) {
        return VIDEOSTABILIZER_NO_DEVICE;
    }
    engine->frame_maker_ = {engine.get(), [](void* self) {
                                auto& e = *static_cast<StreamEngine*>(self);
                                return e.engine_user_.make_output(e.made_++);
                            }};
    last_start_error() = 0;
    engine->stabilizer_ = video_stabilizer_create_for_pictures(
        settings.given.width, settings.given.height, &settings.format.layout, 0,
        &engine->frame_maker_, &settings.options);
    if (engine->stabilizer_ == nullptr && last_start_error() != 0) {
        return thread_code(last_start_error());
    }
    if (engine->stabilizer_ == nullptr) {
        return wanted == STABILIZER_ENGINE_OPENCL ? VIDEOSTABILIZER_NO_DEVICE
                                                  : VIDEOSTABILIZER_NO_MEMORY;
    }
    // Room for all that may be inside, also before the worker has begun.
    engine->stabilizer_->input_capacity = settings.options.look_ahead + MOST_BEYOND;
    engine->stabilizer_->output_capacity = engine->stabilizer_->input_capacity;
    engine->watch();
    if (video_stabilizer_start(engine->stabilizer_) != RESULT_OK ||
        start_thread(&engine->carrier_, carrier, engine.get()) != 0) {
        return thread_code(last_start_error());
    }
    engine->has_carrier_ = true;
    out = std::move(engine);
    return VIDEOSTABILIZER_OK;
}

StreamEngine::~StreamEngine() {
    const LogScope scope(&log_);
    if (has_carrier_) {
        ending_.store(true);
        halt();
        pthread_join(carrier_, nullptr);
    }
    video_stabilizer_delete(stabilizer_);
    pthread_mutex_destroy(&halt_mutex_);
}

// The stabilizer is stopped once, by whoever is the first.
void StreamEngine::halt() {
    const MutexLock lock(halt_mutex_);
    if (!halted_) {
        halted_ = true;
        video_stabilizer_stop(stabilizer_);
    }
}

void StreamEngine::watch() {
    VideoStabilizerObserver observer{};
    observer.ctx = this;
    observer.on_motion = [](void* self, std::int32_t, const float motion[9], const MotionLog* log) {
        VideoStabilizerStreamReport& report = static_cast<StreamEngine*>(self)->report();
        std::copy_n(motion, 9, report.motion);
        report.motion_found = motion_found(*log);
        report.points = log->npoints;
        report.inliers = log->ninliers;
        report.track_ratio = log->track_ratio;
    };
    observer.on_correction = [](void* self, std::int32_t, const float correction[9]) {
        std::copy_n(correction, 9, static_cast<StreamEngine*>(self)->report().correction);
    };
    observer.on_report = [](void* self, const VideoStabilizerReport* from) {
        auto& engine = *static_cast<StreamEngine*>(self);
        VideoStabilizerStreamReport& report = engine.report();
        report.number = engine.corrected_;
        report.look_ahead = from->look_ahead;
        report.sigma = from->sigma;
        report.crop = from->crop;
        report.granted = from->granted;
        report.guarded = from->guarded;
        report.readout = from->readout;
        report.readout_confidence = from->readout_confidence;
        report.columns = from->columns;
        std::copy_n(from->first_line, 2, report.first_line);
        std::copy_n(from->last_line, 2, report.last_line);
        report.scene_start = engine.corrected_ == 0 ? 1 : from->scene_start;
        ++engine.corrected_;
    };
    video_stabilizer_set_observer(stabilizer_, &observer);
}

void* StreamEngine::carrier(void* self) {
    static_cast<StreamEngine*>(self)->carry();
    return nullptr;
}

void StreamEngine::carry() {
    Frame* frame = nullptr;
    int code = RESULT_OK;
    for (std::int64_t n = 0; code == RESULT_OK; ++n) {
        code = video_stabilizer_pop_frame(stabilizer_, &frame);
        if (code == RESULT_OK) {
            frame_delete(frame);  // the record; the picture is the stream's
            engine_user_.on_steady(n);
        }
    }
    if (ending_.load()) {
        return;
    }
    const bool failed = code != RESULT_END_OF_STREAM;
    if (failed) {
        halt();  // the other threads may still be reading
    }
    engine_user_.on_end(failed);
}

}  // namespace videostabilizer
