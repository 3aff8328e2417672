// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "apps/stabilize_video/cli/progress.h"

namespace apps {

// Progress of a batch on standard error: a line for each file that runs and one for the whole. They
// redraw themselves on a terminal, and else appear every 10 seconds. Threads: owner only.
class BatchProgress {
  public:
    // Throws std::bad_alloc.
    BatchProgress(bool wanted, std::size_t files);
    ~BatchProgress();
    BatchProgress(const BatchProgress&) = delete;
    BatchProgress& operator=(const BatchProgress&) = delete;

    // Where the process of a file tells how far it is.
    SharedProgress& of(std::size_t file) { return shared_[file]; }

    struct Running {
        std::size_t file;
        std::string name;
    };
    void show(const std::vector<Running>& running, std::size_t done);

    // Makes room for other lines.
    void clear();

  private:
    using Clock = std::chrono::steady_clock;

    // Part that is done, 0 to 1; 0 while that is unknown.
    double part_of(std::size_t file) const;

    bool wanted_;
    bool terminal_;
    std::size_t files_;
    SharedProgress* shared_ = nullptr;
    std::size_t lines_ = 0;  // drawn on the terminal
    Clock::time_point next_;
};

}  // namespace apps
