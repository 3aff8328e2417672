#pragma once

#include <ctime>

namespace videostabilizer {

// The point on the real-time clock that lies `milliseconds` from now: the absolute deadline of a
// timed wait with default condition attributes.
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
