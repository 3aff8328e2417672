// SPDX-License-Identifier: Apache-2.0

#include "frames/frame_fifo.h"

#include <unistd.h>

#include "frames/deadline.h"
#include "platform/mutex_lock.h"
#include "videostabilizer/result.h"

namespace videostabilizer {

namespace {

constexpr useconds_t FULL_QUEUE_POLL_US = 50;

// fifo_is_empty reads this link of the sentinel without the lock.
void set_newest(Frame& sentinel, Frame* newest) {
    __atomic_store_n(&sentinel.prev, newest, __ATOMIC_RELEASE);
}

// The caller of the following three holds the mutex.

bool holds_frame(const FrameFifo& fifo) {
    return fifo.sentinel.prev != &fifo.sentinel;
}

void append(const FrameFifo& fifo, Frame* frame) {
    Frame* const newest = fifo.sentinel.prev;
    frame->next = &fifo.sentinel;
    frame->prev = newest;
    newest->next = frame;
    set_newest(fifo.sentinel, frame);
    fifo.count.fetch_add(1);
}

Frame* unlink_oldest(const FrameFifo& fifo) {
    Frame* const oldest = fifo.sentinel.next;
    if (oldest == &fifo.sentinel) {
        return nullptr;
    }
    Frame* const successor = oldest->next;
    if (successor == &fifo.sentinel) {
        set_newest(fifo.sentinel, &fifo.sentinel);
    } else {
        successor->prev = &fifo.sentinel;
    }
    fifo.sentinel.next = successor;
    fifo.count.fetch_sub(1);
    oldest->next = nullptr;
    oldest->prev = nullptr;
    return oldest;
}

bool has_failed(const FrameFifo& fifo) {
    return fifo.failed != nullptr && fifo.failed->load() != 0;
}

// Tries to put once. Returns false if the queue is full, otherwise true and the outcome in *result.
bool try_put(const FrameFifo& fifo, Frame* frame, WhenEnded when_ended, int* result) {
    const MutexLock lock(fifo.mutex);
    if (when_ended == WhenEnded::REFUSE && fifo.eos.load() != 0) {
        frame_delete(frame);
        *result = RESULT_END_OF_STREAM;
        return true;
    }
    if (fifo.quit.load() != 0) {
        frame_delete(frame);
        *result = RESULT_STOPPING;
        return true;
    }
    if (fifo.count.load() >= fifo.capacity) {
        if (has_failed(fifo)) {
            frame_delete(frame);
            *result = RESULT_STOPPING;
            return true;
        }
        return false;
    }
    append(fifo, frame);
    *result = RESULT_OK;
    return true;
}

}  // namespace

void fifo_reset(const FrameFifo& fifo) {
    fifo.sentinel.next = &fifo.sentinel;
    set_newest(fifo.sentinel, &fifo.sentinel);
    fifo.count.store(0);
}

int fifo_put(const FrameFifo& fifo, Frame* frame, WhenEnded when_ended) {
    int result = RESULT_OK;
    while (!try_put(fifo, frame, when_ended, &result)) {
        usleep(FULL_QUEUE_POLL_US);
    }
    if (result == RESULT_OK) {
        pthread_cond_signal(&fifo.cond);
    }
    return result;
}

int fifo_take(const FrameFifo& fifo, Frame** out, void (*on_taken)(void*, Frame*), void* context) {
    const MutexLock lock(fifo.mutex);
    while (!holds_frame(fifo)) {
        if (fifo.quit.load() != 0) {
            return RESULT_STOPPING;
        }
        if (fifo.eos.load() != 0) {
            return RESULT_END_OF_STREAM;
        }
        if (has_failed(fifo)) {
            return RESULT_STOPPING;
        }
        const timespec deadline = deadline_in(fifo.timeout_ms);
        pthread_cond_timedwait(&fifo.cond, &fifo.mutex, &deadline);
    }
    Frame* const frame = unlink_oldest(fifo);
    if (frame == nullptr) {
        return RESULT_NOTHING_TAKEN;
    }
    if (on_taken != nullptr) {
        on_taken(context, frame);
    }
    *out = frame;
    return RESULT_OK;
}

void fifo_flush(const FrameFifo& fifo) {
    const MutexLock lock(fifo.mutex);
    while (Frame* const frame = unlink_oldest(fifo)) {
        frame_delete(frame);
    }
}

void wake_waiters(pthread_mutex_t& mutex, pthread_cond_t& cond) {
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
    pthread_cond_broadcast(&cond);
}

int fifo_is_empty(const Frame& sentinel) {
    return __atomic_load_n(&sentinel.prev, __ATOMIC_ACQUIRE) == &sentinel ? 1 : 0;
}

int fifo_is_full(const std::atomic<std::int32_t>& count, std::int32_t capacity) {
    return count.load() >= capacity ? 1 : 0;
}

}  // namespace videostabilizer
