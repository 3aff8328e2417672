#include "frames/frame_fifo.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "frames/deadline.h"
#include "videostabilizer/result.h"

using namespace videostabilizer;

namespace {

// A queue with its state, as the objects of the library hold it.
struct Queue {
    Frame sentinel{};
    std::atomic<std::int32_t> count{0};
    std::int32_t capacity = 2;
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    std::atomic<std::int32_t> quit{0};
    std::atomic<std::int32_t> eos{0};
    std::int32_t timeout_ms = 60'000;  // a lost wake-up hangs the test instead of slowing it
    FrameFifo fifo{sentinel, count, capacity, mutex, cond, quit, eos, timeout_ms};

    Queue() { fifo_reset(fifo); }
    ~Queue() { fifo_flush(fifo); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    int put(std::int64_t number, WhenEnded when_ended = WhenEnded::REFUSE) {
        Frame* const frame = frame_create(2, 2, 2, 1, PIX_FMT_YUV420P, nullptr);
        frame->timestamp = number;
        return fifo_put(fifo, frame, when_ended);
    }

    // The number of the frame taken, or the code.
    std::int64_t take() {
        Frame* frame = nullptr;
        const int code = fifo_take(fifo, &frame);
        if (code != RESULT_OK) {
            EXPECT_EQ(frame, nullptr);
            return code;
        }
        const std::int64_t number = frame->timestamp;
        frame_delete(frame);
        return number;
    }

    void raise(std::atomic<std::int32_t>& flag) {
        flag.store(1);
        wake_waiters(mutex, cond);
    }
};

TEST(FrameFifo, HandsOutInOrderAndKnowsEmptyAndFull) {
    Queue queue;
    for (std::int64_t round = 0; round < 3; ++round) {
        EXPECT_EQ(fifo_is_empty(queue.sentinel), 1);
        EXPECT_EQ(queue.put(10 * round), RESULT_OK);
        EXPECT_EQ(fifo_is_empty(queue.sentinel), 0);
        EXPECT_EQ(fifo_is_full(queue.count, queue.capacity), 0);
        EXPECT_EQ(queue.put(10 * round + 1), RESULT_OK);
        EXPECT_EQ(fifo_is_full(queue.count, queue.capacity), 1);
        EXPECT_EQ(queue.take(), 10 * round);
        EXPECT_EQ(queue.take(), 10 * round + 1);
    }
}

TEST(FrameFifo, TellsEndAndStopApartAndDeliversWhatIsQueuedFirst) {
    struct Case {
        const char* name;
        bool ended, stopped;
        int put_refusing, put_accepting, take;
    };
    const Case cases[] = {
        {"ended", true, false, RESULT_END_OF_STREAM, RESULT_OK, RESULT_END_OF_STREAM},
        {"stopped", false, true, RESULT_STOPPING, RESULT_STOPPING, RESULT_STOPPING},
        {"ended and stopped", true, true, RESULT_END_OF_STREAM, RESULT_STOPPING, RESULT_STOPPING},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Queue queue;
        queue.put(1);
        queue.eos = c.ended ? 1 : 0;
        queue.quit = c.stopped ? 1 : 0;
        EXPECT_EQ(queue.put(2), c.put_refusing);
        EXPECT_EQ(queue.put(3, WhenEnded::ACCEPT), c.put_accepting);
        EXPECT_EQ(queue.take(), 1);
        if (c.put_accepting == RESULT_OK) {
            EXPECT_EQ(queue.take(), 3);
        }
        EXPECT_EQ(queue.take(), c.take);
    }
}

TEST(FrameFifo, FlushEmptiesIt) {
    Queue queue;
    queue.put(1);
    queue.put(2);
    fifo_flush(queue.fifo);
    EXPECT_EQ(queue.count.load(), 0);
    EXPECT_EQ(fifo_is_empty(queue.sentinel), 1);
    EXPECT_EQ(queue.put(3), RESULT_OK);
    EXPECT_EQ(queue.take(), 3);
}

// Flags raised at any moment reach a waiter: no wake-up falls between its look at the flags and its
// sleep. The waits are a minute long, so one lost wake-up in the many rounds shows.
TEST(FrameFifo, NoWakeUpIsLost) {
    for (int round = 0; round < 2000; ++round) {
        Queue queue;
        std::int64_t taken = 0;
        std::thread consumer([&] { taken = queue.take(); });
        switch (round % 3) {
            case 0:
                queue.put(5);
                break;
            case 1:
                queue.raise(queue.quit);
                break;
            default:
                queue.raise(queue.eos);
        }
        consumer.join();
        const std::int64_t expected[] = {5, RESULT_STOPPING, RESULT_END_OF_STREAM};
        ASSERT_EQ(taken, expected[round % 3]) << "round " << round;
    }
}

TEST(FrameFifo, ProducerWaitsForRoomAndIsReleasedByStop) {
    Queue queue;
    std::atomic<int> accepted{0};
    int last = 0;
    std::thread producer([&] {
        for (int i = 0; i < 100 && last == 0; ++i) {
            last = queue.put(i);
            accepted += last == 0 ? 1 : 0;
        }
    });
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(queue.take(), i);
    }
    while (accepted.load() < 52) {
        std::this_thread::yield();
    }
    queue.raise(queue.quit);
    producer.join();
    EXPECT_EQ(last, RESULT_STOPPING);
    EXPECT_EQ(accepted.load(), 52);
}

// The hook sees the frame before a producer can learn that there is room again.
TEST(FrameFifo, HookRunsBeforeTheRoomIsVisible) {
    Queue queue;
    queue.capacity = 1;
    queue.put(0);
    std::atomic<std::int64_t> newest{0};  // number of the last frame that was accepted
    std::thread producer([&] {
        for (std::int64_t i = 1; i <= 500; ++i) {
            queue.put(i);
            newest = i;
        }
    });
    struct Context {
        std::atomic<std::int64_t>& newest;
        bool early = true;
    } context{newest};
    for (int i = 0; i <= 500; ++i) {
        Frame* frame = nullptr;
        const int code = fifo_take(
            queue.fifo, &frame,
            [](void* opaque, Frame* taken) {
                auto* const c = static_cast<Context*>(opaque);
                c->early = c->early && c->newest.load() <= taken->timestamp;
            },
            &context);
        ASSERT_EQ(code, RESULT_OK);
        frame_delete(frame);
    }
    producer.join();
    EXPECT_TRUE(context.early);
}

TEST(Deadline, CarriesOverWholeSeconds) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec deadline = deadline_in(2999);
    EXPECT_LT(deadline.tv_nsec, 1000000000L);
    const double ahead = static_cast<double>(deadline.tv_sec - now.tv_sec) +
                         1e-9 * static_cast<double>(deadline.tv_nsec - now.tv_nsec);
    EXPECT_GE(ahead, 2.999);
    EXPECT_LT(ahead, 60.0);
}

}  // namespace
