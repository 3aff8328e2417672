// SPDX-License-Identifier: Apache-2.0

#include <gmock/gmock.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>

#include "tests/apps/run_program.h"

// The program on files of many formats, made and examined with ffmpeg and ffprobe.

namespace {

using testing::HasSubstr;

// A folder with shaky.y4m, 320 x 240, 30 frames per second, and ways to make and examine files.
class Studio : public Folder {
  public:
    explicit Studio(int frames = 45) { write_clip(file("shaky.y4m"), 320, 240, frames); }

    // Lets ffmpeg make a file from these arguments.
    void make(const std::string& arguments) const {
        const Outcome outcome = run_shell(*this, "ffmpeg -nostdin -loglevel error -y " + arguments);
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
    }

    // The entries of a file according to ffprobe, a line each.
    std::string probe(const std::string& name, const std::string& what) const {
        return run_shell(*this, "ffprobe -v quiet -of compact=p=0 " + what + " " + name +
                                    " | grep . | sed 's/|$//' >&2")
            .errors;
    }

    std::size_t frames(const std::string& name) const {
        const std::string times = probe(name, "-select_streams v:0 -show_entries frame=pts_time");
        return static_cast<std::size_t>(std::count(times.begin(), times.end(), '\n'));
    }

    std::string size(const std::string& name) const {
        return probe(name, "-select_streams v -show_entries stream=width,height");
    }
};

constexpr const char* X264 = " -c:v libx264 -preset ultrafast ";
// A second and a half of two tones.
constexpr const char* SOUND =
    " -f lavfi -i sine=440:duration=1.5 -f lavfi -i sine=660:duration=1.5 ";

TEST(Media, KeepsEverythingButTheShake) {
    constexpr const char* STREAMS =
        "-show_entries stream=codec_type,width,height,sample_aspect_ratio,color_range,color_space,"
        "color_transfer,color_primaries,avg_frame_rate:stream_tags=language";
    const Studio studio;
    write_file(
        studio.file("words.srt"),
        "1\n00:00:00,200 --> 00:00:00,900\nHello\n\n2\n00:00:01,000 --> 00:00:01,400\nBye\n");
    write_file(studio.file("chapters.txt"),
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
            run_shell(studio, std::string("\"$PROGRAM\" -q ") + c.file + " steady-" + c.file);
        ASSERT_EQ(outcome.status, 0) << outcome.errors;
        EXPECT_EQ(outcome.errors, "");
        const std::string steady = std::string("steady-") + c.file;

        EXPECT_EQ(studio.frames(steady), 30U);
        for (const char* what :
             {"-select_streams v:0 -show_entries frame=pts_time,pkt_duration_time",
              "-select_streams a -show_entries packet=pts_time,data_hash -show_data_hash md5",
              "-select_streams s -show_entries packet=pts_time,data_hash -show_data_hash md5",
              STREAMS, "-show_entries stream_side_data=rotation", "-show_entries format_tags=title",
              "-show_entries chapter=start_time,end_time:chapter_tags=title"}) {
            EXPECT_EQ(studio.probe(steady, what), studio.probe(c.file, what)) << what;
        }
    }
}

TEST(Media, ReadsWhatFFmpegReads) {
    const Studio studio;
    const struct {
        const char* name;
        const char* make;  // ffmpeg's arguments
        const char* program = "";
        const char* note = "";
        std::size_t frames = 45;
        const char* size = "width=320|height=240\n";
    } cases[] = {
        {"rgb.avi", "-i shaky.y4m -pix_fmt bgr24 -c:v rawvideo", "", "from bgr24 to yuv444p"},
        {"alpha.mkv", "-i shaky.y4m -pix_fmt yuva420p -c:v ffv1", "", "transparency is dropped"},
        {"fields.mpg", "-i shaky.y4m -vf interlace -flags +ilme+ildct -c:v mpeg2video",
         "--interlaced keep-rate", "deinterlaced", 22},
        {"odd.mkv", "-i shaky.y4m -vf crop=101:67:exact=1 -c:v ffv1", "", "even sizes", 45,
         "width=102|height=68\n"},
        {"oddffv1.mkv", "-i shaky.y4m -vf crop=101:67:exact=1 -c:v ffv1", "--codec ffv1", "", 45,
         "width=101|height=67\n"},
        {"narrow.y4m", "-i shaky.y4m -pix_fmt yuv411p -strict -1",
         "--codec mpeg4 --output-format avi", "yuv411p pictures are written as yuv420p"},
        {"web.webm", "-i shaky.y4m -c:v libvpx -deadline realtime", "--codec libvpx"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        studio.make(std::string(c.make) + " " + c.name);
        const std::string steady = std::string("steady-") + c.name;
        const Outcome outcome =
            run_program(studio, std::string() + c.program + " " + c.name + " " + steady);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_THAT(outcome.errors, HasSubstr(c.note));
        EXPECT_EQ(studio.frames(c.name), c.frames);
        EXPECT_EQ(studio.frames(steady), c.frames);
        EXPECT_EQ(studio.size(steady), c.size);
    }
}

// Without repetitions: what a container and its stream both tell is told twice.
std::set<std::string> lines(const std::string& text) {
    std::istringstream stream(text);
    std::set<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.insert(line);
    }
    return lines;
}

// What comes out has the pixel format, the colours and the side data of what went in.
TEST(Media, KeepsPixelFormatAndColours) {
    const std::string bt2020 =
        " -color_primaries bt2020 -colorspace bt2020nc -color_range tv -c:v libx265 "
        "-preset ultrafast -x265-params log-level=none";
    const std::string hdr =
        bt2020 +
        ":repeat-headers=1:hdr10=1:chromaloc=2:master-display='G(13250,34500)B(7500,3000)"
        "R(34000,16000)WP(15635,16450)L(10000000,1)':max-cll=1000,400 -color_trc smpte2084 ";
    const std::string hlg = bt2020 + " -color_trc arib-std-b67 ";
    const std::string bt709 =
        " -color_primaries bt709 -colorspace bt709 -color_trc bt709 -color_range tv -c:v ffv1 ";
    const std::string odd = " -vf crop=301:203:exact=1 -strict -1 ";
    const struct {
        const char* pixels;
        std::string make;
        const char* in;
        const char* program;
        const char* out;
        const char* codec;
    } cases[] = {
        {"yuv420p10le", hdr, "hdr.mp4", "--preset ultrafast", "out.mp4",
         "hevc|codec_tag_string=hvc1"},
        {"yuv420p10le", hdr, "hdr.mkv", "--preset ultrafast", "out.ts", "hevc|"},
        {"yuv420p10le", hlg, "hlg.mp4", "--codec h264", "out.mkv", "h264|"},
        {"yuv444p10le", bt709, "444.mkv", "--preset ultrafast", "out.mov",
         "hevc|codec_tag_string=hvc1"},
        {"yuv422p", bt709, "422.mkv", "", "out.mp4", "h264|"},
        {"yuva444p10le", bt709, "clear.mkv", "--codec ffv1", "out.mkv", "ffv1|"},
        {"yuv411p", odd + " -c:v ffv1", "dv.mkv", "--codec ffv1", "out.mkv", "ffv1|"},
        {"yuv411p", odd, "dv.y4m", "", "out.y4m", "rawvideo|"},
        {"gray10le", odd + bt709, "grey.mkv", "--codec ffv1", "out.mkv", "ffv1|"},
        {"gray12le", odd, "grey.y4m", "", "out.y4m", "rawvideo|"},
        {"yuv422p16le", " -strict -1", "422.y4m", "", "out.y4m", "rawvideo|"},
        {"yuv444p14le", odd, "444.y4m", "--codec ffv1", "out.mkv", "ffv1|"},
        {"nv12", odd + "-c:v rawvideo", "nv12.avi", "--codec rawvideo", "out.avi", "rawvideo|"},
        {"yuvj422p", odd + "-c:v mjpeg", "camera.avi", "--codec mjpeg", "out.avi", "mjpeg|"},
    };
    const Studio studio(12);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.pixels) + " from " + c.in + " to " + c.out);
        studio.make("-i shaky.y4m -pix_fmt " + std::string(c.pixels) + c.make + " " + c.in);
        const Outcome outcome =
            run_program(studio, std::string("-q --overwrite --compare both.mkv ") + c.program +
                                    " " + c.in + " " + c.out);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(outcome.errors, "");
        EXPECT_EQ(studio.frames("both.mkv"), 12U);
        for (const char* what :
             {"-show_entries stream=width,height,pix_fmt,color_range,color_space,color_transfer,"
              "color_primaries",
              "-read_intervals %+#1 -show_entries "
              "frame_side_data=red_x,red_y,green_x,green_y,blue_x,blue_y,"
              "white_point_x,white_point_y,min_luminance,max_luminance,max_content,max_average"}) {
            EXPECT_EQ(lines(studio.probe(c.out, what)), lines(studio.probe(c.in, what)));
        }
        EXPECT_THAT(studio.probe(c.out, "-show_entries stream=codec_name,codec_tag_string"),
                    HasSubstr(c.codec));
    }
    EXPECT_THAT(studio.probe("out.ts", "-show_entries stream=chroma_location"),
                HasSubstr("topleft"));
}

TEST(Media, CarriesAnyFormatThroughPipes) {
    const Studio studio;
    studio.make(std::string("-i shaky.y4m") + X264 + "unturned.mp4");
    studio.make("-i unturned.mp4 -c copy -metadata:s:v:0 rotate=90 turned.mp4");
    studio.make(std::string("-i shaky.y4m") + SOUND + X264 + "-c:a mp2 shaky.ts");
    const Outcome live = run_shell(
        studio, "cat shaky.ts | \"$PROGRAM\" --look-ahead 15 - - --output-format mpegts > out.ts");
    EXPECT_EQ(live.status, 0);
    EXPECT_THAT(live.errors, HasSubstr("15 frames (500 ms)"));
    EXPECT_EQ(studio.frames("out.ts"), 45U);
    EXPECT_THAT(studio.probe("out.ts", "-show_entries stream=codec_type"),
                HasSubstr("codec_type=audio\n"));
    // YUV4MPEG2 has no rotation tag.
    EXPECT_THAT(run_program(studio, "turned.mp4 - > out.y4m").errors, HasSubstr("upright"));
    EXPECT_EQ(studio.size("out.y4m"), "width=240|height=320\n");
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
    ASSERT_EQ(
        run_shell(studio,
                  "cat small.ts large.ts > two.ts; cp shaky.y4m whole.y4m;"
                  "for kind in mp4 mkv y4m; do"
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
        {"cut.mp4", "cut short", 5, true},
        {"cut.mkv", "cut short", 5, true},
        {"cut.y4m", "frame 29 is cut short", 5, true},
        {"bad.mp4", "complete frames were written", 5, true},
        {"two.ts", "320x240 to 640x480", 6, true},
        {"still.png", "a still image", 2, false},
        {"sound.m4a", "audio but no video", 2, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const std::string in = c.file;
        const Outcome outcome = run_shell(studio, "f=" + in + "; \"$PROGRAM\" $f steady-$f.mp4");
        EXPECT_EQ(outcome.status, c.status);
        EXPECT_THAT(outcome.errors, HasSubstr(c.message));
        if (c.delivers) {
            // As ffmpeg decodes it; of two sizes, the first.
            const std::size_t expected = in == "two.ts" ? 45 : studio.frames(in);
            EXPECT_EQ(studio.frames("steady-" + in + ".mp4"), expected);
        }
        EXPECT_THAT(studio.names(), testing::Not(testing::Contains(HasSubstr(".part"))));
    }
}

// Runs the program, and sends it the signals when it has begun to write. Tells its status, and what
// temporary files are left. `fifo` delivers the clip and stays open.
std::string interrupted(const std::string& arguments, const std::string& signals) {
    const bool reads_fifo = arguments.find("fifo") != std::string::npos;
    return "mkfifo fifo; \"$PROGRAM\" " + arguments + " & program=$!; exec 3<> fifo;" +
           (reads_fifo ? "cat shaky.y4m > fifo;" : "") +
           "until find . | grep -q '[.]part$'; do kill -0 $program || exit; sleep 0.1; done;"
           "sleep 0.5;" +
           signals +
           " wait $program; echo status $? >&2; find . -name '*.part' >&2; exec 3>&-; rm fifo;";
}

TEST(Media, EndsCleanlyWhenInterrupted) {
    const Studio studio;
    const auto before = studio.names();
    const struct {
        const char* arguments;
        const char* signals;
        std::size_t least_kept;  // frames
    } cases[] = {
        {"fifo out.mp4", "kill -TERM $program;", 0},
        {"fifo out.mp4", "kill -TERM $program; kill -HUP $program;", 0},
        {"--keep-partial fifo out.mp4", "kill -TERM $program;", 45},
        {"--keep-partial --input-format lavfi testsrc2 out.mp4", "kill -INT $program;", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        const Outcome outcome = run_shell(studio, interrupted(c.arguments, c.signals));
        EXPECT_THAT(outcome.errors, HasSubstr("status 130"));
        if (c.least_kept > 0) {
            EXPECT_THAT(outcome.errors, HasSubstr("out.partial.mp4"));
            EXPECT_GE(studio.frames("out.partial.mp4"), c.least_kept);
            run_shell(studio, "rm out.partial.mp4");
        }
        EXPECT_EQ(studio.names(), before);
    }
}

TEST(Batch, GoesOnAfterAFailure) {
    const Studio studio(20);
    studio.make(std::string("-i shaky.y4m") + X264 + "a.mp4");
    studio.make("-i shaky.y4m -c:v ffv1 b.mkv");
    const Outcome outcome =
        run_shell(studio,
                  "echo rubbish > c.mov; \"$PROGRAM\" --output-dir steady --jobs 2 "
                  "a.mp4 c.mov missing.mp4 b.mkv");
    EXPECT_EQ(outcome.status, 7);
    EXPECT_THAT(outcome.errors, HasSubstr("2 of 4 files done"));
    EXPECT_THAT(outcome.errors, HasSubstr("  c.mov: cannot read"));
    EXPECT_THAT(outcome.errors, HasSubstr("  missing.mp4: cannot open"));
    EXPECT_EQ(studio.frames("steady/a.mp4"), 20U);
    EXPECT_EQ(studio.frames("steady/b.mkv"), 20U);
    EXPECT_THAT(
        run_shell(studio, "mkdir d; cp a.mp4 d; \"$PROGRAM\" --output-dir x a.mp4 d/a.mp4").errors,
        HasSubstr("would both become"));
}

// Standard input is a terminal.
TEST(Batch, EndsItsProcessesWithItself) {
    const Studio studio(20);
    for (const char* signals : {"kill -TERM $program;", "kill -TERM $program; kill $program;"}) {
        SCOPED_TRACE(signals);
        write_file(studio.file("batch"), interrupted("--output-dir out fifo < /dev/tty", signals));
        const Outcome outcome =
            run_shell(studio, "export PROGRAM; script -qec 'sh ./batch' /dev/null < /dev/null >&2");
        EXPECT_THAT(outcome.errors, HasSubstr("status 130"));
        EXPECT_THAT(outcome.errors, testing::Not(HasSubstr(".part")));
    }
}

TEST(Media, MakesComparisonPlotAndFigures) {
    const Studio studio;
    write_file(studio.file("no-fonts"), "<fontconfig></fontconfig>");
    const Outcome outcome = run_shell(
        studio,
        "\"$PROGRAM\" -q shaky.y4m out.mp4 --json out.json --plot out.png --compare both.mkv &&"
        "FONTCONFIG_FILE=no-fonts \"$PROGRAM\" -q shaky.y4m out.mkv --compare plain.mkv");
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    const auto json = nlohmann::json::parse(read_file(studio.file("out.json")));
    EXPECT_EQ(json["frames"], 45);
    EXPECT_EQ(json["pixel_format"], "yuv420p");
    EXPECT_EQ(json["engine"], "native");
    EXPECT_EQ(json["sampling"], "sharp");
    EXPECT_LT(json["shake"]["residual_db"], -3);
    for (const char* comparison : {"both.mkv", "plain.mkv"}) {
        EXPECT_EQ(studio.size(comparison), "width=640|height=240\n");
        EXPECT_EQ(studio.frames(comparison), 45U);
    }
    EXPECT_EQ(studio.size("out.png"), "width=1200|height=1050\n");
}

// Nothing is worse than "shake 0.00 before, 0.00 after" of a clip that shakes unseen.
TEST(Media, TellsThatNoMotionWasFound) {
    const Studio studio;
    studio.make("-f lavfi -i color=gray:s=320x240:r=30:d=1 grey.y4m");
    const Outcome outcome = run_program(studio, "grey.y4m out.mp4 --json out.json --plot out.svg");
    ASSERT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_THAT(outcome.errors, HasSubstr("note: no motion was found"));
    EXPECT_THAT(outcome.errors, HasSubstr("shake not found\n"));
    const auto json = nlohmann::json::parse(read_file(studio.file("out.json")));
    EXPECT_EQ(json["motion_found"], false);
    EXPECT_EQ(json["failed_motions"], 29);
    EXPECT_TRUE(json["shake"]["before_px_rms"].is_null());
    EXPECT_TRUE(json["reduction_db"]["jitter"].is_null());
}

}  // namespace
