// SPDX-License-Identifier: Apache-2.0

#include "stream/stream.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "frames/deadline.h"
#include "pipeline/live_settings.h"
#include "pipeline/stabilizer_internal.h"
#include "platform/log.h"
#include "platform/mutex_lock.h"
#include "stream/packed_picture.h"
#include "stream/record.h"
#include "videostabilizer/result.h"

namespace videostabilizer {

namespace {

constexpr char AREA[] = "stream";

// Besides the look-ahead: those in the engine, and four between the host and it.
constexpr int CIRCULATING = 6;

// Lost corners are everyday matters, although they are logged as errors.
constexpr char TRACKER_AREA[] = "lk_pyradmid";

void unref(VideoStabilizerPicture* picture) {
    videostabilizer_picture_unref(picture);
}

}  // namespace

Stream::Stream(const StreamSettings& settings)
    : settings_(settings),
      log_{this, write_log},
      slots_(static_cast<std::size_t>(settings.options.look_ahead + CIRCULATING)) {
    const StreamFormat& format = settings_.format;
    const int width = settings_.given.width;
    const int height = settings_.given.height;
    planes_ = PictureMemory::create(separated(format), width, height, CIRCULATING);
    if (format.is_packed()) {
        packed_ = PictureMemory::create(format, width, height, CIRCULATING);
    }
    if (planes_ == nullptr || (format.is_packed() && packed_ == nullptr)) {
        let_memory_go();
        throw std::bad_alloc();
    }
}

Stream::~Stream() {
    drop_all();
    let_memory_go();
    pthread_cond_destroy(&output_);
    pthread_cond_destroy(&room_);
    for (pthread_mutex_t* const mutex : {&message_mutex_, &mutex_, &engine_mutex_}) {
        pthread_mutex_destroy(mutex);
    }
}

void Stream::let_memory_go() {
    for (PictureMemory* const memory : {planes_, packed_}) {
        if (memory != nullptr) {
            memory->let_go();
        }
    }
}

int Stream::start() {
    return create_engine(engine_);
}

void Stream::end() {
    {
        const MutexLock lock(mutex_);
        flushing_ = true;  // the engine is fed no more
    }
    engine_.reset();
}

int Stream::create_engine(std::unique_ptr<StreamEngine>& engine) {
    {
        const MutexLock lock(message_mutex_);
        out_of_memory_ = out_of_threads_ = false;
    }
    int code = StreamEngine::create(settings_, *this, log_, engine);
    const MutexLock lock(message_mutex_);
    if (code == VIDEOSTABILIZER_OK) {
        message_[0] = '\0';  // of a GPU that is not there, perhaps
    } else if (out_of_memory_) {
        code = VIDEOSTABILIZER_NO_MEMORY;
    } else if (out_of_threads_) {
        code = VIDEOSTABILIZER_NO_THREAD;
    }
    return code;
}

// The log and the last message.

void Stream::write_log(void* self, int priority, const char* tag, const char* text) {
    static_cast<Stream*>(self)->note(priority, tag, text);
}

void Stream::note(int priority, const char* tag, const char* text) {
    if (priority >= LOG_ERROR && std::strcmp(tag, TRACKER_AREA) != 0) {
        const MutexLock lock(message_mutex_);
        const std::size_t length = std::min(std::strlen(text), message_.size() - 1);
        std::memcpy(message_.data(), text, length);
        message_[length] = '\0';
        out_of_memory_ = out_of_memory_ || std::strcmp(text, OUT_OF_MEMORY_TEXT) == 0;
        out_of_threads_ = out_of_threads_ || std::strstr(text, "no thread") != nullptr;
    }
    const VideoStabilizerStreamOptions& o = settings_.given;
    if (o.log != nullptr && priority >= o.log_level) {
        o.log(o.log_context, priority, tag, text);
    }
}

int Stream::refuse(int code, const char* text) {
    note(LOG_ERROR, AREA, text);
    return code;
}

std::size_t Stream::message(char* text, std::size_t size) {
    const MutexLock lock(message_mutex_);
    const std::size_t length = std::strlen(message_.data());
    if (size > 0) {
        const std::size_t copied = std::min(length, size - 1);
        std::memcpy(text, message_.data(), copied);
        text[copied] = '\0';
    }
    return length;
}

// Readiness.

bool Stream::has_room() const {
    return !flushing_ && pushed_ + reserved_ - pulled_ < static_cast<std::int64_t>(slots_.size());
}

bool Stream::has_output() const {
    return !flushing_ && (steady_ > pulled_ || ended_ || failed_ != 0);
}

// Returns the events that are new, with all others, or 0.
int Stream::update_ready() {
    int now = has_output() ? VIDEOSTABILIZER_READY_PULL : 0;
    if (wants_push_ && (has_room() || draining_ || failed_ != 0)) {
        now |= VIDEOSTABILIZER_READY_PUSH;
    }
    const bool is_news = (now & ~ready_) != 0;
    ready_ = now;
    if (event_.descriptor() >= 0) {
        event_.set(now != 0);
    }
    return is_news ? now : 0;
}

void Stream::tell(int events) {
    const VideoStabilizerStreamOptions& o = settings_.given;
    if (events != 0 && o.on_ready != nullptr) {
        o.on_ready(o.ready_context, events);
    }
}

// Returns false once the time is over.
bool Stream::wait(pthread_cond_t& condition, int timeout_ms, const timespec& deadline) {
    if (timeout_ms < 0) {
        return pthread_cond_wait(&condition, &mutex_) == 0;
    }
    return timeout_ms > 0 && pthread_cond_timedwait(&condition, &mutex_, &deadline) != ETIMEDOUT;
}

int Stream::ready() {
    const MutexLock lock(mutex_);
    return ready_;
}

int Stream::descriptor() {
    const MutexLock lock(mutex_);
    if (!event_.open()) {
        return refuse(VIDEOSTABILIZER_NO_THREAD, "no descriptor can be made");
    }
    event_.set(ready_ != 0);
    return event_.descriptor();
}

// Pushing.

// Gives the engine what it may have.
void Stream::feed() {
    const LogScope scope(&log_);
    const std::int64_t most = settings_.options.look_ahead + StreamEngine::MOST_BEYOND;
    while (fed_ < pushed_ && fed_ - steady_ < most) {
        // Refused only by a stabilizer that has failed, which the carrier is about to notice.
        video_stabilizer_push_frame(engine_->stabilizer(),
                                    std::exchange(slot(fed_).frame, nullptr));
        ++fed_;
    }
    if (!draining_ || fed_ < pushed_) {
        return;
    }
    if (pushed_ == 0) {
        ended_ = true;  // a stabilizer without pictures reports no end
    } else {
        video_stabilizer_signal_eos(engine_->stabilizer());
    }
}

int Stream::refuse_input(const VideoStabilizerInput& input, int code, const char* text) {
    if (input.release != nullptr) {
        input.release(input.release_context, input.host);
    }
    return refuse(code, text);
}

int Stream::state_code() const {
    return failed_ != 0 ? VIDEOSTABILIZER_FAILED
                        : (draining_ ? VIDEOSTABILIZER_DRAINING : VIDEOSTABILIZER_OK);
}

// Waits for room for a picture that is yet to be copied.
int Stream::reserve(int timeout_ms, std::int64_t& generation) {
    const timespec deadline = deadline_in(std::max(timeout_ms, 0));
    int events = 0;
    int code = VIDEOSTABILIZER_OK;
    {
        const MutexLock lock(mutex_);
        bool in_time = true;
        while ((code = state_code()) == VIDEOSTABILIZER_OK && !has_room() && in_time) {
            in_time = wait(room_, timeout_ms, deadline);
        }
        wants_push_ = code == VIDEOSTABILIZER_OK && !has_room();
        if (wants_push_) {
            code = VIDEOSTABILIZER_AGAIN;
        } else if (code == VIDEOSTABILIZER_OK) {
            ++reserved_;
            generation = generation_;
        }
        events = update_ready();
    }
    tell(events);
    return code;
}

// Makes a frame over the picture, or over a copy of it.
int Stream::take_over(const VideoStabilizerInput& input, Slot& out) {
    out = {};
    out.timestamp = input.timestamp;
    out.host = input.host;
    VideoStabilizerPlanes planes = input.planes;
    if (input.release == nullptr || packed_ != nullptr) {
        out.copy = planes_->take();
        if (out.copy == nullptr) {
            return VIDEOSTABILIZER_NO_MEMORY;
        }
        const int width = settings_.given.width;
        const int height = settings_.given.height;
        if (packed_ != nullptr) {
            separate(settings_.format, width, height, planes, out.copy->planes);
        } else {
            copy_picture(settings_.format, width, height, planes, out.copy->planes);
        }
        planes = out.copy->planes;
    }
    const LogScope scope(&log_);
    const PicturePlanes frame_planes = picture_planes(separated(settings_.format), planes);
    out.frame = picture_frame_create(settings_.given.width, settings_.given.height,
                                     &settings_.format.layout, &frame_planes);
    if (out.frame == nullptr) {
        unref(out.copy);
        return VIDEOSTABILIZER_NO_MEMORY;
    }
    if (packed_ != nullptr && input.release != nullptr) {
        input.release(input.release_context, input.host);  // the copy is enough
    } else {
        out.release = input.release;
        out.release_context = input.release_context;
    }
    return VIDEOSTABILIZER_OK;
}

// Puts a picture into the room that was reserved for it. The stream may have been flushed or drained
// meanwhile, with which the picture goes the way of those that were inside, or came too late.
int Stream::commit(const Slot& picture, std::int64_t generation) {
    int code = VIDEOSTABILIZER_OK;
    int events = 0;
    bool dropped = false;
    {
        const MutexLock lock(mutex_);
        --reserved_;
        dropped = generation != generation_;
        if (!dropped) {
            code = state_code();
        }
        if (!dropped && code == VIDEOSTABILIZER_OK) {
            slot(pushed_++) = picture;
            feed();
        } else {
            pthread_cond_broadcast(&room_);
        }
        events = update_ready();
    }
    tell(events);
    if (dropped || code != VIDEOSTABILIZER_OK) {
        Slot lost = picture;
        release_input(lost);
    }
    return code;
}

int Stream::push(const VideoStabilizerInput* given, int timeout_ms) {
    VideoStabilizerInput input{};
    const char* fault = read_record(given, SMALLEST_INPUT, input);
    if (fault != nullptr) {
        return refuse(VIDEOSTABILIZER_INVALID, fault);
    }
    fault = host_planes_fault(settings_.format, settings_.given.width, input.planes);
    if (fault != nullptr) {
        return refuse_input(input, VIDEOSTABILIZER_INVALID, fault);
    }
    std::int64_t generation = 0;
    int code = reserve(timeout_ms, generation);
    if (code == VIDEOSTABILIZER_AGAIN) {
        return code;
    }
    if (code != VIDEOSTABILIZER_OK) {
        return refuse_input(input, code, videostabilizer_strerror(code));
    }
    Slot picture{};
    code = take_over(input, picture);
    if (code == VIDEOSTABILIZER_OK) {
        return commit(picture, generation);
    }
    int events = 0;
    {
        const MutexLock lock(mutex_);
        --reserved_;
        pthread_cond_broadcast(&room_);
        events = update_ready();
    }
    tell(events);
    return refuse_input(input, code, videostabilizer_strerror(code));
}

int Stream::drain() {
    int code = VIDEOSTABILIZER_OK;
    int events = 0;
    {
        const MutexLock lock(mutex_);
        code = failed_ != 0 ? VIDEOSTABILIZER_FAILED : VIDEOSTABILIZER_OK;
        if (failed_ == 0 && !draining_ && !flushing_) {
            draining_ = true;
            feed();
            pthread_cond_broadcast(&room_);
            pthread_cond_broadcast(&output_);
        }
        events = update_ready();
    }
    tell(events);
    return code;
}

// The engine's threads.

Frame* Stream::make_output(std::int64_t n) noexcept {
    Slot& picture = slot(n);
    picture.output = planes_->take();
    if (picture.output == nullptr) {
        __android_log_print(LOG_ERROR, AREA, OUT_OF_MEMORY_TEXT);
        const MutexLock lock(message_mutex_);
        out_of_memory_ = true;  // also where the program has the log
        return nullptr;
    }
    const PicturePlanes planes =
        picture_planes(separated(settings_.format), picture.output->planes);
    return picture_frame_create(settings_.given.width, settings_.given.height,
                                &settings_.format.layout, &planes);
}

VideoStabilizerStreamReport& Stream::report_of(std::int64_t n) noexcept {
    return slot(n).report;
}

void Stream::on_steady(std::int64_t n) noexcept {
    Slot& picture = slot(n);
    VideoStabilizerPicture& output = *picture.output;
    output.timestamp = picture.timestamp;
    output.host = picture.host;
    output.report = picture.report;
    output.report.size = sizeof(output.report);
    Slot read = picture;
    picture.release = nullptr;
    picture.copy = nullptr;
    release_input(read);
    int events = 0;
    {
        const MutexLock lock(mutex_);
        ++steady_;
        if (!flushing_) {
            feed();
        }
        pthread_cond_broadcast(&output_);
        events = update_ready();
    }
    tell(events);
}

void Stream::on_end(bool failed) noexcept {
    int events = 0;
    {
        const MutexLock lock(mutex_);
        ended_ = !failed;
        if (failed) {
            const MutexLock message_lock(message_mutex_);
            failed_ = out_of_memory_ ? VIDEOSTABILIZER_NO_MEMORY : VIDEOSTABILIZER_FAILED;
        }
    }
    for (std::int64_t n = steady_; failed && n < pushed_; ++n) {  // nobody changes them any more
        release_input(slot(n));
    }
    {
        const MutexLock lock(mutex_);
        pthread_cond_broadcast(&room_);
        pthread_cond_broadcast(&output_);
        events = update_ready();
    }
    tell(events);
}

// Pulling.

// Takes the next steady picture as it was warped.
int Stream::next_output(int timeout_ms, VideoStabilizerPicture** picture) {
    const timespec deadline = deadline_in(std::max(timeout_ms, 0));
    int code = VIDEOSTABILIZER_OK;
    int events = 0;
    {
        const MutexLock lock(mutex_);
        bool in_time = true;
        while (!has_output() && in_time) {
            in_time = wait(output_, timeout_ms, deadline);
        }
        if (!has_output()) {
            code = VIDEOSTABILIZER_AGAIN;
        } else if (steady_ > pulled_) {
            *picture = std::exchange(slot(pulled_).output, nullptr);
            ++pulled_;
            pthread_cond_broadcast(&room_);
        } else {
            code = failed_ != 0 ? failed_ : VIDEOSTABILIZER_END;
        }
        events = update_ready();
    }
    tell(events);
    return code;
}

int Stream::pull(VideoStabilizerPicture** picture, int timeout_ms) {
    if (picture == nullptr) {
        return refuse(VIDEOSTABILIZER_INVALID, "no place for the picture");
    }
    *picture = nullptr;
    if (packed_ == nullptr) {
        return next_output(timeout_ms, picture);
    }
    // Made first, so that no picture is lost.
    VideoStabilizerPicture* const packed = packed_->take();
    if (packed == nullptr) {
        return refuse(VIDEOSTABILIZER_NO_MEMORY,
                      videostabilizer_strerror(VIDEOSTABILIZER_NO_MEMORY));
    }
    VideoStabilizerPicture* planes = nullptr;
    const int code = next_output(timeout_ms, &planes);
    if (code != VIDEOSTABILIZER_OK) {
        unref(packed);
        return code;
    }
    interleave(settings_.format, settings_.given.width, settings_.given.height, planes->planes,
               packed->planes);
    packed->timestamp = planes->timestamp;
    packed->host = planes->host;
    packed->report = planes->report;
    unref(planes);
    *picture = packed;
    return VIDEOSTABILIZER_OK;
}

int Stream::pull_into(VideoStabilizerOutput* output, VideoStabilizerStreamReport* report,
                      int timeout_ms) {
    VideoStabilizerOutput wanted{};
    const char* fault = read_record(output, SMALLEST_OUTPUT, wanted);
    VideoStabilizerStreamReport unused{};
    if (fault == nullptr && report != nullptr) {
        fault = read_record(report, SMALLEST_REPORT, unused);
    }
    if (fault == nullptr) {
        fault = host_planes_fault(settings_.format, settings_.given.width, wanted.planes);
    }
    if (fault != nullptr) {
        return refuse(VIDEOSTABILIZER_INVALID, fault);
    }
    VideoStabilizerPicture* picture = nullptr;
    const int code = next_output(timeout_ms, &picture);
    if (code != VIDEOSTABILIZER_OK) {
        return code;
    }
    const auto write = packed_ != nullptr ? interleave : copy_picture;
    write(settings_.format, settings_.given.width, settings_.given.height, picture->planes,
          wanted.planes);
    wanted.timestamp = picture->timestamp;
    wanted.host = picture->host;
    write_record(wanted, SMALLEST_OUTPUT, output);
    if (report != nullptr) {
        write_record(picture->report, SMALLEST_REPORT, report);
    }
    unref(picture);
    return VIDEOSTABILIZER_OK;
}

// Flushing and changing.

void Stream::release_input(Slot& picture) {
    frame_delete(std::exchange(picture.frame, nullptr));
    unref(std::exchange(picture.copy, nullptr));
    const auto release = std::exchange(picture.release, nullptr);
    if (release != nullptr) {
        release(picture.release_context, picture.host);
    }
}

// Of a stream without an engine.
void Stream::drop_all() {
    for (std::int64_t n = pulled_; n < pushed_; ++n) {
        release_input(slot(n));
        unref(std::exchange(slot(n).output, nullptr));
    }
}

void Stream::reset_counters() {
    pushed_ = fed_ = steady_ = pulled_ = 0;
    draining_ = ended_ = flushing_ = false;
    failed_ = 0;
}

int Stream::flush() {
    const MutexLock engine_lock(engine_mutex_);
    if (engine_->runs_on_this_thread()) {
        return refuse(VIDEOSTABILIZER_INVALID, "a callback cannot flush");
    }
    // A new engine has nothing of what was: the camera's path begins with its first picture.
    std::unique_ptr<StreamEngine> engine;
    const int code = create_engine(engine);
    if (code != VIDEOSTABILIZER_OK) {
        return code;
    }
    {
        const MutexLock lock(mutex_);
        flushing_ = true;
        ++generation_;
    }
    engine_.reset();
    drop_all();
    int events = 0;
    {
        const MutexLock lock(mutex_);
        engine_ = std::move(engine);
        reset_counters();
        pthread_cond_broadcast(&room_);
        events = update_ready();
    }
    tell(events);
    return VIDEOSTABILIZER_OK;
}

int Stream::change(const VideoStabilizerStreamOptions* wanted) {
    StreamSettings settings{};
    const char* fault = read_settings(wanted, settings);
    if (fault != nullptr) {
        return refuse(VIDEOSTABILIZER_INVALID, fault);
    }
    const MutexLock lock(engine_mutex_);
    fault = change_fault(settings_, settings);
    if (fault != nullptr) {
        return refuse(VIDEOSTABILIZER_NEEDS_REOPEN, fault);
    }
    const VideoStabilizerOptions& options = settings.options;
    try {
        offer_settings(engine_->stabilizer(),
                       {options.sigma, options.crop_ratio, options.crop_least, options.crop_most,
                        crop_speed(settings), options.readout});
    } catch (const std::bad_alloc&) {
        return refuse(VIDEOSTABILIZER_NO_MEMORY,
                      videostabilizer_strerror(VIDEOSTABILIZER_NO_MEMORY));
    }
    settings_.options.sigma = options.sigma;
    settings_.options.crop_ratio = options.crop_ratio;
    settings_.options.crop_least = options.crop_least;
    settings_.options.crop_most = options.crop_most;
    settings_.options.readout = options.readout;
    return VIDEOSTABILIZER_OK;
}

VideoStabilizerStreamOptions Stream::options() {
    const MutexLock lock(engine_mutex_);
    VideoStabilizerStreamOptions options = settings_.given;
    const VideoStabilizerOptions& now = settings_.options;
    options.sigma = now.sigma;
    options.crop_ratio = now.crop_ratio;
    options.crop_least = now.crop_least;
    options.crop_most = now.crop_most;
    options.readout = now.readout;
    options.picture_width = now.picture_width;
    options.picture_height = now.picture_height;
    options.sampling = now.sampling;
    options.engine = engine_->stabilizer()->options.engine;
    return options;
}

}  // namespace videostabilizer
