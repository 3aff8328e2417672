#pragma once

#include <atomic>

namespace apps {

// Signals that ask the program to end: SIGINT, SIGTERM, SIGHUP. The first ends the work cleanly,
// the second at once, with the temporary files removed.
struct Interruption {
    std::atomic<bool> stop_input{false};  // no more is to be read
    std::atomic<bool> stop_all{false};    // nor written
    std::atomic<bool> signalled{false};
};

// The one of this process.
Interruption& interruption();

// Has the signals set it, and lets a reader of ours that goes away, or a limit on file sizes, be an
// error instead of the end. With finish_output, a signal only stops the input, so that what has
// been read is written and finished.
void watch_signals(bool finish_output);

}  // namespace apps
