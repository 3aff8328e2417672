// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <chrono>
#include <cstdint>

namespace apps {

// Progress on standard error: a line that redraws itself on a terminal, else a line every 10 seconds.
// Threads: owner only.
class Progress {
  public:
    // total  frames of the input; -1: unknown
    // rate   frames per second of the video; 0: unknown
    Progress(bool wanted, std::int64_t total, double rate);
    ~Progress();  // clears the line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Cheap: writes five times a second at most.
    void show(std::int64_t frames);

  private:
    using Clock = std::chrono::steady_clock;

    bool wanted_;
    bool terminal_;
    bool drawn_ = false;
    std::int64_t total_;
    double rate_;
    Clock::time_point start_;
    Clock::time_point next_;
};

}  // namespace apps
