// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/log_sink.h"
#include "platform/ready_event.h"
#include "stream/steady_picture.h"
#include "stream/stream_engine.h"

namespace videostabilizer {

// A stream of the C interface; its functions are those of videostabilizer/stream.h.
//
// Pictures are numbered. Picture n has slot n mod capacity from its push to its pull, so that nothing
// is allocated for it but its pixels. The counters tell how far pictures have come:
//
//     pulled_ <= steady_ <= fed_ <= pushed_ <= pulled_ + capacity
//
// A slot belongs to the engine's threads while steady_ <= n < fed_; otherwise mutex_ guards it.
class Stream : private EngineUser {
  public:
    explicit Stream(const StreamSettings& settings);  // throws std::bad_alloc
    virtual ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    int start();
    void end();  // before it is deleted, once started: the engine calls this object until then

    int push(const VideoStabilizerInput* given, int timeout_ms);
    int drain();
    int pull(VideoStabilizerPicture** picture, int timeout_ms);
    int pull_into(VideoStabilizerOutput* output, VideoStabilizerStreamReport* report,
                  int timeout_ms);
    int flush();
    int change(const VideoStabilizerStreamOptions* wanted);
    VideoStabilizerStreamOptions options();
    int latency() const { return settings_.options.look_ahead; }
    int ready();
    int descriptor();
    std::size_t message(char* text, std::size_t size);

    // Tells an error of this stream, and returns its code.
    int refuse(int code, const char* text);

  private:
    struct Slot {
        std::int64_t timestamp;
        void* host;
        void (*release)(void* release_context, void* host);  // null: the picture is a copy
        void* release_context;
        Frame* frame;                    // until it is fed
        VideoStabilizerPicture* copy;    // null: the picture is borrowed
        VideoStabilizerPicture* output;  // from the warp stage on
        VideoStabilizerStreamReport report;
    };

    Frame* make_output(std::int64_t n) noexcept override;
    VideoStabilizerStreamReport& report_of(std::int64_t n) noexcept override;
    void on_steady(std::int64_t n) noexcept override;
    void on_end(bool failed) noexcept override;

    static void write_log(void* self, int priority, const char* tag, const char* text);
    void note(int priority, const char* tag, const char* text);
    int refuse_input(const VideoStabilizerInput& input, int code, const char* text);
    int create_engine(std::unique_ptr<StreamEngine>& engine);
    Slot& slot(std::int64_t n) { return slots_[static_cast<std::size_t>(n) % slots_.size()]; }
    void let_memory_go();
    void reset_counters();

    // The caller holds mutex_. Those that return events tell them once it has released it.
    bool has_room() const;
    bool has_output() const;
    int state_code() const;
    void feed();
    int update_ready();
    bool wait(pthread_cond_t& condition, int timeout_ms, const timespec& deadline);

    // The caller does not.
    void tell(int events);
    int reserve(int timeout_ms, std::int64_t& generation);
    int take_over(const VideoStabilizerInput& input, Slot& out);
    int commit(const Slot& picture, std::int64_t generation);
    int next_output(int timeout_ms, VideoStabilizerPicture** picture);
    static void release_input(Slot& picture);
    void drop_all();

    StreamSettings settings_;  // what may change is guarded by engine_mutex_
    LogSink log_;
    PictureMemory* planes_ = nullptr;  // what is warped
    PictureMemory* packed_ = nullptr;  // what the host pulls, of packed RGB
    std::vector<Slot> slots_;

    // Held while the engine is exchanged, which mutex_ guards as well: either suffices to read it.
    pthread_mutex_t engine_mutex_ = PTHREAD_MUTEX_INITIALIZER;
    std::unique_ptr<StreamEngine> engine_;

    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;  // guards the rest
    pthread_cond_t room_ = PTHREAD_COND_INITIALIZER;
    pthread_cond_t output_ = PTHREAD_COND_INITIALIZER;
    std::int64_t pushed_ = 0;
    std::int64_t fed_ = 0;
    std::int64_t steady_ = 0;
    std::int64_t pulled_ = 0;
    std::int64_t reserved_ = 0;    // pictures that are being copied for a slot
    std::int64_t generation_ = 0;  // flushes
    bool flushing_ = false;        // the slots are dropped, and nobody else's
    bool draining_ = false;
    bool ended_ = false;  // all pictures are steady
    int failed_ = 0;      // the code
    bool wants_push_ = false;
    int ready_ = 0;  // as last told
    ReadyEvent event_;

    pthread_mutex_t message_mutex_ = PTHREAD_MUTEX_INITIALIZER;  // guards the rest; innermost
    std::array<char, 512> message_{};
    bool out_of_memory_ = false;
    bool out_of_threads_ = false;
};

}  // namespace videostabilizer
