// SPDX-License-Identifier: Apache-2.0

#include "media_watch.h"

#include <util/platform.h>

namespace obs_videostabilizer {

namespace {

constexpr std::int64_t MILLISECOND = 1000000;
// Milliseconds: the place of the media goes on in steps, and up to twice as fast as the clock.
constexpr std::int64_t LONGEST_STEP = 500;
constexpr std::int64_t MOST_SPEED = 2;
// Media that begin again from their end repeat: they go on.
constexpr std::int64_t REPEAT_RANGE = 1000;

void on_restart(void* steadier, calldata_t* /*data*/) {
    static_cast<Steadier*>(steadier)->restart();
}

void on_pause(void* steadier, calldata_t* /*data*/) {
    static_cast<Steadier*>(steadier)->pause();
}

void on_resume(void* steadier, calldata_t* /*data*/) {
    static_cast<Steadier*>(steadier)->resume();
}

struct Signal {
    const char* name;
    signal_callback_t callback;
};
constexpr Signal SIGNALS[] = {
    {"media_pause", on_pause},     {"media_play", on_resume},  {"media_restart", on_restart},
    {"media_stopped", on_restart}, {"media_next", on_restart}, {"media_previous", on_restart},
    {"media_started", on_restart},
};

}  // namespace

bool MediaWatch::has_jumped(obs_source_t* source) {
    if ((obs_source_get_output_flags(source) & OBS_SOURCE_CONTROLLABLE_MEDIA) == 0) return false;
    const obs_media_state state = obs_source_media_get_state(source);
    if (state != OBS_MEDIA_STATE_PLAYING && state != OBS_MEDIA_STATE_PAUSED) {
        last_place_ = -1;
        return false;
    }
    const std::int64_t place = obs_source_media_get_time(source);
    const auto time = static_cast<std::int64_t>(os_gettime_ns());
    const std::int64_t before = last_place_;
    const std::int64_t step = place - before;
    const std::int64_t passed = (time - last_time_) / MILLISECOND;
    last_place_ = place;
    last_time_ = time;
    if (before < 0 || place < 0) return false;
    const bool repeats =
        place < REPEAT_RANGE && before > obs_source_media_get_duration(source) - REPEAT_RANGE;
    return (step < 0 && !repeats) || step > LONGEST_STEP + passed * MOST_SPEED;
}

void MediaWatch::tick() {
    const std::lock_guard<std::mutex> lock(mutex_);
    obs_source_t* const source = steadier_.source_ref();
    if (source == nullptr) return;
    if (watched_ == nullptr) {
        for (const Signal& signal : SIGNALS) {
            signal_handler_connect(obs_source_get_signal_handler(source), signal.name,
                                   signal.callback, &steadier_);
        }
        watched_ = source;
        last_place_ = -1;
    }
    if (has_jumped(source)) steadier_.restart();
    obs_source_release(source);
}

void MediaWatch::forget(obs_source_t* source) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (watched_ == nullptr) return;
    for (const Signal& signal : SIGNALS) {
        signal_handler_disconnect(obs_source_get_signal_handler(source), signal.name,
                                  signal.callback, &steadier_);
    }
    watched_ = nullptr;
}

}  // namespace obs_videostabilizer
