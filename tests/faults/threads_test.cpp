// SPDX-License-Identifier: Apache-2.0

// Streams that are stopped while every thread of the host is at work, and waits that must not be
// longer than they need to be. All timed waits take ten minutes here: a lost wake-up hangs the test.
//
//   STOP_ROUNDS=10000 test_stopping --gtest_filter=Stopping.AtRandomMomentsUnderLoad

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "tests/faults/leak_test.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

void nap(unsigned microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

int rounds() {
    const char* const text = std::getenv("STOP_ROUNDS");  // NOLINT(concurrency-mt-unsafe)
    return text != nullptr ? std::atoi(text) : 300;       // NOLINT(cert-err34-c)
}

using Stopping = LeakTest;
using Waits = LeakTest;

// The threads of a host that uses all that may run beside a stop, until `stopped`, when all of its
// calls must return.
void run_host(VideoStabilizer* s, unsigned seed, const std::atomic<bool>& stopped) {
    std::vector<std::thread> threads;
    const auto expect_end = [](int code) {
        EXPECT_TRUE(code == RESULT_STOPPING || code == RESULT_END_OF_STREAM) << code;
    };
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            int code = RESULT_OK;
            for (int number = 0; code == RESULT_OK; ++number) {
                code = video_stabilizer_push_frame(s, make_frame(number % 4, SMALL));
            }
            expect_end(code);
        });
        threads.emplace_back([&] {
            Frame* frame = nullptr;
            int code = RESULT_OK;
            while ((code = video_stabilizer_pop_frame(s, &frame)) == RESULT_OK) {
                frame_delete(frame);
            }
            expect_end(code);
        });
    }
    if (seed % 3 == 0) {  // else the stop alone ends the stream
        threads.emplace_back([&] {
            nap(seed / 3 % 2000);
            video_stabilizer_signal_eos(s);
        });
    }
    if (seed % 5 == 0) {
        threads.emplace_back([&] { video_stabilizer_flush(s); });
    }
    while (!stopped) {
        EXPECT_GE(video_stabilizer_input_empty(s) + video_stabilizer_input_full(s) +
                      video_stabilizer_output_empty(s) + video_stabilizer_output_full(s) +
                      video_stabilizer_reached_eos(s) +
                      affine_transformer_ocl_full(s->transformer) +
                      affine_transformer_ocl_empty(s->transformer),
                  0);
        std::this_thread::yield();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(Stopping, AtRandomMomentsUnderLoad) {
    const unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    for (int round = 0; round < rounds(); ++round) {
        SCOPED_TRACE(round);
        const StabilizerPtr s = make_stabilizer(SMALL, random() % 2 != 0);
        ASSERT_EQ(video_stabilizer_start(s.get()), RESULT_OK);
        std::atomic<bool> stopped{false};
        const auto variant = static_cast<unsigned>(random());
        std::thread host([&] { run_host(s.get(), variant, stopped); });
        // Mostly in the first milliseconds, in which the pipeline fills.
        nap(static_cast<unsigned>(random() % (round % 4 == 0 ? 10'000 : 1'500)));
        EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
        stopped = true;
        host.join();
        EXPECT_EQ(live_opencl_objects(), 0);
    }
}

// The worker may be held up at the worst moment, between the last frame and its end.
TEST_F(Waits, TheEndOfAStreamNeedsNone) {
    const auto signal_late = [](AffineTransformerOcl* t) {
        nap(100'000);
        affine_transformer_ocl_signal_eos(t);
    };
    ASSERT_GT(redirect_calls(LIBRARY, "*affine_transformer_ocl_signal_eos*",
                             reinterpret_cast<void*>(+signal_late)),
              0);
    for (const int count : {1, 12}) {
        const StabilizerPtr s = make_stabilizer(SMALL);
        const Ending ending = run_stream(s.get(), count);
        EXPECT_EQ(ending.popped, count);
        EXPECT_EQ(ending.code, RESULT_END_OF_STREAM);
    }
}

// Whoever waits is released at once by what ends the stream, and one of several pops reports the end.
TEST_F(Waits, AreEndedByWhatEndsTheStream) {
    VideoStabilizerUser no_frames = {&no_frames, [](void*) -> Frame* { return nullptr; }};
    const auto end_input = [](VideoStabilizer* s) { video_stabilizer_signal_eos(s); };
    const auto push_and_end = [](VideoStabilizer* s) {
        video_stabilizer_push_frame(s, make_frame(0, SMALL));
        video_stabilizer_signal_eos(s);
    };
    const struct {
        const char* name;
        VideoStabilizerUser* user;
        void (*end)(VideoStabilizer*);
        int frames;
    } cases[] = {
        {"stop", nullptr, [](VideoStabilizer* s) { video_stabilizer_stop(s); }, 0},
        {"end before any frame", nullptr, end_input, 0},
        {"end after a frame", nullptr, push_and_end, 1},
        {"failed thread", &no_frames, push_and_end, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const StabilizerPtr s = make_stabilizer(SMALL, c.user == nullptr, nullptr, c.user);
        ASSERT_EQ(video_stabilizer_start(s.get()), RESULT_OK);
        const auto wait_eos = [&] { EXPECT_EQ(video_stabilizer_wait_eos(s.get()), 1 - c.frames); };
        std::vector<std::thread> waiters;
        waiters.emplace_back(wait_eos);
        std::atomic<int> popped{0};
        std::atomic<int> ends{0};
        for (int i = 0; i < 3; ++i) {
            waiters.emplace_back([&] {
                Frame* frame = nullptr;
                const int code = video_stabilizer_pop_frame(s.get(), &frame);
                frame_delete(frame);
                popped += code == RESULT_OK ? 1 : 0;
                ends += code == RESULT_END_OF_STREAM ? 1 : 0;
            });
        }
        nap(20'000);  // by then they wait, and so do worker and stage
        c.end(s.get());
        for (std::thread& waiter : waiters) {
            waiter.join();
        }
        wait_eos();
        EXPECT_EQ(popped, c.frames);
        EXPECT_EQ(ends, c.frames);  // none without a frame
    }
}

}  // namespace
