// SPDX-License-Identifier: Apache-2.0

// The library without memory or threads: every allocation is made to fail in turn.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/faults/leak_test.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

using testing::Contains;
using testing::EndsWith;

constexpr char NO_MEMORY[] = "OUT OF MEMORY!!!";
constexpr char NO_STAGE[] = "video_stabilizer: Failed to init AffineTransformer!!";

using WithoutMemory = LeakTest;

TEST_F(WithoutMemory, CreationGivesNullAndLeavesNothing) {
    VideoStabilizerUser user = {&user, [](void*) -> Frame* { return nullptr; }};
    const VideoStabilizerOptions options = options_for(STABILIZER_MAXIMUM);
    for (const int more : {0, ALL_LATER}) {
        for (const bool has_options : {false, true}) {
            bool failed = true;
            int n = 0;
            while (failed) {
                SCOPED_TRACE(testing::Message() << "allocation " << ++n << ", " << has_options);
                clear_log();
                fail({ALLOCATION, n, n + more});
                VideoStabilizer* const s =
                    has_options
                        ? make_stabilizer(SMALL, true, &options).release()
                        : video_stabilizer_create(64, 48, 64, 64, PIX_FMT_YUV420SP_0, 0, 0, &user);
                failed = let_all_succeed();
                EXPECT_EQ(s == nullptr, failed);
                EXPECT_EQ(failed, !logged_errors().empty());
                if (failed) {
                    EXPECT_THAT(logged_errors(), Contains(EndsWith(NO_MEMORY)));
                    EXPECT_THAT(logged_errors().back(),
                                testing::AnyOf(EndsWith(NO_MEMORY), NO_STAGE));
                }
                video_stabilizer_delete(s);
                expect_nothing_left();
            }
            EXPECT_GT(n, 50) << "are the library's allocations seen at all?";
        }
    }
}

TEST_F(WithoutMemory, AThreadThatCannotBeStartedIsReportedAndLeavesNothing) {
    fail({"pthread_create", 1});
    EXPECT_EQ(make_stabilizer(SMALL), nullptr);
    EXPECT_THAT(logged_errors(), testing::ElementsAre(NO_STAGE));
    expect_nothing_left();
    const StabilizerPtr s = make_stabilizer(SMALL);
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(0, SMALL)), RESULT_OK);
    fail({"pthread_create", 1});
    EXPECT_EQ(video_stabilizer_start(s.get()), RESULT_NO_THREAD);
}

TEST_F(WithoutMemory, AStreamGoesOnOrEndsWithACode) {
    constexpr int FRAMES = 16;
    constexpr Geometry WITH_MOTION = packed(320, 192);  // room for enough corners
    for (const bool in_place : {false, true}) {
        const VideoStabilizerOptions options =
            options_for(in_place ? STABILIZER_MAXIMUM : STABILIZER_GENTLE);
        const auto run = [&](int n) {
            const StabilizerPtr s = make_stabilizer(WITH_MOTION, in_place, &options);
            std::vector<Frame*> frames;
            for (int i = 0; i < FRAMES; ++i) {
                frames.push_back(make_frame(i, WITH_MOTION));
            }
            clear_log();
            fail({ALLOCATION, n, n});
            const Ending ending = run_stream(
                s.get(), FRAMES, [&](int i) { return frames[static_cast<std::size_t>(i)]; });
            let_all_succeed();
            EXPECT_EQ(s->output_eos.load(), ending.code == RESULT_END_OF_STREAM ? 1 : 0);
            return ending;
        };
        ASSERT_EQ(run(0).popped, FRAMES);
        const int count = calls(ALLOCATION);
        int ended_early = 0;
        // The first ones, and some spread over the rest.
        for (int n = 1; n <= count; n += n <= 10 ? 1 : count / 24) {
            SCOPED_TRACE(testing::Message() << "allocation " << n << " of " << count);
            const Ending ending = run(n);
            const std::vector<std::string> errors = logged_errors();
            // No error: the library managed without.
            EXPECT_TRUE(errors.empty() || testing::Matches(Contains(EndsWith(NO_MEMORY)))(errors));
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
        EXPECT_EQ(ended_early > 0, !in_place) << "only new output frames are indispensable";
    }
}

}  // namespace
