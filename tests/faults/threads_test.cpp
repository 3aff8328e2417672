// Streams that are cut off while every thread of the host is at work, and waits that must not be
// longer than they need to be.
//
// All timed waits are made ten minutes long here: a wake-up that gets lost hangs the test.
//
//   STOP_ROUNDS=10000 test_stopping --gtest_filter=Stopping.AtRandomMomentsUnderLoad

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "tests/faults/library_calls.h"
#include "tests/faults/memory_faults.h"
#include "tests/faults/opencl_faults.h"
#include "tests/faults/streams.h"

using namespace videostabilizer;
using namespace fault_support;

namespace {

void nap(int microseconds) {
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
}

void pause_before_eos(AffineTransformerOcl* t) {
    nap(100'000);
    affine_transformer_ocl_signal_eos(t);
}

int rounds() {
    const char* const text = std::getenv("STOP_ROUNDS");  // NOLINT(concurrency-mt-unsafe)
    return text != nullptr ? std::atoi(text) : 300;       // NOLINT(cert-err34-c)
}

// The threads of a host that uses all that may run beside a stop.
class Host {
  public:
    Host(VideoStabilizer* s, unsigned seed) : s_(s) {
        for (int pusher = 0; pusher < 2; ++pusher) {
            threads_.emplace_back([this] { push(); });
            threads_.emplace_back([this] { pop(); });
        }
        threads_.emplace_back([this] { look(); });
        if (seed % 3 == 0) {  // else nobody ends the stream but the stop
            threads_.emplace_back([this, seed] {
                nap(static_cast<int>(seed / 3 % 2000));
                video_stabilizer_signal_eos(s_);
            });
        }
        if (seed % 5 == 0) {
            threads_.emplace_back([this] { video_stabilizer_flush(s_); });
        }
    }
    void join() {
        stopped_ = true;
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    int popped() const { return popped_; }

  private:
    void push() {
        int code = RESULT_OK;
        for (int i = 0; code == RESULT_OK; ++i) {
            code = video_stabilizer_push_frame(
                s_, test_support::make_frame(i % 4, SMALL.width, SMALL.height));
        }
        EXPECT_TRUE(code == RESULT_STOPPING || code == RESULT_END_OF_STREAM) << code;
    }
    void pop() {
        Frame* frame = nullptr;
        int code = RESULT_OK;
        while ((code = video_stabilizer_pop_frame(s_, &frame)) == RESULT_OK) {
            frame_delete(frame);
            ++popped_;
        }
        EXPECT_TRUE(code == RESULT_STOPPING || code == RESULT_END_OF_STREAM) << code;
    }
    void look() {
        while (!stopped_) {
            int sum = video_stabilizer_input_empty(s_) + video_stabilizer_input_full(s_) +
                      video_stabilizer_output_empty(s_) + video_stabilizer_output_full(s_);
            sum += video_stabilizer_reached_eos(s_) + affine_transformer_ocl_full(s_->transformer) +
                   affine_transformer_ocl_empty(s_->transformer);
            EXPECT_GE(sum, 0);
            std::this_thread::yield();
        }
    }

    VideoStabilizer* s_;
    std::atomic<bool> stopped_{false};
    std::atomic<int> popped_{0};
    std::vector<std::thread> threads_;
};

TEST(Stopping, AtRandomMomentsUnderLoad) {
    make_stabilizer().reset();  // everything that is set up once
    const int blocks = live_blocks();
    const int objects = live_opencl_objects();
    const unsigned seed = std::random_device{}();
    std::printf("seed %u\n", seed);
    std::mt19937 random(seed);
    using Clock = std::chrono::steady_clock;
    Clock::duration longest{};
    int most = 0;
    for (int round = 0; round < rounds(); ++round) {
        SCOPED_TRACE(round);
        const StabilizerPtr s(video_stabilizer_create(SMALL.width, SMALL.height, SMALL.width,
                                                      SMALL.width / 2, PIX_FMT_YUV420P, 0,
                                                      static_cast<int>(random() % 2), nullptr));
        ASSERT_NE(s, nullptr);
        wait_long(s.get());
        ASSERT_EQ(video_stabilizer_start(s.get()), 0);
        const auto variant = static_cast<unsigned>(random());
        Host host(s.get(), variant);
        // Mostly in the first milliseconds, in which the pipeline fills.
        nap(static_cast<int>(random() % (round % 4 == 0 ? 10'000 : 1'500)));
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
        longest = std::max(longest, Clock::now() - start);
        host.join();
        most = std::max(most, host.popped());
        EXPECT_EQ(live_opencl_objects(), objects);
    }
    EXPECT_EQ(live_blocks(), blocks);
    std::printf("%d stops, longest %.1f ms, after up to %d frames\n", rounds(),
                std::chrono::duration<double, std::milli>(longest).count(), most);
}

// The worker may be held up at the worst place, between the last frame and its end.
TEST(Waits, TheEndOfAStreamNeedsNone) {
    make_stabilizer().reset();
    ASSERT_GT(redirect_calls(LIBRARY,
                             "_ZN15videostabilizer33affine_transformer_ocl_signal_eosE"
                             "PNS_20AffineTransformerOclE",
                             reinterpret_cast<void*>(pause_before_eos)),
              0);
    for (const int count : {1, 12}) {
        const StabilizerPtr s = make_stabilizer();
        wait_long(s.get());
        ASSERT_EQ(video_stabilizer_start(s.get()), 0);
        const Ending ending = run_to_the_end(s.get(), make_frames(count));
        EXPECT_EQ(ending.popped, count);
        EXPECT_EQ(ending.code, RESULT_END_OF_STREAM);
    }
}

// Whoever waits in a call is let go of at once, whatever it waits for.
TEST(Waits, EveryOneIsEndedByWhatItWaitsFor) {
    const struct {
        const char* name;
        void (*end)(VideoStabilizer*);
        int pop_code;
    } cases[] = {
        {"stop", [](VideoStabilizer* s) { video_stabilizer_stop(s); }, RESULT_STOPPING},
        {"end of input before any frame",
         [](VideoStabilizer* s) { video_stabilizer_signal_eos(s); }, RESULT_STOPPING},
        {"end of input after a frame",
         [](VideoStabilizer* s) {
             video_stabilizer_push_frame(s, make_frames(1)[0]);
             video_stabilizer_signal_eos(s);
         },
         RESULT_OK},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const StabilizerPtr s = make_stabilizer();
        wait_long(s.get());
        ASSERT_EQ(video_stabilizer_start(s.get()), 0);
        constexpr int POPPERS = 3;
        std::vector<std::thread> poppers;
        poppers.reserve(POPPERS);
        for (int i = 0; i < POPPERS; ++i) {
            poppers.emplace_back([&, i] {
                Frame* frame = nullptr;
                const int code = video_stabilizer_pop_frame(s.get(), &frame);
                if (code == RESULT_OK) {
                    frame_delete(frame);
                }
                EXPECT_TRUE(code == c.pop_code ||
                            (c.pop_code == RESULT_OK &&
                             (code == RESULT_END_OF_STREAM || code == RESULT_STOPPING)))
                    << i << ": " << code;
            });
        }
        nap(20'000);  // by then they wait, and so do worker and stage
        c.end(s.get());
        for (std::thread& popper : poppers) {
            popper.join();
        }
        EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
    }
}

}  // namespace
