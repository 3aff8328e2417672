// SPDX-License-Identifier: Apache-2.0

#include "common/video_io/y4m.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/apps/run_program.h"

namespace {

using testing::HasSubstr;

// That frames come back as they were read is shown by fuzz/y4m_fuzz.cpp.

TEST(Y4m, TellsWhatIsWrongWithAStream) {
    const Folder folder;
    const std::string magic = "YUV4MPEG2 ";
    const std::string small = magic + "W2 H2\n";
    const std::string endless(video_io::Y4M_LONGEST_LINE, 'x');
    const struct {
        std::string stream;
        const char* message;
    } cases[] = {
        {"", "empty"},
        {"YUV4MPEG22 W2 H2\n", "not YUV4MPEG2"},
        {std::string("\0\x01\x7f\xff", 4) + endless, "begins with '????xxxxx'"},
        {magic + "W2 H2", "cut short"},
        {magic + "H2\n", "no width"},
        {magic + "W2x H2\n", "the width as '2x'"},
        {magic + "W2 H0\n", "the height '0' is not in 1 to"},
        {magic + "W99999999999999999999 H2\n", "is not in 1 to 16384"},
        {magic + "W16384 H16384\n", "too large"},
        {magic + "W2 H2 C420p10\n", "'420p10', but only 8-bit 4:2:0"},
        {magic + "W2 H2 XYSCSS=422\n", "'422'"},
        {magic + "W2 H2 X" + endless + "\n", "longer than"},
        {small + "FRAMES\n", "frame 0 begins with 'FRAMES' instead of FRAME"},
        {small + "FRAME " + endless + "\n", "line is longer than"},
        {small + "FRAME X\n123456FRA", "frame 1 is cut short"},
        {small + "FRAME\n123456FRAME\n12345", "frame 1 is cut short: 5 of 6 bytes"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stream.substr(0, 60));
        write_file(folder.file("stream"), c.stream);
        try {
            video_io::FdSource source(folder.file("stream"));
            video_io::Y4mReader reader(source);
            const PictureBuffer picture(reader.header());
            while (reader.read_frame(picture.planes)) {
            }
            ADD_FAILURE() << "accepted";
        } catch (const video_io::Y4mError& error) {
            EXPECT_THAT(error.what(), HasSubstr(c.message));
        }
    }
}

}  // namespace
