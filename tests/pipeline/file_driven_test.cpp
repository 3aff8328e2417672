// The file-driven test of the library, as a host sees it: standard output and the output file.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "tests/support/sdcard_folder.h"
#include "videostabilizer/videostabilizer.h"

using namespace videostabilizer;

namespace {

constexpr auto& INPUT = SdcardFolder::INPUT;
constexpr auto& OUTPUT = SdcardFolder::OUTPUT;
constexpr long FRAME_BYTES = SdcardFolder::FRAME_BYTES;

class FileDriven : public testing::Test {
  protected:
    void SetUp() override {
        if (!folder_.made()) GTEST_SKIP() << "needs to make " << SdcardFolder::FOLDER;
    }

    static std::string run() {
        testing::internal::CaptureStdout();
        EXPECT_EQ(test_stabilizer(), 0);
        return testing::internal::GetCapturedStdout();
    }

  private:
    SdcardFolder folder_;
};

TEST_F(FileDriven, WritesNinetyFramesAndDoesSoAgain) {
    write_sdcard_input(90 * FRAME_BYTES);
    for (int round = 0; round < 2; ++round) {
        const std::string text = run();
        EXPECT_EQ(size_of_file(OUTPUT), 124416000);
        EXPECT_NE(text.find(" of frames: 90\n"), std::string::npos);
        EXPECT_NE(text.find("pop(89) value: 0, buf idx: "), std::string::npos);
        EXPECT_EQ(text.find("ERR"), std::string::npos);
        for (const Buffer& buffer : frame_ctx.input_buffers) {
            EXPECT_EQ(buffer.y, nullptr);
        }
    }
}

TEST_F(FileDriven, SurvivesAShortOrMissingInput) {
    write_sdcard_input(3 * FRAME_BYTES + 1000);
    std::string text = run();
    EXPECT_EQ(size_of_file(OUTPUT), 124416000);
    EXPECT_NE(text.find("ERR: file size expected: 921600 but read: 1000\n"), std::string::npos);
    EXPECT_NE(text.find("ERR: file size expected: 460800 but read: 0\n"), std::string::npos);

    std::remove(INPUT);
    text = run();
    EXPECT_NE(text.find(std::string("ERR: can't open file: ") + INPUT), std::string::npos);
    EXPECT_NE(text.find("failed to pop a frame(0): -10002\n"), std::string::npos);
    EXPECT_NE(text.find(" of frames: 0\n"), std::string::npos);
}

TEST_F(FileDriven, SurvivesAnOutputThatCannotBeOpened) {
    write_sdcard_input(2 * FRAME_BYTES);
    ASSERT_EQ(mkdir(OUTPUT, 0755), 0);
    EXPECT_NE(run().find(std::string("ERR: can't open file: ") + OUTPUT), std::string::npos);
    rmdir(OUTPUT);
}

// Must be the first in its process to set the module up, which ctest sees to.
TEST(FileDrivenWithoutDevice, EndsWithAMessage) {
    setenv("OCL_ICD_VENDORS", "/nonexistent/", 1);  // NOLINT(concurrency-mt-unsafe)
    if (video_stabilizer_module_init() == 0) {
        GTEST_SKIP() << "an OpenCL device was set up before";
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(test_stabilizer(), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("ERR: can't create the stabilizer\n"),
              std::string::npos);
}

TEST(FileDrivenHelpers, FrameMakerWalksThePool) {
    for (int i = 0; i < 7; ++i) {
        Frame* const frame = create_frame_from_video_buffer(&frame_ctx);
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(frame->opaque, &frame_ctx.output_buffers[i % 6]);
        EXPECT_EQ(frame->width, 1280);
        EXPECT_EQ(frame->stride_uv, 640);
        frame_delete(frame);
    }
    const std::int64_t before = time_us() / 1000;
    const std::int64_t now = time_ms();
    EXPECT_LE(before, now);
    EXPECT_LE(now, time_us() / 1000);
}

}  // namespace
