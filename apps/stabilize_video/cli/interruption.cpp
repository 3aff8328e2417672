// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/cli/interruption.h"

#include <unistd.h>

#include <csignal>

#include "common/video_io/output_file.h"

namespace apps {

namespace {

constexpr int INTERRUPTED_STATUS = 130;

std::atomic<OnSignal> on_signal{OnSignal::STOP};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<OnSignal>::is_always_lock_free,
              "needed in a signal handler");

void request_stop() {
    if (on_signal != OnSignal::COUNT) {
        interruption().stop_input = true;
    }
    if (on_signal == OnSignal::STOP) {
        interruption().stop_all = true;
    }
}

void handle_signal(int) {
    if (++interruption().signals > 1 && on_signal != OnSignal::COUNT) {
        video_io::PendingFile::remove_all();
        _exit(INTERRUPTED_STATUS);
    }
    request_stop();
}

}  // namespace

Interruption& interruption() {
    static Interruption state;
    return state;
}

void watch_signals(OnSignal action) {
    on_signal = action;
    if (interruption().signalled()) {  // before, in the process that this one was forked from
        request_stop();
    }
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    struct sigaction handler {};
    handler.sa_handler = handle_signal;  // no SA_RESTART: interrupts reads and writes
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction present {};
        sigaction(number, nullptr, &present);
        if (number != SIGHUP || present.sa_handler != SIG_IGN) {
            sigaction(number, &handler, nullptr);
        }
    }
}

}  // namespace apps
