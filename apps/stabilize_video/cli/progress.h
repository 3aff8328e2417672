// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace apps {

// How far a file is, for the process that has started this one. In memory that both share.
struct SharedProgress {
    std::atomic<std::int64_t> frames{0};
    std::atomic<std::int64_t> total{-1};  // -1: unknown
};

// Of the terminal on standard error.
int terminal_columns();

// Progress on standard error: a line that redraws itself on a terminal, else a line every 10 seconds.
// Threads: owner only.
class Progress {
  public:
    // total  frames of the input; -1: unknown
    // rate   frames per second of the video; 0: unknown
    // shared receives the same; may be null
    Progress(bool wanted, std::int64_t total, double rate, SharedProgress* shared);
    ~Progress();  // clears the line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Cheap: writes five times a second at most.
    void show(std::int64_t frames);

  private:
    using Clock = std::chrono::steady_clock;

    bool wanted_;
    SharedProgress* shared_;
    bool terminal_;
    bool drawn_ = false;
    std::int64_t total_;
    double rate_;
    Clock::time_point start_;
    Clock::time_point next_;
};

}  // namespace apps
