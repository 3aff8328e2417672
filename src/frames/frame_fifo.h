// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "videostabilizer/frame.h"

namespace videostabilizer {

// A bounded FIFO of frames between two threads. It is intrusive: frames are linked through their
// own `next` and `prev` into a ring with a sentinel, so no operation allocates. The state is in the
// record of the queue's owner; this is a view of it.
//
//   sentinel.next -> oldest -> ... -> newest -> sentinel        (take here ... put here)
//   sentinel.prev = newest; both links of an empty queue point at the sentinel
//
// Full:    put polls every 50 microseconds until there is room, which is not signalled. This keeps
//          the latency of a queue of one frame low.
// Empty:   take waits on `cond`, timeout_ms at a time, and reads the flags after each wake-up.
// Ended:   take returns the queued frames, then RESULT_END_OF_STREAM.
// Stopped: put refuses; take returns the queued frames, then RESULT_STOPPING.
// Failed:  put refuses when the queue is full; take as when stopped.
//
// `mutex` guards the links and `count`. The flags are written without it. `count` and sentinel.prev
// are also atomic, because fifo_is_full and fifo_is_empty read them without the lock.
//
// Threads: thread-safe, except fifo_reset.
struct FrameFifo {
    Frame& sentinel;
    std::atomic<std::int32_t>& count;
    const std::int32_t& capacity;
    pthread_mutex_t& mutex;
    pthread_cond_t& cond;                   // a frame was queued, or a flag was set
    const std::atomic<std::int32_t>& quit;  // stop flag
    const std::atomic<std::int32_t>& eos;   // no more frames will be put
    const std::int32_t& timeout_ms;         // length of one timed wait
    // The thread at the other end has ended with an error. Null: not looked at.
    const std::atomic<std::int32_t>* failed = nullptr;
};

// Makes the queue empty without releasing frames. Threads: owner only.
void fifo_reset(const FrameFifo& fifo);

enum class WhenEnded {
    REFUSE,  // an ended queue takes no more frames
    ACCEPT,  // the end flag is ignored
};

// Appends the frame; blocks while the queue is full.
// Ownership: the frame is the queue's from this call on; refused frames are released.
// Returns:   RESULT_OK, RESULT_END_OF_STREAM (only with REFUSE) or RESULT_STOPPING.
int fifo_put(const FrameFifo& fifo, Frame* frame, WhenEnded when_ended);

// Takes the oldest frame; blocks until there is one. `on_taken(context, frame)`, if given, is
// called under the queue's mutex, before a producer can use the room.
// Returns: RESULT_OK and *out; or RESULT_END_OF_STREAM, RESULT_STOPPING or RESULT_NOTHING_TAKEN
//          with *out untouched.
int fifo_take(const FrameFifo& fifo, Frame** out, void (*on_taken)(void*, Frame*) = nullptr,
              void* context = nullptr);

// Releases every queued frame.
void fifo_flush(const FrameFifo& fifo);

// Wakes the threads that wait on a condition; call it after setting a flag. A waiter reads the
// flags and starts to wait under the mutex: locking it once before the broadcast ensures that no
// waiter is between the two, where it would miss the broadcast.
void wake_waiters(pthread_mutex_t& mutex, pthread_cond_t& cond);

// Snapshots without the lock; 1 or 0.
int fifo_is_empty(const Frame& sentinel);
int fifo_is_full(const std::atomic<std::int32_t>& count, std::int32_t capacity);

}  // namespace videostabilizer
