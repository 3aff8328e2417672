#pragma once

#include <chrono>
#include <cstdint>

namespace apps {

// One line on standard error that tells how far the work has come; nothing unless that is a
// terminal.
class Progress {
  public:
    // total  frames to come, or -1 if nobody knows
    Progress(bool wanted, std::int64_t total);
    ~Progress();  // clears the line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Cheap; redraws a few times a second.
    void show(std::int64_t frames);

  private:
    using Clock = std::chrono::steady_clock;

    bool active_;
    bool drawn_ = false;
    std::int64_t total_;
    Clock::time_point start_;
    Clock::time_point next_;
};

}  // namespace apps
