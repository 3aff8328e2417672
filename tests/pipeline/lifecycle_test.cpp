// The states of a stabilizer: what each operation does in each of them, and that nothing is left
// behind whatever the order.

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

#include "tests/pipeline/stream_helpers.h"
#include "tests/support/frame_ledger.h"
#include "tests/support/log_capture.h"
#include "tests/support/opencl_ledger.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

// A minute of waiting in place of three seconds: a wake-up that gets lost hangs the test.
void wait_long(VideoStabilizer* s) {
    s->timeout_ms = 60'000;
}

class Lifecycle : public testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(live_frames(), 0);
        EXPECT_EQ(live_opencl_objects(), 0);
    }
};

TEST_F(Lifecycle, NeverStarted) {
    { const StabilizerPtr deleted_at_once = make_stabilizer(); }
    const StabilizerPtr s = make_stabilizer();
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(0)), 0);
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(1)), 0);
    EXPECT_EQ(live_frames(), 2);
    EXPECT_EQ(video_stabilizer_flush(s.get()), 0);
    EXPECT_EQ(live_frames(), 0);
    EXPECT_EQ(video_stabilizer_flush(s.get()), 0);
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(2)), 0);
    clear_log();
    EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
    EXPECT_EQ(count_log("Already quit!"), 0);
    EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
    EXPECT_EQ(count_log("Already quit!"), 1);
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(3)), RESULT_STOPPING);
    EXPECT_NE(video_stabilizer_start(s.get()), 0);
}

TEST_F(Lifecycle, FramesPushedBeforeStartAreKept) {
    const StabilizerPtr s = make_stabilizer();
    video_stabilizer_push_frame(s.get(), make_frame(0));
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    EXPECT_NE(video_stabilizer_start(s.get()), 0);
    video_stabilizer_push_frame(s.get(), make_frame(1));
    video_stabilizer_signal_eos(s.get());
    for (int i = 0; i < 2; ++i) {
        Frame* frame = nullptr;
        ASSERT_EQ(video_stabilizer_pop_frame(s.get(), &frame), 0);
        EXPECT_EQ(frame->timestamp, i);
        frame_delete(frame);
    }
}

TEST_F(Lifecycle, EndsWithStopOrWithDeleteAlone) {
    for (const int count : {0, 5, 25}) {
        for (const bool with_stop : {false, true}) {
            SCOPED_TRACE(testing::Message() << count << " frames, stop " << with_stop);
            StabilizerPtr s = make_stabilizer();
            wait_long(s.get());
            ASSERT_EQ(video_stabilizer_start(s.get()), 0);
            run_stream(s.get(), count);
            if (with_stop) {
                EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
                EXPECT_EQ(live_opencl_objects(), 0);
            }
            s.reset();
            EXPECT_EQ(live_opencl_objects(), 0);
        }
    }
}

// Streams are cut off after every number of popped frames and at whatever point the threads happen
// to be; host threads sit in push and pop while it happens.
TEST_F(Lifecycle, StopAtAnyMomentReleasesThreadsAndFrames) {
    for (int round = 0; round < 60; ++round) {
        const int stop_after = round % 20;
        SCOPED_TRACE(testing::Message() << "round " << round);
        const StabilizerPtr s = make_stabilizer(64, 48);
        wait_long(s.get());
        ASSERT_EQ(video_stabilizer_start(s.get()), 0);
        std::atomic<int> popped{0};
        std::atomic<int> pushed{0};
        std::thread producer([&] {
            while (video_stabilizer_push_frame(s.get(), make_frame(pushed.load(), 64, 48)) == 0) {
                ++pushed;
            }
        });
        std::thread consumer([&] {
            Frame* frame = nullptr;
            while (video_stabilizer_pop_frame(s.get(), &frame) == 0) {
                frame_delete(frame);
                ++popped;
            }
        });
        // Half of the rounds count what went in, so that stops also meet a filling pipeline.
        const std::atomic<int>& progress = round % 2 == 0 ? popped : pushed;
        while (progress.load() < stop_after) {
            std::this_thread::yield();
        }
        EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
        producer.join();
        consumer.join();
        EXPECT_EQ(live_frames(), 0);
        EXPECT_EQ(live_opencl_objects(), 0);
    }
}

TEST_F(Lifecycle, StopWhileTheHostDoesNotPop) {
    const StabilizerPtr s = make_stabilizer();
    wait_long(s.get());
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    std::atomic<int> pushed{0};
    std::thread producer([&] {
        while (video_stabilizer_push_frame(s.get(), make_frame(pushed.load())) == 0) {
            ++pushed;
        }
    });
    while (pushed.load() < FRAMES_INSIDE) {
        std::this_thread::yield();
    }
    video_stabilizer_stop(s.get());
    producer.join();
    Frame* frame = nullptr;
    EXPECT_EQ(video_stabilizer_pop_frame(s.get(), &frame), RESULT_STOPPING);
}

TEST_F(Lifecycle, WaitEosGivesUpAfterTenWaits) {
    const StabilizerPtr s = make_stabilizer();
    s->timeout_ms = 5;
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    EXPECT_EQ(video_stabilizer_wait_eos(s.get()), 1);
    std::thread popper([&] { run_stream(s.get(), 3); });
    while (video_stabilizer_wait_eos(s.get()) != 0) {
    }
    EXPECT_EQ(video_stabilizer_reached_eos(s.get()), 1);
    popper.join();
}

int entries(const char* folder) {
    int count = 0;
    DIR* const dir = opendir(folder);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the folder is this thread's
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count;
}

long resident_kib() {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word) {
        if (word == "VmRSS:") {
            long kib = 0;
            status >> kib;
            return kib;
        }
    }
    return 0;
}

TEST_F(Lifecycle, HundredStreamsLeaveNothingBehind) {
    const auto cycle = [] {
        const StabilizerPtr s = make_stabilizer(64, 48);
        ASSERT_EQ(video_stabilizer_start(s.get()), 0);
        EXPECT_EQ(run_stream(s.get(), 12), numbers_up_to(12));
    };
    for (int i = 0; i < 30; ++i) {
        cycle();
    }
    const int threads = entries("/proc/self/task");
    const int files = entries("/proc/self/fd");
    const long resident = resident_kib();
    for (int i = 0; i < 100; ++i) {
        cycle();
    }
    EXPECT_EQ(entries("/proc/self/task"), threads);
    EXPECT_EQ(entries("/proc/self/fd"), files);
    // A leaked picture a stream would be 4.6 KB * 12 * 100; the OpenCL drivers' own pools move by
    // some pages. The sanitizers keep what was freed for a while, and look for leaks themselves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(resident_kib() - resident, 4096);
#else
    (void)resident;
#endif
}

}  // namespace
