// SPDX-License-Identifier: Apache-2.0

#include "stream_keeper.h"

#include <util/threading.h>

#include <utility>

namespace obs_videostabilizer {

namespace {

void on_log(void* /*context*/, int /*level*/, const char* area, const char* text) {
    blog(LOG_WARNING, "[videostabilizer] %s: %s", area, text);
}

StreamAnswer answer_to(const StreamRequest& request) {
    StreamAnswer answer{request, nullptr, std::string(256, '\0')};
    VideoStabilizerStreamOptions options = request.options;
    options.log = on_log;
    options.log_level = VIDEOSTABILIZER_LOG_ERROR;
    VideoStabilizerStream* stream = nullptr;
    const int code =
        videostabilizer_stream_open(&options, &stream, answer.reason.data(), answer.reason.size());
    answer.stream.reset(stream);
    answer.reason.resize(answer.reason.find('\0'));
    if (code != VIDEOSTABILIZER_OK && answer.reason.empty()) {
        answer.reason = videostabilizer_strerror(code);
    }
    return answer;
}

}  // namespace

StreamKeeper::StreamKeeper() : thread_([this] { run(); }) {}

StreamKeeper::~StreamKeeper() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        is_ending_ = true;
    }
    work_.notify_one();
    thread_.join();
}

void StreamKeeper::open(const StreamRequest& request) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ++request_number_;
        request_ = request;
    }
    work_.notify_one();
}

void StreamKeeper::cancel() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++request_number_;
    request_.reset();
    if (answer_) {
        retired_.push_back({std::move(answer_->stream), {}, nullptr});
        answer_.reset();
    }
    work_.notify_one();
}

std::optional<StreamAnswer> StreamKeeper::take_answer() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(answer_, std::nullopt);
}

void StreamKeeper::retire(StreamPtr stream, std::vector<obs_source_frame*> frames,
                          obs_source_t* source) {
    if (!stream && frames.empty()) return;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        retired_.push_back({std::move(stream), std::move(frames), source});
    }
    work_.notify_one();
}

void StreamKeeper::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return retired_.empty() && !is_retiring_; });
}

void StreamKeeper::run() {
    os_set_thread_name("videostabilizer");
    std::unique_lock<std::mutex> lock(mutex_);
    while (!is_ending_ || !retired_.empty()) {
        if (!retired_.empty()) {
            std::vector<Retired> retired = std::exchange(retired_, {});
            is_retiring_ = true;
            lock.unlock();
            for (Retired& r : retired) {
                r.stream.reset();
                for (obs_source_frame* const frame : r.frames) {
                    obs_source_release_frame(r.source, frame);
                }
            }
            lock.lock();
            is_retiring_ = false;
            done_.notify_all();
        } else if (request_) {
            const StreamRequest request = *std::exchange(request_, std::nullopt);
            const unsigned number = request_number_;
            lock.unlock();
            StreamAnswer answer = answer_to(request);
            lock.lock();
            if (number == request_number_) {
                answer_ = std::move(answer);
            } else {
                retired_.push_back({std::move(answer.stream), {}, nullptr});
            }
        } else {
            work_.wait(lock);
        }
    }
}

}  // namespace obs_videostabilizer
