// SPDX-License-Identifier: Apache-2.0

// Frames and the queue that passes them from thread to thread.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "frames/deadline.h"
#include "frames/frame_fifo.h"
#include "tests/support/log_capture.h"
#include "videostabilizer/result.h"

using namespace videostabilizer;

namespace {

TEST(Frame, OwnsLumaAndTheChromaAreaOfItsFormat) {
    for (int value = PIX_FMT_YUV420SP_0; value <= PIX_FMT_LUMA_ONLY; ++value) {
        SCOPED_TRACE(value);
        const auto format = static_cast<PixFmt>(value);
        Frame* const frame = frame_create(30, 20, 32, 16, format, nullptr);
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(frame->plane_uv, frame->plane_y + 32 * 20);
        EXPECT_TRUE(frame->contiguous == 1 && frame->format == format && frame->timestamp == 0);
        EXPECT_TRUE(!frame->opaque && !frame->next && !frame->prev);
        // The sanitizers see planes that are too short.
        const std::size_t chroma = static_cast<std::size_t>(chroma_planes_factor[value]) * 16 * 20;
        std::memset(frame->plane_y, 1, 32 * 20 + chroma);
        frame_delete(frame);
    }
}

TEST(Frame, LeavesTheBuffersOfTheHostAlone) {
    std::array<unsigned char, 16 * 8 * 3 / 2> pixels{};
    unsigned char* const y = pixels.data();
    Frame* const joined = frame_create(16, 8, 16, 8, PIX_FMT_YUV420P, y);
    EXPECT_EQ(joined->plane_y, y);
    EXPECT_EQ(joined->plane_uv, y + 16 * 8);
    frame_delete(joined);
    Frame* const split = frame_create(16, 8, 16, 8, PIX_FMT_YUV420P, y + 64, y);
    EXPECT_EQ(split->plane_y, y + 64);
    EXPECT_EQ(split->plane_uv, y);
    EXPECT_EQ(split->contiguous, 0);
    frame_delete(split);
    EXPECT_EQ(pixels, decltype(pixels){});
}

TEST(Frame, RefusesWhatCannotBeMade) {
    constexpr int MOST = 2147483647;
    // Format below and above the range; negative height and stride; more than memory holds.
    const int cases[][5] = {{16, 16, 16, 8, -1},
                            {16, 16, 16, 8, 6},
                            {16, -16, 16, 8, 2},
                            {16, 16, -16, 8, 2},
                            {16, MOST, MOST, MOST, 3}};
    for (const auto& c : cases) {
        const auto format = static_cast<PixFmt>(c[4]);
        EXPECT_EQ(frame_create(c[0], c[1], c[2], c[3], format, nullptr), nullptr);
    }
    EXPECT_EQ(test_support::log_lines().size(), std::size(cases));
    for (const test_support::LogLine& line : test_support::log_lines()) {
        EXPECT_TRUE(line.tag == "log_utils" && line.priority == 6);
    }
    EXPECT_EQ(test_support::count_log("OUT OF MEMORY!!!"), 1);
}

// A queue with its state, as the objects of the library hold it.
struct Queue {
    Frame sentinel{};
    std::atomic<std::int32_t> count{0}, quit{0}, eos{0};
    std::int32_t capacity = 2;
    std::int32_t timeout_ms = 600'000;  // a lost wake-up hangs the test
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
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
    std::int64_t take(void (*on_taken)(void*, Frame*) = nullptr) {
        Frame* frame = nullptr;
        const int code = fifo_take(fifo, &frame, on_taken, this);
        EXPECT_EQ(frame != nullptr, code == RESULT_OK);
        const std::int64_t number = frame != nullptr ? frame->timestamp : code;
        frame_delete(frame);
        return number;
    }

    void raise(std::atomic<std::int32_t>& flag) {
        flag.store(1);
        wake_waiters(mutex, cond);
    }
};

TEST(FrameFifo, TellsEndAndStopApartAndDeliversWhatIsQueuedFirst) {
    const struct {
        int ended, stopped;
        int put_refusing, put_accepting, take;
    } cases[] = {
        {1, 0, RESULT_END_OF_STREAM, RESULT_OK, RESULT_END_OF_STREAM},
        {0, 1, RESULT_STOPPING, RESULT_STOPPING, RESULT_STOPPING},
        {1, 1, RESULT_END_OF_STREAM, RESULT_STOPPING, RESULT_STOPPING},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "ended " << c.ended << ", stopped " << c.stopped);
        Queue queue;
        queue.put(1);
        queue.eos = c.ended;
        queue.quit = c.stopped;
        EXPECT_EQ(queue.put(2), c.put_refusing);
        EXPECT_EQ(queue.put(3, WhenEnded::ACCEPT), c.put_accepting);
        EXPECT_EQ(queue.take(), 1);
        if (c.put_accepting == RESULT_OK) {
            EXPECT_EQ(queue.take(), 3);
        }
        EXPECT_EQ(queue.take(), c.take);
    }
}

// Flags raised at any moment reach a waiter: no wake-up falls between its look at the flags and its
// sleep.
TEST(FrameFifo, LosesNoWakeUp) {
    const struct {
        void (*wake)(Queue&);
        std::int64_t taken;
    } cases[] = {{[](Queue& queue) { queue.put(5); }, 5},
                 {[](Queue& queue) { queue.raise(queue.quit); }, RESULT_STOPPING},
                 {[](Queue& queue) { queue.raise(queue.eos); }, RESULT_END_OF_STREAM}};
    for (int round = 0; round < 2000; ++round) {
        Queue queue;
        std::int64_t taken = 0;
        std::thread consumer([&] { taken = queue.take(); });
        cases[round % 3].wake(queue);
        consumer.join();
        ASSERT_EQ(taken, cases[round % 3].taken) << "round " << round;
    }
}

// Nobody can put into the room that a frame leaves before the hook has seen the frame.
TEST(FrameFifo, RunsTheHookUnderItsMutex) {
    Queue queue;
    queue.put(7);
    const auto hook = [](void* context, Frame* frame) {
        EXPECT_EQ(pthread_mutex_trylock(&static_cast<Queue*>(context)->mutex), EBUSY);
        frame->timestamp += 1;
    };
    EXPECT_EQ(queue.take(hook), 8);
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
