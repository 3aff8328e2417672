// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/pictures/picture_stream.h"

namespace apps {

// Shows shaky and steady pictures side by side in a window of ffplay, as they are made. Never holds the
// work up: pictures that come while the one before is being drawn are not shown. Closing the window ends
// it.
//
// Threads: owner only, except add_shaky: thread-safe.
class Preview {
  public:
    // Throws OutputError where there is no display, or ffplay cannot be started.
    explicit Preview(const PictureFormat& format);
    ~Preview();
    Preview(const Preview&) = delete;
    Preview& operator=(const Preview&) = delete;

    // Whether the window was closed as soon as it was to open, as where the display cannot be used.
    bool ended_at_once() const { return ended_at_once_; }

    // Keeps a reference until the steady picture of the same frame arrives.
    void add_shaky(const AVFrame& picture);
    void add_steady(const AVFrame& picture);

  private:
    using Clock = std::chrono::steady_clock;

    void start_player();
    bool player_has_ended() const;
    void draw_all();  // body of the thread

    PictureFormat format_;
    pid_t player_ = -1;
    int pipe_ = -1;  // to the player
    Clock::time_point start_;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> ended_at_once_{false};
    std::mutex mutex_;  // guards the rest
    std::condition_variable changed_;
    std::deque<AvFramePtr> shaky_;  // that wait for their steady pictures
    AvFramePtr next_shaky_;         // to be drawn; null: none
    AvFramePtr next_steady_;
    bool closed_ = false;  // nothing is drawn any more
};

}  // namespace apps
