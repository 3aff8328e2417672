// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/cli/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string>

namespace apps {

namespace {

constexpr std::chrono::milliseconds REDRAW_INTERVAL{200};
constexpr std::chrono::seconds PLAIN_INTERVAL{10};
constexpr const char* CLEAR_LINE = "\r\x1b[K";

template <typename... Values>
std::string text(const char* format, Values... values) {
    std::array<char, 128> buffer{};
    std::snprintf(buffer.data(), buffer.size(), format, values...);
    return buffer.data();
}

std::string clock_text(double seconds) {
    const auto whole = std::llround(seconds);
    if (whole < 3600) {
        return text("%lld:%02lld", whole / 60, whole % 60);
    }
    return text("%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
}

std::string bar(double part) {
    constexpr std::size_t LENGTH = 24;
    const auto filled = static_cast<std::size_t>(part * static_cast<double>(LENGTH));
    return "[" + std::string(filled, '#') + std::string(LENGTH - filled, '.') + "] ";
}

}  // namespace

int terminal_columns() {
    constexpr int USUAL = 80;
    winsize size{};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : USUAL;
}

Progress::Progress(bool wanted, std::int64_t total, double rate, SharedProgress* shared)
    : wanted_(wanted),
      shared_(shared),
      terminal_(isatty(STDERR_FILENO) == 1),
      total_(total),
      rate_(rate),
      start_(Clock::now()),
      next_(start_) {
    if (shared_ != nullptr) {
        shared_->total = total;
    }
    if (terminal_) {
        next_ += REDRAW_INTERVAL;
    } else {
        next_ += PLAIN_INTERVAL;
    }
}

Progress::~Progress() {
    if (drawn_ && terminal_) {
        std::fputs(CLEAR_LINE, stderr);
    }
}

void Progress::show(std::int64_t frames) {
    if (shared_ != nullptr) {
        shared_->frames = frames;
    }
    if (!wanted_) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (now < next_) {
        return;
    }
    if (terminal_) {
        next_ = now + REDRAW_INTERVAL;
    } else {
        next_ = now + PLAIN_INTERVAL;
    }
    drawn_ = true;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double speed = static_cast<double>(frames) / seconds;  // frames per second
    std::string line = std::to_string(frames);
    std::string picture;
    if (total_ > 0) {
        const double part =
            std::min(1.0, static_cast<double>(frames) / static_cast<double>(total_));
        picture = bar(part);
        line = text("%3.0f %%  ", 100 * part) + line + " of " + std::to_string(total_);
    }
    line += text(" frames  %.0f/s", speed);
    if (rate_ > 0) {
        line += text(" (%.1f x real time)", speed / rate_);
    }
    if (total_ > 0 && frames > 0) {
        const auto left = static_cast<double>(std::max<std::int64_t>(total_ - frames, 0));
        line += "  " + clock_text(left / speed) + " left";
    }
    if (!terminal_) {
        std::fprintf(stderr, "%s\n", line.c_str());
        return;
    }
    // A wrapped line could not be redrawn.
    const auto columns = static_cast<std::size_t>(terminal_columns() - 1);
    if (picture.size() + line.size() <= columns) {
        line.insert(0, picture);
    }
    std::fprintf(stderr, "%s%s", CLEAR_LINE, line.substr(0, columns).c_str());
    std::fflush(stderr);
}

}  // namespace apps
