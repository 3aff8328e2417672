// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <atomic>

namespace apps {

// Requests to end the program: SIGINT, SIGTERM, SIGHUP. Threads: thread-safe.
struct Interruption {
    std::atomic<bool> stop_input{false};  // stop reading
    std::atomic<bool> stop_all{false};    // stop writing, too
    std::atomic<int> signals{0};          // received so far

    bool signalled() const { return signals > 0; }
};

// The one of this process.
Interruption& interruption();

// What a signal does. The second one ends a process that does not only count them at once, with its
// temporary files removed.
enum class OnSignal {
    STOP,           // ends the work
    FINISH_OUTPUT,  // ends the input: what has been read is written
    COUNT,          // left to whoever looks at `signals`
};

// Installs the signal handlers. SIGHUP stays ignored if it is, as under nohup. Closed pipes and limits
// on file sizes become errors of the writes.
void watch_signals(OnSignal action);

}  // namespace apps
