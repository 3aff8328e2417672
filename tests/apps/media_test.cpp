#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/apps/run_program.h"

// The program on files of many kinds, made and looked at with ffmpeg and ffprobe.

namespace {

using testing::HasSubstr;
using testing::IsSupersetOf;

// A folder with shaky.y4m, 320 x 240, 30 frames a second, and ways to make and look at files.
class Studio {
  public:
    explicit Studio(int frames = 45) {
        apps::ClipSettings settings;
        settings.camera.width = 320;
        settings.camera.height = 240;
        write_clip(folder.file("shaky.y4m"), apps::ShakyClip(settings), frames);
    }

    // Runs a command line in the folder; $PROGRAM is stabilize-video.
    Outcome run(const std::string& command) const {
        return run_shell(folder, "cd '" + folder.file("") + "' && { " + command + "\n}");
    }

    // Has ffmpeg make a file from these arguments.
    void make(const std::string& arguments) const {
        const Outcome outcome = run("ffmpeg -nostdin -loglevel error -y " + arguments);
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
    }

    // What ffprobe tells about the entries of a file, a line each.
    std::vector<std::string> probe(const std::string& file, const std::string& what) const {
        const Outcome outcome =
            run("ffprobe -v error -of compact=p=0 " + what + " '" + file + "' > probed");
        EXPECT_EQ(outcome.status, 0) << outcome.errors;
        std::istringstream text(read_file(folder.file("probed")));
        std::filesystem::remove(folder.file("probed"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) {
            if (!line.empty()) lines.push_back(line);
        }
        return lines;
    }

    std::size_t frames(const std::string& file) const {
        return probe(file, "-select_streams v:0 -show_entries frame=pts_time").size();
    }

    // Time stamp and duration of every picture, in the order in which they are shown.
    std::vector<std::string> times(const std::string& file) const {
        auto lines = probe(file, "-select_streams v:0 -show_entries packet=pts_time,duration_time");
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    const Folder folder;
};

constexpr const char* X264 = " -c:v libx264 -preset ultrafast ";
// A second and a half of two tones.
constexpr const char* SOUND =
    " -f lavfi -i sine=440:duration=1.5 -f lavfi -i sine=660:duration=1.5 ";

TEST(Media, KeepsEverythingButTheShake) {
    const Studio studio;
    write_file(
        studio.folder.file("words.srt"),
        "1\n00:00:00,200 --> 00:00:00,900\nHello\n\n2\n00:00:01,000 --> 00:00:01,400\nBye\n");
    write_file(studio.folder.file("chapters.txt"),
               ";FFMETADATA1\ntitle=By the sea\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=700\n"
               "title=first\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=700\nEND=1500\ntitle=second\n");
    const struct {
        const char* file;
        const char* codecs;  // of sound and subtitles
    } cases[] = {{"phone.mp4", "-c:a aac -c:s mov_text"}, {"film.mkv", "-c:a libvorbis -c:s srt"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        // Every third picture is missing, so the times between pictures vary.
        studio.make(std::string("-i shaky.y4m") + SOUND +
                    "-i words.srt -i chapters.txt -map 0 -map 1 -map 2 -map 3 -map_metadata 4 "
                    "-metadata:s:a:0 language=deu -vf select='mod(n\\,3)',setsar=4/3 -vsync vfr "
                    "-colorspace bt709 -color_primaries bt709 -color_trc bt709 -color_range tv " +
                    X264 + "-bf 2 " + c.codecs + " unturned-" + c.file);
        studio.make(std::string("-i unturned-") + c.file +
                    " -map 0:v -map 0:a -map 0:s -c copy -metadata:s:v:0 rotate=90 " + c.file);
        const Outcome outcome =
            studio.run(std::string("\"$PROGRAM\" -q ") + c.file + " steady-" + c.file);
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.errors, "");
        const std::string steady = std::string("steady-") + c.file;

        EXPECT_EQ(studio.times(steady), studio.times(c.file));
        EXPECT_EQ(studio.frames(steady), 30U);
        for (const char* copied : {"a:0", "a:1", "s:0"}) {
            const std::string packets =
                std::string("-select_streams ") + copied +
                " -show_entries packet=pts_time,duration_time,size,data_hash"
                " -show_data_hash md5";
            EXPECT_EQ(studio.probe(steady, packets), studio.probe(c.file, packets)) << copied;
        }
        for (const char* what :
             {"-show_entries stream=codec_type,width,height,sample_aspect_ratio,color_range,"
              "color_space,color_transfer,color_primaries,avg_frame_rate:stream_tags=language",
              "-show_entries stream_side_data=rotation", "-show_entries format_tags=title",
              "-show_entries chapter=start_time,end_time:chapter_tags=title"}) {
            EXPECT_EQ(studio.probe(steady, what), studio.probe(c.file, what)) << what;
        }
    }
}

TEST(Media, ReadsWhatFFmpegReads) {
    const Studio studio;
    const struct {
        const char* name;
        std::string make;  // ffmpeg's arguments
        std::string program = {};
        const char* note = "";
        std::size_t frames = 45;
        const char* size = "width=320|height=240";
    } cases[] = {
        {"ten.mkv", "-i shaky.y4m -pix_fmt yuv420p10le -c:v ffv1", "", "yuv420p10le"},
        {"wide.mkv", "-i shaky.y4m -pix_fmt yuv422p -c:v ffv1", "", "yuv422p"},
        {"rgb.avi", "-i shaky.y4m -pix_fmt bgr24 -c:v rawvideo", "", "bgr24"},
        {"camera.avi", "-i shaky.y4m -pix_fmt yuvj422p -c:v mjpeg", "", "yuvj422p"},
        {"fields.mpg", "-i shaky.y4m -vf interlace -flags +ilme+ildct -c:v mpeg2video", "",
         "made progressive", 22},
        {"odd.mkv", "-i shaky.y4m -vf crop=101:67:exact=1 -c:v ffv1", "", "even sizes", 45,
         "width=102|height=68"},
        {"oddffv1.mkv", "-i shaky.y4m -vf crop=101:67:exact=1 -c:v ffv1", "--codec ffv1", "", 45,
         "width=101|height=67"},
        {"portrait.mov", "-i shaky.y4m -vf transpose -c:v mpeg4", "--codec mpeg4", "", 45,
         "width=240|height=320"},
        {"broadcast.ts", std::string("-i shaky.y4m") + X264},
        {"deep.y4m", "-i shaky.y4m -pix_fmt yuv444p -strict -1",
         "--codec mjpeg --output-format avi", "yuv444p"},
        {"web.webm", "-i shaky.y4m -c:v libvpx -deadline realtime", "--codec libvpx"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        studio.make(c.make + " " + c.name);
        const std::string steady = std::string("steady-") + c.name;
        const Outcome outcome =
            studio.run("\"$PROGRAM\" " + c.program + " " + c.name + " " + steady);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_THAT(outcome.errors, HasSubstr(c.note));
        EXPECT_EQ(studio.frames(c.name), c.frames);
        EXPECT_EQ(studio.frames(steady), c.frames);
        EXPECT_EQ(studio.probe(steady, "-select_streams v -show_entries stream=width,height").at(0),
                  c.size);
    }
}

TEST(Media, PipesCarryAnyFormat) {
    const Studio studio;
    studio.make(std::string("-i shaky.y4m") + X264 + "unturned.mp4");
    studio.make("-i unturned.mp4 -c copy -metadata:s:v:0 rotate=90 turned.mp4");
    studio.make(std::string("-i shaky.y4m") + SOUND + X264 + "-c:a mp2 shaky.ts");
    const Outcome live = studio.run(
        "cat shaky.ts | \"$PROGRAM\" --look-ahead 15 - - --output-format mpegts > out.ts");
    EXPECT_EQ(live.status, 0);
    EXPECT_THAT(live.errors, HasSubstr("15 frames (500 ms) later"));
    EXPECT_EQ(studio.frames("out.ts"), 45U);
    EXPECT_THAT(studio.probe("out.ts", "-show_entries stream=codec_type"),
                IsSupersetOf({"codec_type=video", "codec_type=audio"}));
    // What cannot say how it is turned is turned.
    EXPECT_THAT(studio.run("\"$PROGRAM\" turned.mp4 - > out.y4m").errors, HasSubstr("upright"));
    EXPECT_EQ(studio.probe("out.y4m", "-show_entries stream=width,height").at(0),
              "width=240|height=320");
}

TEST(Media, TellsWhatIsWrongWithTheInput) {
    const Studio studio;
    studio.make(std::string("-i shaky.y4m") + SOUND + X264 +
                "-g 15 -c:a aac -movflags +faststart whole.mp4");
    studio.make("-i whole.mp4 -c copy whole.mkv");
    studio.make("-i whole.mp4 -map 0:a -c copy sound.m4a");
    studio.make("-i shaky.y4m -frames:v 1 still.png");
    studio.make(std::string("-i shaky.y4m -an") + X264 + "-muxdelay 0 small.ts");
    studio.make(std::string("-i shaky.y4m -an -vf scale=640:480") + X264 + "large.ts");
    ASSERT_EQ(studio
                  .run("cat small.ts large.ts > two.ts; : > empty.mp4;"
                       "for kind in mp4 mkv; do"
                       "  head -c $(( $(stat -c %s whole.$kind) * 2 / 3 )) whole.$kind > cut.$kind;"
                       "done; cp whole.mp4 bad.mp4;"
                       "head -c 900 /dev/urandom |"
                       "  dd of=bad.mp4 bs=1 seek=$(( $(stat -c %s bad.mp4) / 2 )) conv=notrunc")
                  .status,
              0);
    const struct {
        const char* file;
        const char* message;
        int status;
        bool delivers;
    } cases[] = {
        {"cut.mp4", "cut short", 5, true},        {"cut.mkv", "cut short", 5, true},
        {"bad.mp4", "delivered", 5, true},        {"two.ts", "320x240 to 640x480", 6, true},
        {"still.png", "a still image", 2, false}, {"sound.m4a", "sound but no video", 2, false},
        {"empty.mp4", "cannot read", 2, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string in = c.file;
        const Outcome outcome = studio.run("f=" + in + "; \"$PROGRAM\" $f steady-$f.mp4");
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_THAT(outcome.errors, HasSubstr(c.message));
        if (c.delivers) {
            // The decoder of ffmpeg gives the same pictures; of two sizes, the first.
            const std::size_t expected = in == "two.ts" ? 45 : studio.frames(in);
            EXPECT_EQ(studio.frames("steady-" + in + ".mp4"), expected);
        }
        for (const std::string& name : studio.folder.names()) {
            EXPECT_THAT(name, testing::Not(HasSubstr(".part")));
        }
    }
}

TEST(Media, NothingThatLooksFinishedIsLeftByAFailure) {
    const Studio studio;
    studio.make(std::string("-i shaky.y4m") + X264 + "shaky.mp4");
    const auto before = studio.folder.names();
    const struct {
        const char* name;
        const char* command;
        int status;
        const char* message;
    } cases[] = {
        // Two megabytes: enough for what OpenCL's compiler writes, too little for the pictures.
        {"no space", "ulimit -f 4000; \"$PROGRAM\" shaky.mp4 out.avi --codec rawvideo", 3,
         "File too large"},
        {"a full device", "\"$PROGRAM\" shaky.y4m - --output-format mpegts > /dev/full", 3,
         "No space"},
        {"no such kind", "\"$PROGRAM\" shaky.mp4 out.txt", 3, "does not tell the kind"},
        {"no such encoder", "\"$PROGRAM\" shaky.mp4 out.mp4 --codec nonsense", 3, "'nonsense'"},
        {"not in this container", "\"$PROGRAM\" shaky.mp4 out.webm --codec h264", 3, "cannot hold"},
        {"no such option", "\"$PROGRAM\" shaky.mp4 out.mp4 --input-option speed=1", 2, "'speed'"},
        {"no place for the plot", "\"$PROGRAM\" shaky.mp4 out.mp4 --plot no/folder.png", 3,
         "No such"},
        {"the output is there", "\"$PROGRAM\" shaky.y4m shaky.mp4", 3, "exists already"},
        {"the comparison is there", "\"$PROGRAM\" shaky.y4m out.mp4 --compare shaky.mp4", 3,
         "exists already"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome outcome = studio.run(c.command);
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_THAT(outcome.errors, HasSubstr(c.message));
        EXPECT_EQ(studio.folder.names(), before);
    }
}

// Runs the program on an input that does not end by itself, and sends it the signals when it has
// begun to write.
std::string interrupted(const std::string& arguments, const std::string& signals,
                        const std::string& feed = "") {
    return "\"$PROGRAM\" " + arguments + " & program=$!;" + feed +
           " until ls | grep -q '[.]part$'; do kill -0 $program || exit; sleep 0.1; done;"
           "sleep 0.5;" +
           signals + " wait $program; echo status $? >&2;";
}

// The same with a clip that comes through a pipe which stays open.
std::string interrupted_pipe(const std::string& options, const std::string& signals) {
    return "mkfifo fifo;" +
           interrupted(options + " fifo out.mp4", signals, "exec 3> fifo; cat shaky.y4m >&3;") +
           "exec 3>&-; rm fifo";
}

TEST(Media, AnInterruptedRunEndsCleanly) {
    const Studio studio;
    const auto before = studio.folder.names();
    const Outcome once = studio.run(interrupted_pipe("", "kill -TERM $program;"));
    EXPECT_THAT(once.errors, HasSubstr("status 130"));
    EXPECT_EQ(studio.folder.names(), before);

    const Outcome twice =
        studio.run(interrupted_pipe("", "kill -TERM $program; kill -HUP $program;"));
    EXPECT_THAT(twice.errors, HasSubstr("status 130"));
    EXPECT_EQ(studio.folder.names(), before);

    const Outcome kept = studio.run(interrupted_pipe("--keep-partial", "kill -TERM $program;"));
    EXPECT_THAT(kept.errors, HasSubstr("status 130"));
    EXPECT_THAT(kept.errors, HasSubstr("out.partial.mp4"));
    EXPECT_EQ(studio.frames("out.partial.mp4"), 45U);

    const Outcome device = studio.run(interrupted(
        "--keep-partial --input-format lavfi testsrc2 device.mp4", "kill -INT $program;"));
    EXPECT_THAT(device.errors, HasSubstr("status 130"));
    EXPECT_THAT(device.errors, HasSubstr("device.partial.mp4"));
    EXPECT_GT(studio.frames("device.partial.mp4"), 0U);
}

TEST(Media, ABatchGoesOnAfterAFailure) {
    const Studio studio(20);
    studio.make(std::string("-i shaky.y4m") + X264 + "a.mp4");
    studio.make("-i shaky.y4m -c:v ffv1 b.mkv");
    const Outcome outcome = studio.run(
        "echo rubbish > c.mov; \"$PROGRAM\" --output-dir steady --jobs 2 "
        "a.mp4 c.mov missing.mp4 b.mkv");
    EXPECT_EQ(outcome.status, 7);
    EXPECT_THAT(outcome.errors, HasSubstr("2 of 4 files done"));
    EXPECT_THAT(outcome.errors, HasSubstr("  c.mov: cannot read"));
    EXPECT_THAT(outcome.errors, HasSubstr("  missing.mp4: cannot open"));
    EXPECT_EQ(studio.frames("steady/a.mp4"), 20U);
    EXPECT_EQ(studio.frames("steady/b.mkv"), 20U);
    EXPECT_THAT(studio.run("mkdir d; cp a.mp4 d; \"$PROGRAM\" --output-dir x a.mp4 d/a.mp4").errors,
                HasSubstr("would both become"));
}

TEST(Media, MoreResultsShowThePathAndTheFigures) {
    const Studio studio;
    const Outcome outcome = studio.run(
        "\"$PROGRAM\" -q shaky.y4m out.mp4 --json out.json --plot out.png --compare "
        "both.mkv && \"$PROGRAM\" -q shaky.y4m out.mkv --plot out.svg");
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    const auto json = nlohmann::json::parse(read_file(studio.folder.file("out.json")));
    EXPECT_EQ(json["frames"], 45);
    EXPECT_EQ(json["failed_motions"], 0);
    EXPECT_GT(json["mean_track_ratio"], 0.8);
    EXPECT_LT(json["shake"]["after_px_rms"], json["shake"]["before_px_rms"]);
    EXPECT_LT(json["shake"]["residual_db"], -3);
    EXPECT_GT(json["seconds"]["total"], 0);
    EXPECT_EQ(studio.probe("both.mkv", "-show_entries stream=width,height").at(0),
              "width=640|height=240");
    EXPECT_EQ(studio.times("both.mkv").size(), 45U);
    EXPECT_EQ(studio.probe("out.png", "-show_entries stream=width,height").at(0),
              "width=1200|height=1050");
    EXPECT_THAT(read_file(studio.folder.file("out.svg")), HasSubstr("</svg>"));
}

}  // namespace
