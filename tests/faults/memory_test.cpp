// The library without memory: every allocation is made to fail in turn.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/faults/memory_faults.h"
#include "tests/faults/opencl_faults.h"
#include "tests/faults/streams.h"
#include "tests/support/log_capture.h"
#include "tests/support/sdcard_folder.h"

using namespace videostabilizer;
using namespace fault_support;

namespace {

using testing::AnyOf;
using testing::Contains;
using testing::EndsWith;
using testing::HasSubstr;

constexpr char NO_MEMORY[] = "video_stabilizer: OUT OF MEMORY!!!";
constexpr char NO_DETECTOR[] = "log_utils: OUT OF MEMORY!!!";
constexpr char NO_STAGE[] = "video_stabilizer: Failed to init AffineTransformer!!";

class WithoutMemory : public testing::Test {
  protected:
    void SetUp() override {
        make_stabilizer().reset();  // everything that is set up once
        blocks_ = live_blocks();
        objects_ = live_opencl_objects();
    }
    void TearDown() override {
        let_all_succeed();
        expect_nothing_left();
    }
    void expect_nothing_left() const {
        EXPECT_EQ(live_blocks(), blocks_);
        EXPECT_EQ(live_opencl_objects(), objects_);
    }

  private:
    int blocks_ = 0;
    int objects_ = 0;
};

TEST_F(WithoutMemory, CreationGivesNullAndLeavesNothing) {
    VideoStabilizerUser user = {&user, [](void*) -> Frame* { return nullptr; }};
    const auto plainly = [&] {
        return video_stabilizer_create(64, 48, 64, 64, PIX_FMT_YUV420SP_0, 0, 0, &user);
    };
    const auto with_options = [] { return make_stabilizer(true, STABILIZER_MAXIMUM).release(); };
    for (const Failing failing : {Failing::ONCE, Failing::FROM_THEN_ON}) {
        for (const bool has_options : {false, true}) {
            int n = 0;
            bool failed = true;
            while (failed) {
                SCOPED_TRACE(testing::Message()
                             << "allocation " << ++n << ", options " << has_options);
                test_support::clear_log();
                fail_allocation(n, failing);
                VideoStabilizer* const s = has_options ? with_options() : plainly();
                failed = has_failed();
                let_all_succeed();
                if (failed) {
                    EXPECT_EQ(s, nullptr);
                    const std::vector<std::string> errors = logged_errors();
                    ASSERT_FALSE(errors.empty());
                    EXPECT_THAT(errors, Contains(EndsWith("OUT OF MEMORY!!!")));
                    EXPECT_THAT(errors.back(), AnyOf(NO_MEMORY, NO_DETECTOR, NO_STAGE));
                }
                video_stabilizer_delete(s);
                expect_nothing_left();
            }
            EXPECT_GT(n, 50) << "are the library's allocations seen at all?";
            std::printf("creation, options %d: %d allocations\n", has_options, n - 1);
        }
    }
}

TEST_F(WithoutMemory, AThreadThatCannotBeStartedIsToldAndLeavesNothing) {
    test_support::clear_log();
    fail_thread(1);
    EXPECT_EQ(make_stabilizer(), nullptr);
    EXPECT_THAT(logged_errors(), testing::ElementsAre(NO_STAGE));
    expect_nothing_left();

    fail_thread(2);
    const StabilizerPtr s = make_stabilizer();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frames(1)[0]), RESULT_OK);
    EXPECT_EQ(video_stabilizer_start(s.get()), RESULT_NO_THREAD);
}

// Which allocations to fail of very many: the first ones, and some spread over the rest.
std::vector<int> sample(int count, int wanted) {
    std::vector<int> positions;
    for (int n = 1; n <= count; n += std::max(1, n <= 10 ? 1 : count / wanted)) {
        positions.push_back(n);
    }
    return positions;
}

TEST_F(WithoutMemory, AStreamGoesOnOrEndsWithACode) {
    constexpr int FRAMES = 16;
    const struct {
        VideoStabilizerStrength strength;
        bool in_place;
    } cases[] = {{STABILIZER_GENTLE, false}, {STABILIZER_MAXIMUM, true}};
    for (const auto& c : cases) {
        const auto run = [&](int n) {
            const StabilizerPtr s = make_stabilizer(c.in_place, c.strength, WITH_MOTION);
            wait_long(s.get());
            const std::vector<Frame*> frames = make_frames(FRAMES, WITH_MOTION);
            test_support::clear_log();
            fail_allocation(n);
            EXPECT_EQ(video_stabilizer_start(s.get()), 0);
            const Ending ending = run_to_the_end(s.get(), frames);
            let_all_succeed();
            EXPECT_TRUE(ending.in_order);
            EXPECT_EQ(s->output_eos.load(), ending.code == RESULT_END_OF_STREAM ? 1 : 0);
            return ending;
        };
        ASSERT_EQ(run(0).popped, FRAMES);
        expect_nothing_left();
        const int count = allocations();
        std::printf("strength %d: %d allocations in %d frames\n", c.strength, count, FRAMES);
        int ended_early = 0;
        for (const int n : sample(count, 24)) {
            SCOPED_TRACE(testing::Message() << "allocation " << n << " of " << count);
            const Ending ending = run(n);
            const std::vector<std::string> errors = logged_errors();
            // Silent are those that something else did as well for.
            if (!errors.empty()) {
                EXPECT_THAT(errors, Contains(EndsWith("OUT OF MEMORY!!!")));
            }
            if (ending.code == RESULT_END_OF_STREAM) {
                EXPECT_EQ(ending.popped, FRAMES);
            } else {
                ++ended_early;
                EXPECT_EQ(ending.code, RESULT_STOPPING);
                ASSERT_FALSE(errors.empty());
                EXPECT_THAT(errors.back(), EndsWith("met an error: -10004"));
            }
            expect_nothing_left();
        }
        EXPECT_EQ(ended_early > 0, !c.in_place) << "only new output frames cannot be done without";
    }
}

TEST_F(WithoutMemory, TheFileDrivenTestEndsWithAMessage) {
    const SdcardFolder folder;
    if (!folder.made()) {
        GTEST_SKIP() << "needs to make " << SdcardFolder::FOLDER;
    }
    write_sdcard_input(2 * SdcardFolder::FRAME_BYTES);
    constexpr int POOLS = 64;  // allocations
    const struct {
        int n;
        const char* message;
    } cases[] = {
        {1, "ERR: out of memory\n"},
        {2, "ERR: out of memory\n"},
        {POOLS, "ERR: out of memory\n"},
        {POOLS + 1, "ERR: can't create the stabilizer\n"},
        {POOLS + 60, "ERR: can't create the stabilizer\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.n);
        testing::internal::CaptureStdout();
        fail_allocation(c.n);
        EXPECT_EQ(test_stabilizer(), 0);
        EXPECT_TRUE(has_failed());
        let_all_succeed();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), c.message);
        EXPECT_EQ(size_of_file(SdcardFolder::OUTPUT), -1);
        expect_nothing_left();
    }
    // Behind those of the creation come the frames that are read.
    fail_allocation(0);
    make_stabilizer().reset();
    const int first_frame = POOLS + allocations() + 1;
    for (const int frame : {0, 2}) {
        SCOPED_TRACE(frame);
        testing::internal::CaptureStdout();
        fail_allocation(first_frame + frame, Failing::FROM_THEN_ON);
        EXPECT_EQ(test_stabilizer(), 0);
        let_all_succeed();
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("failed to pop a frame("));
        expect_nothing_left();
    }
    // Its own threads: the stage's, the worker, the producer.
    for (const char* message :
         {"ERR: can't create the stabilizer\n", "ERR: can't start the stabilizer\n",
          "ERR: can't start the producer thread\n"}) {
        static int n = 0;
        testing::internal::CaptureStdout();
        fail_thread(++n);
        EXPECT_EQ(test_stabilizer(), 0);
        let_all_succeed();
        EXPECT_EQ(testing::internal::GetCapturedStdout(), message);
        expect_nothing_left();
    }
}

}  // namespace
