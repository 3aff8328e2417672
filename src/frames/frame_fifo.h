#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "videostabilizer/frame.h"

namespace videostabilizer {

// The bounded FIFO of frames that joins two threads. It is intrusive: frames are linked through
// their own `next` and `prev` into a ring that starts and ends at a sentinel, so that no operation
// allocates. The state lies in the record of the object that owns the queue; this is a view of it.
//
//   sentinel.next -> oldest -> ... -> newest -> sentinel        (take here ... put here)
//   sentinel.prev = newest; both links of an empty queue point at the sentinel
//
// Full:    put polls every 50 microseconds until there is room; nothing is signalled when room is
//          made. That keeps the hand-over latency of a queue of one low.
// Empty:   take waits on `cond`, timeout_ms at a time, and reads the flags anew after each wake-up.
// Ended:   take hands out what is queued, then RESULT_END_OF_STREAM.
// Stopped: put refuses; take hands out what is queued, then RESULT_STOPPING.
// Failed:  put refuses where it would wait; take hands out what is queued, then RESULT_STOPPING.
//
// `mutex` guards the links and `count`. The flags are written without it. `count` and
// sentinel.prev are atomic besides, because the full and empty tests read them without the lock.
struct FrameFifo {
    Frame& sentinel;
    std::atomic<std::int32_t>& count;
    const std::int32_t& capacity;
    pthread_mutex_t& mutex;
    pthread_cond_t& cond;                   // a frame was queued, or a flag was raised
    const std::atomic<std::int32_t>& quit;  // the stop mark
    const std::atomic<std::int32_t>& eos;   // no more frames will be put
    const std::int32_t& timeout_ms;         // length of one timed wait
    // The thread at the queue's other end is gone after an error. Null: the user waits regardless.
    const std::atomic<std::int32_t>* failed = nullptr;
};

// Makes the queue empty without releasing anything. Not while another thread uses it.
void fifo_reset(const FrameFifo& fifo);

enum class WhenEnded {
    REFUSE,  // an ended queue takes no more frames
    ACCEPT,  // the end mark is not looked at
};

// Appends the frame, waiting for room. Ownership: the queue's from this call on; refused frames are
// released. Returns RESULT_OK, RESULT_END_OF_STREAM (only with REFUSE) or RESULT_STOPPING.
int fifo_put(const FrameFifo& fifo, Frame* frame, WhenEnded when_ended);

// Takes the oldest frame, waiting for one. `on_taken(context, frame)`, if given, runs under the
// queue's mutex at the moment the frame leaves it, before a producer can see the room that it made.
// Returns RESULT_OK and *out, or RESULT_END_OF_STREAM, RESULT_STOPPING or RESULT_NOTHING_TAKEN with
// *out untouched.
int fifo_take(const FrameFifo& fifo, Frame** out, void (*on_taken)(void*, Frame*) = nullptr,
              void* context = nullptr);

// Releases every queued frame.
void fifo_flush(const FrameFifo& fifo);

// Wakes the threads that wait on a condition after a flag was raised. A waiter reads the flags and
// starts its wait under the mutex: passing through it once before signalling makes sure that no
// waiter sits between the two, where it would miss the signal and sleep for a whole timeout.
void wake_waiters(pthread_mutex_t& mutex, pthread_cond_t& cond);

// Snapshots without the lock; 1 or 0.
int fifo_is_empty(const Frame& sentinel);
int fifo_is_full(const std::atomic<std::int32_t>& count, std::int32_t capacity);

}  // namespace videostabilizer
