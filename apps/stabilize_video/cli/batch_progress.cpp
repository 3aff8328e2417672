// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/cli/batch_progress.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <new>

namespace apps {

namespace {

constexpr std::chrono::milliseconds REDRAW_INTERVAL{200};
constexpr std::chrono::seconds PLAIN_INTERVAL{10};

std::string percent(double part) {
    char text[16];
    std::snprintf(text, sizeof text, "%3.0f %%  ", 100 * part);
    return text;
}

}  // namespace

BatchProgress::BatchProgress(bool wanted, std::size_t files)
    : wanted_(wanted),
      terminal_(isatty(STDERR_FILENO) == 1),
      files_(files),
      next_(Clock::now() + PLAIN_INTERVAL) {
    static_assert(std::atomic<std::int64_t>::is_always_lock_free, "shared between processes");
    void* memory = mmap(nullptr, std::max<std::size_t>(files, 1) * sizeof(SharedProgress),
                        PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    shared_ = static_cast<SharedProgress*>(memory);
    for (std::size_t file = 0; file < files; ++file) {
        new (&shared_[file]) SharedProgress();
    }
    if (terminal_) {
        next_ = Clock::now();
    }
}

BatchProgress::~BatchProgress() {
    clear();
    munmap(shared_, std::max<std::size_t>(files_, 1) * sizeof(SharedProgress));
}

double BatchProgress::part_of(std::size_t file) const {
    const auto total = static_cast<double>(shared_[file].total);
    return total > 0 ? std::min(1.0, static_cast<double>(shared_[file].frames) / total) : 0;
}

void BatchProgress::show(const std::vector<Running>& running, std::size_t done) {
    const Clock::time_point now = Clock::now();
    if (!wanted_ || now < next_) {
        return;
    }
    clear();
    // A wrapped line could not be cleared.
    const auto columns = terminal_ ? static_cast<std::size_t>(std::max(terminal_columns() - 1, 1))
                                   : std::string::npos;
    auto whole = static_cast<double>(done);
    std::string text;
    for (const Running& one : running) {
        whole += part_of(one.file);
        text += (percent(part_of(one.file)) + one.name).substr(0, columns) + "\n";
    }
    text += percent(whole / static_cast<double>(std::max<std::size_t>(files_, 1))) +
            std::to_string(done) + " of " + std::to_string(files_) + " files done\n";
    std::fputs(text.c_str(), stderr);
    next_ = now;
    if (terminal_) {
        lines_ = running.size() + 1;
        next_ += REDRAW_INTERVAL;
    } else {
        next_ += PLAIN_INTERVAL;
    }
}

void BatchProgress::clear() {
    constexpr const char* LINE_ABOVE = "\x1b[A\x1b[2K\r";
    for (; lines_ > 0; --lines_) {
        std::fputs(LINE_ABOVE, stderr);
    }
}

}  // namespace apps
