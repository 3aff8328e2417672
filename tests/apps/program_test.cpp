// SPDX-License-Identifier: Apache-2.0

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

#include "tests/apps/run_program.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// A folder with in.y4m.
class Clip : public Folder {
  public:
    Clip(int width, int height, int frames) {
        write_clip(file("in.y4m"), width, height, frames);
        bytes = read("in.y4m");
    }
    std::string read(const std::string& name) const { return read_file(file(name)); }

    std::string bytes;
};

TEST(StabilizeVideo, DeliversEveryFrameAtTheSameSize) {
    const struct {
        int width, height, frames;
    } cases[] = {
        {64, 48, 0},  {64, 48, 1},   // no motion
        {64, 48, 10}, {64, 48, 11},  // around the delay of ten frames
        {64, 48, 50},                // more than the stabilizer holds
        {65, 47, 12}, {31, 200, 12}, {1086, 16, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.frames) + " frames of " + std::to_string(c.width) + " x " +
                     std::to_string(c.height));
        const Clip clip(c.width, c.height, c.frames);
        const Outcome outcome = run_program(clip, "in.y4m out.y4m --path path.csv -q");
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.errors, "");
        const std::string out = clip.read("out.y4m");
        EXPECT_EQ(out.size(), clip.bytes.size());
        EXPECT_EQ(out.substr(0, out.find('\n')), clip.bytes.substr(0, out.find('\n')));
        const std::string path = clip.read("path.csv");
        EXPECT_EQ(std::count(path.begin(), path.end(), '\n'), c.frames + 1);
        const Outcome without_opencl = run_shell(
            clip, "OCL_ICD_VENDORS=/nonexistent \"$PROGRAM\" in.y4m again.y4m -q --threads 3");
        EXPECT_EQ(without_opencl.status, 0) << without_opencl.errors;
        EXPECT_EQ(clip.read("again.y4m"), out);
        EXPECT_THAT(clip.names(), ElementsAre("again.y4m", "in.y4m", "out.y4m", "path.csv"));
    }
}

// Flat enough to have no motions: the estimator draws new samples every second.
TEST(StabilizeVideo, GivesTheSameThroughPipesAsWithFiles) {
    const Clip clip(98, 50, 30);
    const Outcome outcome = run_program(clip, "in.y4m out.y4m --look-ahead 10 --verbose");
    EXPECT_THAT(outcome.errors, HasSubstr("warning video_stabilizer: Met output EOS."));
    run_shell(clip, "cat in.y4m | \"$PROGRAM\" - - --look-ahead 10 | cat > piped.y4m");
    EXPECT_EQ(clip.read("piped.y4m"), clip.read("out.y4m"));
}

TEST(StabilizeVideo, KeepsTheParametersOfFrames) {
    const Folder folder;
    std::string stream = "YUV4MPEG2 W16 H16 F25:1 Ip A4:3 Xcomment\n";
    for (int frame = 0; frame < 25; ++frame) {
        stream +=
            "FRAME X" + std::to_string(frame) + "\n" + std::string(384, static_cast<char>(frame));
    }
    write_file(folder.file("in.y4m"), stream);
    ASSERT_EQ(run_program(folder, "in.y4m out.y4m").status, 0);
    // Flat pictures have no motion and do not change.
    EXPECT_EQ(read_file(folder.file("out.y4m")), stream);
}

TEST(StabilizeVideo, TellsFailuresApartAndLeavesNothingBehind) {
    const Clip clip(320, 240, 30);
    write_file(clip.file("cut.y4m"), "YUV4MPEG2 W64 H48\nFRAME\nshort");
    write_file(clip.file("old.y4m"), "older");
    write_clip(clip.file("tiny.y4m"), 15, 16, 2);
    ASSERT_EQ(run_shell(clip, "ln in.y4m hard; ln -s in.y4m soft; ln -s . here").status, 0);
    const auto before = clip.names();
    const struct {
        const char* arguments;
        int status;
        const char* message;
    } cases[] = {
        {"in.y4m", 1, "OUT is required"},
        {"in.y4m out.y4m --plot path.pdf", 1, ".png or .svg"},
        {"in.y4m out.y4m --crop 0.4", 1, "--crop"},
        {"in.y4m out.y4m --crop auto --strength gentle", 1, "not for gentle"},
        {"in.y4m out.y4m --engine opencl --strength gentle", 1, "the stated sampling"},
        {"in.y4m out.y4m --crop 0.8 --crop-least 0.7", 1, "need --crop auto"},
        {"in.y4m out.y4m --crop auto --crop-least 0.8 --crop-most 0.7", 1, "is more than"},
        {"in.y4m out.y4m --output-dir steady --json x", 1, "single file"},
        {"in.y4m ./in.y4m --overwrite", 1, "./in.y4m is the input"},
        {"in.y4m out.y4m --path hard --overwrite", 1, "hard is the input"},
        {"soft in.y4m --overwrite", 1, "in.y4m is the input"},
        {"in.y4m out.y4m --path ./out.y4m", 1, "different files"},
        {"in.y4m out.y4m --path x --json here/x", 1, "different files"},
        {"old.y4m hard --path soft --overwrite", 1, "different files"},
        {"missing out.y4m", 2, "No such file"},
        {"tiny.y4m out.y4m", 2, "are 15x16; the smallest"},
        {"cut.y4m out.y4m", 2, "frame 0 is cut short"},
        {"cut.y4m old.y4m --overwrite", 2, "frame 0 is cut short"},
        {"in.y4m out.mp4 --input-format yuv4mpegpipe --input-option speed=1", 1, "'speed'"},
        {"in.y4m old.y4m", 3, "exists already"},
        {"in.y4m out.y4m --compare old.y4m", 3, "exists already"},
        {"in.y4m out.y4m --path no/folder/path.csv", 3, "No such file"},
        {"in.y4m out.txt", 1, "does not tell the output format"},
        {"in.y4m out.mp4 --codec nonsense", 1, "'nonsense'"},
        {"in.y4m out.webm --codec h264", 1, "cannot hold"},
        {"in.y4m /dev/full", 3, "No space left"},
        {"in.y4m - --output-format mpegts > /dev/full", 3, "No space left"},
        // Less than the pictures need, enough for what OpenCL's compiler writes.
        {"in.y4m out.avi --codec rawvideo", 3, "File too large"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        const Outcome outcome =
            run_shell(clip, std::string("ulimit -f 4000; \"$PROGRAM\" ") + c.arguments);
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_THAT(outcome.errors, HasSubstr(c.message));
        EXPECT_EQ(clip.names(), before);
    }
    EXPECT_EQ(clip.read("in.y4m"), clip.bytes);
    EXPECT_EQ(clip.read("old.y4m"), "older");
}

TEST(StabilizeVideo, CompletesTheVideoWhateverElseFails) {
    const Clip clip(64, 48, 20);
    run_shell(clip, "ln -s /dev/full full; ln -s /dev/full full.mkv");
    const Outcome outcome = run_program(
        clip, "in.y4m out.y4m --path full --json /dev/full --compare full.mkv --plot path.svg");
    EXPECT_EQ(outcome.status, 3);
    for (const char* file : {"full", "/dev/full", "full.mkv"}) {
        EXPECT_THAT(outcome.errors, HasSubstr(std::string("cannot write ") + file + ": No space"));
    }
    EXPECT_THAT(outcome.errors, HasSubstr("the video itself is complete: out.y4m"));
    EXPECT_EQ(clip.read("out.y4m").size(), clip.bytes.size());
    EXPECT_THAT(clip.names(), ElementsAre("full", "full.mkv", "in.y4m", "out.y4m", "path.svg"));
}

TEST(StabilizeVideo, EndsWhenItsReaderGoesAwayWhileItsInputIsSilent) {
    const Clip clip(320, 240, 40);
    // The input stays open after 40 frames until the program has ended.
    const Outcome outcome = run_shell(clip, R"(mkfifo fifo && {
            { { "$PROGRAM" fifo -; echo status $? >&2; } | head -c 100 > /dev/null; } &
            exec 3> fifo; cat in.y4m >&3
            wait; })");
    EXPECT_THAT(outcome.errors, HasSubstr("the reader has closed it"));
    EXPECT_THAT(outcome.errors, HasSubstr("status 3"));
}

}  // namespace
