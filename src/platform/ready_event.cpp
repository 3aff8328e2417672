// SPDX-License-Identifier: Apache-2.0

#include "platform/ready_event.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace videostabilizer {

ReadyEvent::~ReadyEvent() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

bool ReadyEvent::open() {
    if (descriptor_ < 0) {
        descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    }
    return descriptor_ >= 0;
}

void ReadyEvent::set(bool ready) {
    if (ready == ready_) {
        return;
    }
    // The counter is 0 or 1 in turns, with which neither can fail.
    std::uint64_t counter = 1;
    const auto size = static_cast<ssize_t>(sizeof(counter));
    const ssize_t done = ready ? write(descriptor_, &counter, sizeof(counter))
                               : read(descriptor_, &counter, sizeof(counter));
    if (done == size) {
        ready_ = ready;
    }
}

}  // namespace videostabilizer
