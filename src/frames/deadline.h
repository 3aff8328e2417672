// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <ctime>

namespace videostabilizer {

// The time `milliseconds` from now on the real-time clock, as pthread_cond_timedwait takes it with
// default condition attributes.
inline timespec deadline_in(int milliseconds) {
    constexpr long NANOSECONDS_PER_SECOND = 1000000000L;
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += milliseconds / 1000;
    deadline.tv_nsec += (milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= NANOSECONDS_PER_SECOND) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= NANOSECONDS_PER_SECOND;
    }
    return deadline;
}

}  // namespace videostabilizer
