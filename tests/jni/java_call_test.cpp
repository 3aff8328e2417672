// The native method, called from Java on an OpenCL device.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/jni/run_java.h"
#include "tests/support/sdcard_folder.h"

namespace {

TEST(JavaCall, StabilisesAClipOnceOrTwiceInOneVmOrNamesTheMissingInput) {
    const SdcardFolder folder;
    if (!folder.made()) GTEST_SKIP() << "needs to make " << SdcardFolder::FOLDER;

    EXPECT_THAT(call_stabilizer("1"),
                AllOf(testing::HasSubstr("test_stabilizer() = 0\n"),
                      testing::HasSubstr("ERR: can't open file: /sdcard/keypoints_90f.yuv\n"),
                      testing::HasSubstr(" of frames: 0\n")));

    write_sdcard_input(90 * SdcardFolder::FRAME_BYTES);
    for (const int times : {1, 2}) {
        const std::string output = call_stabilizer(std::to_string(times));
        int stabilised = 0;
        for (std::size_t at = 0; (at = output.find(" of frames: 90\n", at)) != std::string::npos;) {
            ++at;
            ++stabilised;
        }
        EXPECT_EQ(stabilised, times);
        EXPECT_THAT(output, testing::Not(testing::HasSubstr("ERR")));
        EXPECT_EQ(size_of_file(SdcardFolder::OUTPUT), 124416000);
    }
}

}  // namespace
