// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/log_sink.h"
#include "stream/stream_options.h"
#include "videostabilizer/stabilizer.h"

namespace videostabilizer {

// What an engine asks of the stream that it belongs to. Pictures are numbered from 0.
class EngineUser {
  public:
    // A frame for steady picture n, or null. On the warp stage's thread.
    virtual Frame* make_output(std::int64_t n) noexcept = 0;
    // Where picture n's report goes, before it is steady. On the worker.
    virtual VideoStabilizerStreamReport& report_of(std::int64_t n) noexcept = 0;
    // Picture n is steady, and is not read any more. On the carrier.
    virtual void on_steady(std::int64_t n) noexcept = 0;
    // No more comes. failed: because of an error, and nothing is read any more. On the carrier.
    virtual void on_end(bool failed) noexcept = 0;

  protected:
    ~EngineUser() = default;
};

// A stabilizer and the thread that carries steady pictures out of it at once, the carrier.
//
// The stabilizer's queues poll where they are full, which they are not with at most MOST_BEYOND pictures
// inside besides the look-ahead. (When the last pictures come out, the worker may be ahead of the warp.)
class StreamEngine {
  public:
    static constexpr int MOST_BEYOND = 2;  // one in the worker, one in the warp stage

    // Starts all threads, whose lines go to `log`. Returns VIDEOSTABILIZER_OK and the engine, or a code.
    static int create(const StreamSettings& settings, EngineUser& user, const LogSink& log,
                      std::unique_ptr<StreamEngine>& out);
    // Ends all threads; then nothing is read or called any more. Not on the carrier.
    ~StreamEngine();
    StreamEngine(const StreamEngine&) = delete;
    StreamEngine& operator=(const StreamEngine&) = delete;

    VideoStabilizer* stabilizer() { return stabilizer_; }
    bool runs_on_this_thread() const { return pthread_equal(carrier_, pthread_self()) != 0; }

  private:
    StreamEngine(EngineUser& user, const LogSink& log) : engine_user_(user), log_(log) {}
    static void* carrier(void* self);
    void carry();
    void halt();
    void watch();
    VideoStabilizerStreamReport& report() { return engine_user_.report_of(corrected_); }

    EngineUser& engine_user_;
    const LogSink& log_;
    VideoStabilizerUser frame_maker_{};
    VideoStabilizer* stabilizer_ = nullptr;
    std::int64_t made_ = 0;       // of the warp stage's thread
    std::int64_t corrected_ = 0;  // of the worker
    pthread_t carrier_{};
    bool has_carrier_ = false;
    std::atomic<bool> ending_{false};                         // by the destructor
    pthread_mutex_t halt_mutex_ = PTHREAD_MUTEX_INITIALIZER;  // guards the next
    bool halted_ = false;
};

}  // namespace videostabilizer
