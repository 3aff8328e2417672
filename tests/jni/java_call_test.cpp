// The native method, called from Java on an OpenCL device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/jni/run_java.h"
#include "tests/support/sdcard_folder.h"

using testing::HasSubstr;
using testing::Not;

namespace {

class JavaCall : public testing::Test {
  protected:
    void SetUp() override {
        if (!folder_.made()) GTEST_SKIP() << "needs to make " << SdcardFolder::FOLDER;
    }

    SdcardFolder folder_;
};

int count(const std::string& text, const std::string& part) {
    int found = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++found;
    }
    return found;
}

TEST_F(JavaCall, StabilisesAClipTwiceInOneVm) {
    write_sdcard_input(90 * SdcardFolder::FRAME_BYTES);
    const JavaOutcome outcome = run_java("CallStabilizer 2");
    EXPECT_EQ(outcome.status, 0) << outcome.log;
    EXPECT_EQ(count(outcome.output, "test_stabilizer() = 0\n"), 2);
    EXPECT_EQ(count(outcome.output, " of frames: 90\n"), 2);
    EXPECT_THAT(outcome.output, HasSubstr("processor traps arrive\n"));
    EXPECT_THAT(outcome.output, Not(HasSubstr("ERR")));
    EXPECT_EQ(size_of_file(SdcardFolder::OUTPUT), 124416000);
}

TEST_F(JavaCall, EndsWithAMessageWithoutTheInput) {
    const JavaOutcome outcome = run_java("CallStabilizer 1");
    EXPECT_EQ(outcome.status, 0) << outcome.log;
    EXPECT_THAT(outcome.output, HasSubstr("test_stabilizer() = 0\n"));
    EXPECT_THAT(outcome.output, HasSubstr("ERR: can't open file: /sdcard/keypoints_90f.yuv\n"));
    EXPECT_THAT(outcome.output, HasSubstr(" of frames: 0\n"));
    EXPECT_THAT(outcome.output, HasSubstr("processor traps arrive\n"));
}

}  // namespace
