#include "apps/stabilize_video/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace apps {

namespace {

constexpr std::chrono::milliseconds REDRAW_INTERVAL{200};
constexpr const char* CLEAR_LINE = "\r\x1b[K";

}  // namespace

Progress::Progress(bool wanted, std::int64_t total)
    : active_(wanted && isatty(STDERR_FILENO) == 1),
      total_(total),
      start_(Clock::now()),
      next_(start_ + REDRAW_INTERVAL) {}

Progress::~Progress() {
    if (drawn_) std::fputs(CLEAR_LINE, stderr);
}

void Progress::show(std::int64_t frames) {
    if (!active_) return;
    const Clock::time_point now = Clock::now();
    if (now < next_) return;
    next_ = now + REDRAW_INTERVAL;
    drawn_ = true;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double rate = static_cast<double>(frames) / seconds;
    if (total_ > 0 && frames > 0) {
        const double left = static_cast<double>(std::max<std::int64_t>(total_ - frames, 0)) / rate;
        std::fprintf(stderr, "%s%3.0f %%  %lld of %lld frames, %.1f frames/s, %.0f s left",
                     CLEAR_LINE, 100 * static_cast<double>(frames) / static_cast<double>(total_),
                     static_cast<long long>(frames), static_cast<long long>(total_), rate, left);
    } else {
        std::fprintf(stderr, "%s%lld frames, %.1f frames/s", CLEAR_LINE,
                     static_cast<long long>(frames), rate);
    }
    std::fflush(stderr);
}

}  // namespace apps
