// SPDX-License-Identifier: Apache-2.0

// The file-driven test of the library, as a host sees it: standard output and the output file.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/faults/leak_test.h"
#include "tests/support/sdcard_folder.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

using testing::HasSubstr;
using FileDriven = LeakTest;
using WithoutMemory = LeakTest;

constexpr auto& OUTPUT = SdcardFolder::OUTPUT;
constexpr long FRAME_BYTES = SdcardFolder::FRAME_BYTES;

std::string run() {
    testing::internal::CaptureStdout();
    EXPECT_EQ(test_stabilizer(), 0);
    return testing::internal::GetCapturedStdout();
}

TEST_F(FileDriven, WritesNinetyFramesAndDoesSoAgain) {
    const SdcardFolder folder;
    SKIP_UNLESS_MADE(folder);
    write_sdcard_input(90 * FRAME_BYTES);
    for (int round = 0; round < 2; ++round) {
        const std::string text = run();
        EXPECT_EQ(size_of_file(OUTPUT), 90 * FRAME_BYTES);
        EXPECT_THAT(text, HasSubstr(" of frames: 90\n"));
        EXPECT_THAT(text, HasSubstr("pop(89) value: 0, buf idx: "));
        EXPECT_THAT(text, testing::Not(HasSubstr("ERR")));
    }
}

TEST_F(FileDriven, SurvivesFilesThatAreShortOrCannotBeOpened) {
    const SdcardFolder folder;
    SKIP_UNLESS_MADE(folder);
    write_sdcard_input(3 * FRAME_BYTES + 1000);
    std::string text = run();
    EXPECT_EQ(size_of_file(OUTPUT), 90 * FRAME_BYTES);
    EXPECT_THAT(text, HasSubstr("ERR: file size expected: 921600 but read: 1000\n"));
    EXPECT_THAT(text, HasSubstr("ERR: file size expected: 460800 but read: 0\n"));

    std::remove(OUTPUT);
    ASSERT_EQ(mkdir(OUTPUT, 0755), 0);
    EXPECT_THAT(run(), HasSubstr(std::string("ERR: can't open file: ") + OUTPUT));
    rmdir(OUTPUT);

    std::remove(SdcardFolder::INPUT);
    text = run();
    EXPECT_THAT(text, HasSubstr(std::string("ERR: can't open file: ") + SdcardFolder::INPUT));
    EXPECT_THAT(text, HasSubstr("failed to pop a frame(0): -10002\n"));
    EXPECT_THAT(text, HasSubstr(" of frames: 0\n"));
}

TEST_F(WithoutMemory, TheFileDrivenTestEndsWithAMessage) {
    const SdcardFolder folder;
    SKIP_UNLESS_MADE(folder);
    write_sdcard_input(2 * SdcardFolder::FRAME_BYTES);
    constexpr int POOLS = 64;  // allocations
    fail({});
    make_stabilizer().reset();
    const int first_frame = POOLS + calls(ALLOCATION) + 1;  // behind those of the creation
    constexpr char THREAD[] = "pthread_create";
    const struct {
        Fault fault;
        const char* message;
    } cases[] = {
        {{ALLOCATION, 1}, "ERR: out of memory\n"},
        {{ALLOCATION, 2, 2}, "ERR: out of memory\n"},
        {{ALLOCATION, POOLS, POOLS}, "ERR: out of memory\n"},
        {{ALLOCATION, POOLS + 1, POOLS + 1}, "ERR: can't create the stabilizer\n"},
        {{ALLOCATION, POOLS + 60, POOLS + 60}, "ERR: can't create the stabilizer\n"},
        {{ALLOCATION, first_frame, ALL_LATER}, "failed to pop a frame("},
        {{ALLOCATION, first_frame + 2, ALL_LATER}, "failed to pop a frame("},
        {{THREAD, 1, 1}, "ERR: can't create the stabilizer\n"},
        {{THREAD, 2, 2}, "ERR: can't start the stabilizer\n"},
        {{THREAD, 3, 3}, "ERR: can't start the producer thread\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.fault.call << ' ' << c.fault.first);
        fail(c.fault);
        EXPECT_THAT(run(), HasSubstr(c.message));
        EXPECT_TRUE(let_all_succeed());
        expect_nothing_left();
    }
}

TEST_F(FileDriven, MakeFramesOfThePoolInTurnAndTellTheTime) {
    for (int i = 0; i < 7; ++i) {
        Frame* const frame = create_frame_from_video_buffer(&frame_ctx);
        EXPECT_EQ(frame->opaque, &frame_ctx.output_buffers[i % 6]);
        EXPECT_EQ(frame->width, 1280);
        EXPECT_EQ(frame->stride_uv, 640);
        frame_delete(frame);
    }
    const std::int64_t before_ms = time_us() / 1000;
    EXPECT_LE(before_ms, time_ms());
    EXPECT_LE(time_ms(), time_us() / 1000 + 1);
}

}  // namespace
