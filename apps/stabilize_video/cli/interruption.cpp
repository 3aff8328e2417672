#include "apps/stabilize_video/interruption.h"

#include <unistd.h>

#include <csignal>

#include "apps/output_file.h"

namespace apps {

namespace {

constexpr int INTERRUPTED_STATUS = 130;

std::atomic<bool> finishing{false};
static_assert(std::atomic<bool>::is_always_lock_free, "needed in a signal handler");

void on_signal(int) {
    Interruption& state = interruption();
    if (state.signalled.exchange(true)) {
        PendingFile::remove_all();
        _exit(INTERRUPTED_STATUS);
    }
    state.stop_input = true;
    if (!finishing) state.stop_all = true;
}

}  // namespace

Interruption& interruption() {
    static Interruption state;
    return state;
}

void watch_signals(bool finish_output) {
    interruption();  // made before a handler needs it
    finishing = finish_output;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    struct sigaction action {};
    action.sa_handler = on_signal;  // no SA_RESTART: reads and writes return
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
}

}  // namespace apps
