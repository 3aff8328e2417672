#pragma once

#include <chrono>
#include <cstdint>

namespace apps {

// How far the work has come, on standard error: one line that redraws itself on a terminal, else a
// plain line now and then.
class Progress {
  public:
    // total  frames to come, or -1 if nobody knows
    // rate   frames per second of the video, or 0 if unknown
    Progress(bool wanted, std::int64_t total, double rate);
    ~Progress();  // clears the line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Cheap; writes a few times a second at most.
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
