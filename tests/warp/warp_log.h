#pragma once

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/log_capture.h"

// What the warp subsystem logged, as (priority, text): warnings and errors unless info lines are
// asked for, since most of those depend on the device.
using LogEntry = std::pair<int, std::string>;

inline std::vector<LogEntry> warp_log(int least_priority = 5) {
    std::vector<LogEntry> entries;
    for (const test_support::LogLine& line : test_support::log_lines()) {
        if (line.priority >= least_priority && line.tag == "warp_affine_ocl") {
            entries.emplace_back(line.priority, line.text);
        }
    }
    return entries;
}

// Returns when a line with exactly this text is there.
inline void wait_for_log(const std::string& text) {
    while (test_support::count_log(text) == 0) {
        std::this_thread::yield();
    }
}
