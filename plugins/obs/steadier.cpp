// SPDX-License-Identifier: Apache-2.0

#include "steadier.h"

#include <util/platform.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <utility>

#include "formats.h"

namespace obs_videostabilizer {

namespace {

constexpr std::int64_t SECOND = 1000000000;
// A longer break between two pictures begins a scene, unless the break before was about as long.
constexpr std::int64_t LEAST_BREAK = SECOND / 2;
constexpr std::int64_t BREAKS = 4;
// OBS takes times that are so close to the system's for the system's, and does not shift the sound.
constexpr std::int64_t SYSTEM_TIME_RANGE = 2 * SECOND;
constexpr std::uint32_t LEAST_SIZE = 16;
constexpr double MOST_FRAME_RATE = 240;
constexpr std::size_t MOST_RUNS = 2;
constexpr std::int64_t SMOOTHING = 8;  // pictures over which their interval is averaged

void end_loan(void* /*context*/, void* /*host*/) {
    // Frames are given back where OBS's locks may be taken.
}

bool can_be_steadied(const obs_source_frame& frame) {
    return frame.width >= LEAST_SIZE && frame.height >= LEAST_SIZE &&
           stream_format(frame.format) >= 0;
}

}  // namespace

int delay_in_pictures(const Settings& settings) {
    return look_ahead_of(settings) + 1;
}

void Steadier::set(const Settings& settings) {
    const std::lock_guard<std::mutex> lock(told_mutex_);
    settings_ = settings;
}

Settings Steadier::settings() const {
    const std::lock_guard<std::mutex> lock(told_mutex_);
    return settings_;
}

Status Steadier::status() const {
    const std::lock_guard<std::mutex> lock(told_mutex_);
    return status_;
}

void Steadier::tell(State state, const std::string& reason) {
    const std::lock_guard<std::mutex> lock(told_mutex_);
    if (status_.state != state || status_.reason != reason) {
        if (state != State::STEADY) {
            blog(LOG_WARNING, "[videostabilizer] pictures pass as they are: %s",
                 state == State::FORMAT       ? "this format is not supported"
                 : state == State::INTERLACED ? "they are deinterlaced afterwards"
                                              : reason.c_str());
        }
        status_.state = state;
        status_.reason = reason;
    }
    status_.interval = interval_;
}

bool Steadier::is_jump(const obs_source_frame& frame, std::int64_t now) {
    const std::int64_t longest = std::max(LEAST_BREAK, BREAKS * last_step_);
    const std::int64_t step = static_cast<std::int64_t>(frame.timestamp) - last_time_;
    const bool goes_on = resumes_.exchange(false) || pauses_;
    return step < 0 || (!goes_on && (step > longest || now - last_call_ > longest));
}

void Steadier::note_times(const obs_source_frame& frame, std::int64_t now) {
    const auto time = static_cast<std::int64_t>(frame.timestamp);
    const std::int64_t step = time - last_time_;
    if (step > 0 && step <= LEAST_BREAK * BREAKS) {
        interval_ += interval_ == 0 ? step : (step - interval_) / SMOOTHING;
    }
    last_step_ = std::clamp<std::int64_t>(step, 0, LEAST_BREAK * BREAKS);
    last_time_ = time;
    last_call_ = now;
    const bool is_system_time = std::llabs(time - now) < SYSTEM_TIME_RANGE;
    const std::lock_guard<std::mutex> lock(told_mutex_);
    ++status_.pictures;
    status_.sound_follows = !is_system_time;
}

void Steadier::give_back(obs_source_frame* frame) {
    keeper_.retire(nullptr, {frame}, source_);
}

void Steadier::drop_all() {
    keeper_.cancel();
    is_opening_ = false;
    for (Run& run : runs_) {
        const bool is_last = &run == &runs_.back();
        std::vector<obs_source_frame*> frames;
        if (is_last) frames.assign(inside_.begin(), inside_.end());
        keeper_.retire(std::move(run.stream), std::move(frames), source_);
    }
    runs_.clear();
    inside_.clear();
    is_shown_ = false;
    has_failed_ = false;
}

void Steadier::request_stream(const Settings& settings, const obs_source_frame& frame) {
    const double rate =
        interval_ > 0 ? static_cast<double>(SECOND) / static_cast<double>(interval_) : 0;
    keeper_.open({settings, stream_options(settings, frame, std::min(rate, MOST_FRAME_RATE))});
    is_opening_ = true;
}

void Steadier::adopt_stream() {
    if (!is_opening_) return;
    std::optional<StreamAnswer> answer = keeper_.take_answer();
    if (!answer) return;
    is_opening_ = false;
    if (!answer->stream) {
        has_failed_ = true;
        failed_ = answer->request.settings;
        tell(State::REFUSED, answer->reason);
        return;
    }
    if (!runs_.empty()) videostabilizer_stream_drain(runs_.back().stream.get());
    VideoStabilizerStream* const stream = answer->stream.get();
    runs_.push_back({std::move(answer->stream), answer->request.settings,
                     answer->request.options.frame_rate, videostabilizer_stream_latency(stream)});
    tell(State::STEADY);
}

// Makes the last stream one of these settings, by a change or by another one.
void Steadier::apply(const Settings& settings, const obs_source_frame& frame) {
    if (is_opening_ || (has_failed_ && settings.is_same_stream(failed_))) return;
    if (runs_.empty()) {
        request_stream(settings, frame);
        return;
    }
    Run& run = runs_.back();
    if (settings.is_same_stream(run.settings)) return;
    if (settings.is_within_change(run.settings)) {
        const VideoStabilizerStreamOptions options =
            stream_options(settings, frame, run.frame_rate);
        if (videostabilizer_stream_change(run.stream.get(), &options) == VIDEOSTABILIZER_OK) {
            run.settings = settings;
            return;
        }
    }
    if (runs_.size() < MOST_RUNS) request_stream(settings, frame);
}

// False: the frame was not taken.
bool Steadier::push(obs_source_frame* frame) {
    bool borrows = false;
    VideoStabilizerInput input{};
    input.size = sizeof input;
    input.planes = planes_to_push(*frame, separated_, borrows);
    input.timestamp = static_cast<std::int64_t>(frame->timestamp);
    input.release = borrows ? end_loan : nullptr;
    inside_.push_back(frame);  // before the stream borrows it, as this may throw
    const int code = videostabilizer_stream_push(runs_.back().stream.get(), &input, 0);
    if (code != VIDEOSTABILIZER_OK) inside_.pop_back();
    return code == VIDEOSTABILIZER_OK;
}

// The frame that should go out now, or null.
obs_source_frame* Steadier::take_due(bool halves) {
    struct PictureUnref {
        void operator()(VideoStabilizerPicture* p) const { videostabilizer_picture_unref(p); }
    };
    std::unique_ptr<VideoStabilizerPicture, PictureUnref> steady;
    obs_source_frame* due = nullptr;
    std::int64_t lost = 0;
    while (!runs_.empty() && inside_.size() > static_cast<std::size_t>(runs_.back().latency)) {
        VideoStabilizerPicture* picture = nullptr;
        const int code = videostabilizer_stream_pull(runs_.front().stream.get(), &picture, 0);
        if (code == VIDEOSTABILIZER_AGAIN) break;
        if (code == VIDEOSTABILIZER_END && runs_.size() > 1) {
            keeper_.retire(std::move(runs_.front().stream), {}, source_);
            runs_.pop_front();
            continue;
        }
        if (code != VIDEOSTABILIZER_OK) {
            const Settings failed = runs_.back().settings;
            const std::string reason = videostabilizer_strerror(code);
            drop_all();
            has_failed_ = true;
            failed_ = failed;
            tell(State::REFUSED, reason);
            break;
        }
        if (due != nullptr) {
            give_back(due);
            ++lost;
        }
        steady.reset(picture);
        due = inside_.front();
        inside_.pop_front();
    }
    if (due != nullptr) {
        VideoStabilizerOutput output{};
        output.size = sizeof output;
        videostabilizer_picture_get(steady.get(), &output);
        overwrite(*due, output.planes, halves);
    }
    const std::lock_guard<std::mutex> lock(told_mutex_);
    status_.lost += lost;
    return due;
}

obs_source_frame* Steadier::filter(obs_source_t* source, obs_source_frame* frame) {
    const std::lock_guard<std::mutex> lock(mutex_);
    source_ = source;
    const auto now = static_cast<std::int64_t>(os_gettime_ns());
    const Settings wanted = settings();
    if (!can_be_steadied(*frame) || is_interlaced_) {
        drop_all();
        tell(is_interlaced_ ? State::INTERLACED : State::FORMAT);
        return frame;
    }
    const bool is_new_kind = !is_same_kind(*frame, kind_);
    if (restarts_.exchange(false) || is_new_kind || is_jump(*frame, now)) {
        drop_all();
        if (is_new_kind) interval_ = 0;
        kind_ = *frame;
        std::fill(std::begin(kind_.data), std::end(kind_.data), nullptr);
    }
    note_times(*frame, now);
    adopt_stream();
    apply(wanted, *frame);
    if (runs_.empty()) {
        if (has_failed_ && !is_opening_) return frame;
        tell(State::STEADY);
        if (!std::exchange(is_shown_, true)) return frame;
        give_back(frame);
        return nullptr;
    }
    obs_source_frame* const due = take_due(wanted.halves);
    if (runs_.empty()) {  // it has failed
        if (due != nullptr) give_back(due);
        return frame;
    }
    if (!push(frame)) {
        give_back(frame);
        const std::lock_guard<std::mutex> told_lock(told_mutex_);
        ++status_.lost;
    }
    tell(State::STEADY);
    return due;
}

void Steadier::tick(bool enabled) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (source_ == nullptr) return;
    is_interlaced_ = obs_source_get_deinterlace_mode(source_) != OBS_DEINTERLACE_MODE_DISABLE;
    const auto now = static_cast<std::int64_t>(os_gettime_ns());
    const bool has_stopped =
        now - last_call_ > std::max(LEAST_BREAK, BREAKS * last_step_) && !pauses_ && !resumes_;
    if ((!enabled || has_stopped) && !runs_.empty()) drop_all();
}

obs_source_t* Steadier::source_ref() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return source_ != nullptr ? obs_source_get_ref(source_) : nullptr;
}

void Steadier::detach() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        drop_all();
        source_ = nullptr;
        kind_ = {};
    }
    keeper_.wait();
}

}  // namespace obs_videostabilizer
