#include "apps/y4m.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/apps/memory_io.h"

namespace {

using apps::Y4mError;
using apps::Y4mReader;
using apps::Y4mWriter;
using testing::HasSubstr;

// `count` bytes that differ from each other and from line ends and letters of the format.
std::string payload(std::int64_t count, int seed) {
    std::string bytes;
    for (std::int64_t i = 0; i < count; ++i) {
        bytes.push_back(static_cast<char>(128 + (i * 31 + seed) % 128));
    }
    return bytes;
}

std::string read_all_and_write_again(const std::string& stream, int gap) {
    MemorySource source(stream);
    MemorySink sink;
    Y4mReader reader(source);
    Y4mWriter writer(sink, reader.header());
    PictureBuffer picture(reader.header().width, reader.header().height, gap);
    while (reader.read_frame(picture.planes())) {
        writer.write_frame(picture.planes(), reader.frame_parameters());
    }
    return sink.bytes;
}

TEST(Y4m, StreamsOfAnySizeComeBackUnchanged) {
    const struct {
        const char* header;
        int frame_bytes;  // by hand: luma and two chroma planes of rounded-up half size
        const char* frame_line;
    } cases[] = {
        {"YUV4MPEG2 W1 H1", 3, "FRAME"},
        {"YUV4MPEG2 W2 H2 C420", 6, "FRAME"},
        {"YUV4MPEG2 W3 H5 F25:1 C420jpeg", 27, "FRAME"},
        {"YUV4MPEG2 H3 W16 F30000:1001 Ip A1:1 C420mpeg2 XYSCSS=420MPEG2", 80, "FRAME"},
        {"YUV4MPEG2 W17 H16 It A10:11 C420paldv XCOLORRANGE=LIMITED Xnote", 416, "FRAME Ippp Xq"},
        {"YUV4MPEG2 W4 H2 F0:0 XYSCSS=420JPEG", 12, "FRAME "},
        {"YUV4MPEG2  W4  H2 ", 12, "FRAME"},
    };
    for (const auto& c : cases) {
        for (const int gap : {0, 7}) {
            SCOPED_TRACE(std::string(c.header) + ", gap " + std::to_string(gap));
            std::string stream = std::string(c.header) + "\n";
            for (int frame = 0; frame < 3; ++frame) {
                stream += std::string(c.frame_line) + "\n" + payload(c.frame_bytes, frame);
            }
            EXPECT_EQ(read_all_and_write_again(stream, gap), stream);
        }
    }
}

TEST(Y4m, HeadersThatCannotBeReadAreRefusedWithTheReason) {
    const std::string magic = "YUV4MPEG2 ";
    const struct {
        std::string stream;
        const char* message;
    } cases[] = {
        {"", "empty"},
        {"YUV4", "not YUV4MPEG2"},
        {"YUV4MPEG1 W2 H2\n", "not YUV4MPEG2: it begins with 'YUV4MPEG1'"},
        {"YUV4MPEG22 W2 H2\n", "not YUV4MPEG2"},
        {std::string("\0\x01\x7f\xff", 4) + std::string(10000, 'x'), "begins with '????xxxxx'"},
        {magic + "W2 H2", "cut short"},
        {"YUV4MPEG2\n", "no width"},
        {magic + "W2\n", "no height"},
        {magic + "W H2\n", "the width as ''"},
        {magic + "W2x H2\n", "the width as '2x'"},
        {magic + "W-2 H2\n", "the width as '-2'"},
        {magic + "W2 H0\n", "the height '0' is not in 1 to"},
        {magic + "W16385 H2\n", "the width '16385' is not in 1 to 16384"},
        {magic + "W99999999999999999999 H2\n", "is not in 1 to 16384"},
        {magic + "W16384 H16384\n", "too large"},
        {magic + "W2 H2 C444\n", "'444', but only 8-bit 4:2:0"},
        {magic + "W2 H2 C420p10\n", "'420p10'"},
        {magic + "W2 H2 Cmono\n", "'mono'"},
        {magic + "W2 H2 XYSCSS=422\n", "'422'"},
        {magic + "W2 H2 X" + std::string(apps::Y4M_LONGEST_LINE, 'x') + "\n", "longer than"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.stream.substr(0, 60));
        MemorySource source(c.stream);
        try {
            const Y4mReader reader(source);
            ADD_FAILURE() << "accepted";
        } catch (const Y4mError& error) {
            EXPECT_THAT(error.what(), HasSubstr(c.message));
        }
    }
}

TEST(Y4m, AStreamCutAnywhereGivesItsWholeFramesAndThenAnError) {
    const std::string header = "YUV4MPEG2 W3 H3\n";
    const std::string frame = "FRAME X\n" + payload(17, 0);
    const std::string stream = header + frame + frame;
    for (std::size_t size = header.size(); size <= stream.size(); ++size) {
        SCOPED_TRACE(size);
        MemorySource source(stream.substr(0, size));
        Y4mReader reader(source);
        PictureBuffer picture(3, 3);
        bool failed = false;
        try {
            while (reader.read_frame(picture.planes())) {
            }
        } catch (const Y4mError& error) {
            failed = true;
            const std::string number = std::to_string((size - header.size()) / frame.size());
            EXPECT_THAT(error.what(), HasSubstr("frame " + number + " is cut short"));
        }
        EXPECT_EQ(reader.frames(),
                  static_cast<std::int64_t>((size - header.size()) / frame.size()));
        EXPECT_EQ(failed, (size - header.size()) % frame.size() != 0);
    }
}

TEST(Y4m, FramesThatDoNotBeginAsFramesAreRefused) {
    const struct {
        std::string line;
        const char* message;
    } cases[] = {
        {"frame\n", "frame 0 begins with 'frame' instead of FRAME"},
        {"FRAMES\n", "begins with 'FRAMES'"},
        {"\n", "begins with ''"},
        {"FRAME " + std::string(apps::Y4M_LONGEST_LINE, 'x') + "\n", "line is longer than"},
        {std::string(10000, '\x80'), "begins with '????"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line.substr(0, 40));
        MemorySource source("YUV4MPEG2 W2 H2\n" + c.line + payload(6, 0));
        Y4mReader reader(source);
        PictureBuffer picture(2, 2);
        try {
            reader.read_frame(picture.planes());
            ADD_FAILURE() << "accepted";
        } catch (const Y4mError& error) {
            EXPECT_THAT(error.what(), HasSubstr(c.message));
        }
    }
}

}  // namespace
