// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <obs-module.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "settings.h"
#include "videostabilizer/stream.h"

namespace obs_videostabilizer {

struct StreamClose {
    void operator()(VideoStabilizerStream* stream) const { videostabilizer_stream_close(stream); }
};
using StreamPtr = std::unique_ptr<VideoStabilizerStream, StreamClose>;

struct StreamRequest {
    Settings settings;
    VideoStabilizerStreamOptions options;
};

struct StreamAnswer {
    StreamRequest request;
    StreamPtr stream;    // null: it was refused
    std::string reason;  // then
};

// Opens and closes streams on a thread of its own, and gives frames back to OBS there: what takes long,
// and what takes locks of OBS, stays out of OBS's video thread.
class StreamKeeper {
  public:
    StreamKeeper();
    ~StreamKeeper();
    StreamKeeper(const StreamKeeper&) = delete;
    StreamKeeper& operator=(const StreamKeeper&) = delete;

    // Takes the place of a request that has not been answered.
    void open(const StreamRequest& request);
    void cancel();
    // The answer to the last request, once.
    std::optional<StreamAnswer> take_answer();

    // Closes the stream, which may be null, and then gives the frames, which it may have borrowed, back
    // to the source.
    void retire(StreamPtr stream, std::vector<obs_source_frame*> frames, obs_source_t* source);

    // Waits until all that was retired is gone. Not with a lock of OBS's.
    void wait();

  private:
    struct Retired {
        StreamPtr stream;
        std::vector<obs_source_frame*> frames;
        obs_source_t* source;
    };

    void run();

    std::mutex mutex_;
    std::condition_variable work_;
    std::condition_variable done_;
    bool is_ending_ = false;
    bool is_retiring_ = false;
    unsigned request_number_ = 0;
    std::optional<StreamRequest> request_;
    std::optional<StreamAnswer> answer_;
    std::vector<Retired> retired_;
    std::thread thread_;  // the last: it uses the others
};

}  // namespace obs_videostabilizer
