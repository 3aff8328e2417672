// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <vector>

// Measuring on a shared machine: what is compared alternates in one process, and medians and the
// process's own processor time are reported beside wall-clock time.
namespace bench {

inline double seconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// The value that `share` of the values are below; `values` must not be empty.
inline double quantile(std::vector<double> values, double share) {
    const auto at = values.begin() +
                    static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), at, values.end());
    return *at;
}

inline double median(const std::vector<double>& values) {
    return quantile(values, 0.5);
}

// Times of runs of the same work.
struct Runs {
    std::vector<double> wall;  // seconds
    std::vector<double> cpu;   // seconds of all threads of the process

    template <typename Work>
    void time(Work work) {
        const double wall_start = seconds_of(CLOCK_MONOTONIC);
        const double cpu_start = seconds_of(CLOCK_PROCESS_CPUTIME_ID);
        work();
        cpu.push_back(seconds_of(CLOCK_PROCESS_CPUTIME_ID) - cpu_start);
        wall.push_back(seconds_of(CLOCK_MONOTONIC) - wall_start);
    }
};

}  // namespace bench
