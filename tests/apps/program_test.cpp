#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/apps/run_program.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

apps::ShakyClip clip_of(int width, int height) {
    apps::ClipSettings settings;
    settings.camera.width = width;
    settings.camera.height = height;
    return apps::ShakyClip(settings);
}

TEST(StabilizeVideo, DeliversEveryFrameAtTheSameSize) {
    const struct {
        int width, height, frames;
    } cases[] = {
        {64, 48, 0},  {64, 48, 1},   // nothing to compare with
        {64, 48, 10}, {64, 48, 11},  // about the ten frames of delay
        {64, 48, 50},                // more than the stabilizer holds
        {65, 47, 12}, {2, 2, 12},   {1, 1, 3}, {31, 200, 12}, {1086, 16, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.frames) + " frames of " + std::to_string(c.width) + " x " +
                     std::to_string(c.height));
        const Folder folder;
        write_clip(folder.file("in.y4m"), clip_of(c.width, c.height), c.frames);
        const Outcome outcome = run_program(folder, {folder.file("in.y4m"), folder.file("out.y4m"),
                                                     "--path", folder.file("path.csv"), "-q"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.errors, "");
        const std::string in = read_file(folder.file("in.y4m"));
        const std::string out = read_file(folder.file("out.y4m"));
        EXPECT_EQ(out.size(), in.size());
        EXPECT_EQ(out.substr(0, out.find('\n')), in.substr(0, in.find('\n')));
        EXPECT_EQ(read_luma(folder.file("out.y4m")).size(), static_cast<std::size_t>(c.frames));
        EXPECT_EQ(read_csv(folder.file("path.csv")).size(), static_cast<std::size_t>(c.frames));
        EXPECT_THAT(folder.names(), ElementsAre("in.y4m", "out.y4m", "path.csv"));
    }
}

// Flat enough to have no motions: the estimator draws its samples anew each second.
TEST(StabilizeVideo, PipesGiveTheSameAsFiles) {
    const Folder folder;
    write_clip(folder.file("in.y4m"), clip_of(98, 50), 30);
    ASSERT_EQ(
        run_program(folder, {folder.file("in.y4m"), folder.file("out.y4m"), "--look-ahead", "10"})
            .status,
        0);
    const Outcome outcome =
        run_shell(folder, "cat '" + folder.file("in.y4m") +
                              "' | \"$PROGRAM\" - - -q --look-ahead 10 | cat > '" +
                              folder.file("piped.y4m") + "'");
    EXPECT_EQ(outcome.errors, "");
    EXPECT_EQ(read_file(folder.file("piped.y4m")), read_file(folder.file("out.y4m")));
}

TEST(StabilizeVideo, LinesOfFramesStayWithTheirFrames) {
    const Folder folder;
    std::string stream = "YUV4MPEG2 W16 H16 F25:1 It A4:3 Xcomment\n";
    std::string lines;
    for (int frame = 0; frame < 25; ++frame) {
        const std::string line = "FRAME X" + std::to_string(frame) + "\n";
        stream += line + std::string(384, static_cast<char>(frame));
        lines += line;
    }
    write_file(folder.file("in.y4m"), stream);
    ASSERT_EQ(run_program(folder, {folder.file("in.y4m"), folder.file("out.y4m")}).status, 0);
    // Flat pictures have no motion and stay what they are.
    EXPECT_EQ(read_file(folder.file("out.y4m")), stream);
}

TEST(StabilizeVideo, ABrokenStreamGivesItsWholeFramesAndAnError) {
    const Folder folder;
    write_clip(folder.file("in.y4m"), clip_of(64, 48), 20);
    const std::string in = read_file(folder.file("in.y4m"));
    const std::size_t header = in.find('\n') + 1;
    const std::size_t frame = (in.size() - header) / 20;
    const struct {
        std::string name;
        std::string stream;
        std::size_t whole_frames;
        const char* message;
    } cases[] = {
        {"in a picture", in.substr(0, in.size() - 1), 19, "frame 19 is cut short"},
        {"in a FRAME line", in.substr(0, header + 12 * frame + 3), 12, "frame 12 is cut short"},
        {"with something else", in.substr(0, header + 5 * frame) + "rubbish\n" + in, 5,
         "frame 5 begins with 'rubbish'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        write_file(folder.file("broken.y4m"), c.stream);
        const Outcome outcome =
            run_program(folder, {folder.file("broken.y4m"), folder.file("out.y4m"), "--overwrite"});
        EXPECT_EQ(outcome.status, 5);
        EXPECT_THAT(outcome.errors, HasSubstr(c.message));
        EXPECT_EQ(read_luma(folder.file("out.y4m")).size(), c.whole_frames);
    }
}

TEST(StabilizeVideo, FailuresAreToldApartAndLeaveNothingBehind) {
    const Folder folder;
    const std::string in = folder.file("in.y4m");
    const std::string out = folder.file("out.y4m");
    write_clip(in, clip_of(64, 48), 20);
    write_file(folder.file("text"), "some text\n");
    write_file(folder.file("cut.y4m"), "YUV4MPEG2 W64 H48\nFRAME\nshort");
    const std::string before = read_file(in);
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* message;
    } cases[] = {
        {{in}, 1, "OUT is required"},
        {{in, in, out}, 1, "needs --output-dir"},
        {{in, out, "--plot", "path.pdf"}, 1, ".png or .svg"},
        {{in, out, "--output-dir", folder.file("steady"), "--json", "x"}, 1, "single file"},
        {{in, out, "--speed"}, 1, "--speed"},
        {{in, out, "-q", "-v"}, 1, "xcludes"},
        {{in, in}, 1, "is the input"},
        {{in, out, "--path", in}, 1, "is the input"},
        {{in, out, "--path", out}, 1, "different files"},
        {{folder.file("missing"), out}, 2, "No such file"},
        {{folder.file("."), out}, 2, "folder"},
        {{folder.file("text"), out}, 2, "cannot read"},
        {{folder.file("cut.y4m"), out}, 2, "frame 0 is cut short"},
        {{in, folder.file("no/folder/out.y4m")}, 3, "No such file"},
        {{in, "/dev/full"}, 3, "No space left"},
        {{in, out, "--path", "/dev/full"}, 3, "No space left"},
        {{in, out, "--path", folder.file("no/folder/path.csv")}, 3, "No such file"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        const Outcome outcome = run_program(folder, c.arguments);
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_THAT(outcome.errors, HasSubstr(c.message));
        EXPECT_THAT(folder.names(), ElementsAre("cut.y4m", "in.y4m", "text"));
    }
    EXPECT_EQ(read_file(in), before);
}

TEST(StabilizeVideo, AFailedRunKeepsTheOlderOutput) {
    const Folder folder;
    write_file(folder.file("out.y4m"), "older");
    write_file(folder.file("cut.y4m"), "YUV4MPEG2 W64 H48\nFRAME\nshort");
    const std::string cut = folder.file("cut.y4m");
    const std::string out = folder.file("out.y4m");
    EXPECT_EQ(run_program(folder, {cut, out, "--overwrite"}).status, 2);
    EXPECT_EQ(read_file(out), "older");
    const Outcome refused = run_program(folder, {cut, out});
    EXPECT_EQ(refused.status, 3);
    EXPECT_THAT(refused.errors, HasSubstr("exists already"));
    EXPECT_EQ(read_file(out), "older");
}

TEST(StabilizeVideo, EndsWhenItsReaderGoesAwayEvenWhileItsInputIsSilent) {
    const Folder folder;
    write_clip(folder.file("in.y4m"), clip_of(320, 240), 40);
    // The input stays open, and silent after 40 frames, until the program has ended.
    const Outcome outcome =
        run_shell(folder, "cd '" + folder.file("") + "' && mkfifo fifo && " + R"({
            { { "$PROGRAM" fifo -; echo status $? >&2; } | head -c 100 > /dev/null; } &
            exec 3> fifo; cat in.y4m >&3
            wait; })");
    EXPECT_THAT(outcome.errors, HasSubstr("its reader has gone"));
    EXPECT_THAT(outcome.errors, HasSubstr("status 3"));
}

TEST(StabilizeVideo, InterruptedItLeavesNothingBehind) {
    const Folder folder;
    write_clip(folder.file("in.y4m"), clip_of(64, 48), 40);
    // Its input stays open, so that it cannot be done before the signal comes.
    const Outcome outcome =
        run_shell(folder, "cd '" + folder.file("") + "' && mkfifo fifo && " + R"({
            "$PROGRAM" fifo out.y4m & program=$!
            exec 3> fifo; cat in.y4m >&3
            until ls | grep part; do sleep 0.1; done > /dev/null
            kill -TERM $program; wait $program; echo status $? >&2; rm fifo; })");
    EXPECT_THAT(outcome.errors, HasSubstr("interrupted"));
    EXPECT_THAT(outcome.errors, HasSubstr("status 130"));
    EXPECT_THAT(folder.names(), ElementsAre("in.y4m"));
}

TEST(StabilizeVideo, ShowsTheLibrarysLogOnlyWhenAsked) {
    const Folder folder;
    write_clip(folder.file("in.y4m"), clip_of(64, 48), 12);
    const Outcome outcome =
        run_program(folder, {folder.file("in.y4m"), folder.file("out.y4m"), "--verbose"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.errors, HasSubstr("warning video_stabilizer: Met output EOS."));
}

}  // namespace
