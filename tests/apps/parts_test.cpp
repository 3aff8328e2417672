// SPDX-License-Identifier: Apache-2.0

// Parts of the program: pictures on their way in (made-up ones, YUV4MPEG2, FFmpeg's), and
// the path that is told of them.

#include <gmock/gmock.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "apps/stabilize_video/media/media_source.h"
#include "apps/stabilize_video/pictures/pixel_formats.h"
#include "apps/stabilize_video/results/path_follower.h"
#include "common/synthetic/camera_path.h"
#include "common/synthetic/scene.h"
#include "common/video_io/output_file.h"
#include "tests/apps/run_program.h"

using namespace videostabilizer;

namespace {

using testing::HasSubstr;

std::uint64_t fnv_1a(const std::vector<unsigned char>& bytes) {
    return std::accumulate(
        bytes.begin(), bytes.end(), std::uint64_t{0xcbf29ce484222325U},
        [](std::uint64_t hash, unsigned char byte) { return (hash ^ byte) * 0x100000001b3U; });
}

// Results on different machines are compared, so every machine must make the same clip. Other values
// mean another clip: then results before and after cannot be compared.
TEST(ShakyClip, IsTheSameEverywhere) {
    synthetic::ClipSettings plain;
    plain.camera.width = 97;
    plain.camera.height = 61;
    plain.noise = 3;
    synthetic::ClipSettings hard = plain;
    hard.camera.whip = 1;
    hard.foreground = 0.2;
    hard.scene_contrast = 0.5;
    hard.shutter = {0.5, 0.7, true};
    hard.actors = {0.3, 0.3, 0.4, 0.2, 0.3};
    hard.sensor = {0.8, 0.9, 0.2, 0.3, 10, 0.2, 100, 5, 12};
    const struct {
        const synthetic::ClipSettings& settings;
        std::uint64_t hash;
    } cases[] = {{plain, 10219615497223829076U}, {hard, 905734893486060761U}};
    for (const auto& c : cases) {
        const synthetic::ShakyClip clip(c.settings);
        const PictureBuffer picture(video_io::make_y4m_header(clip.width(), clip.height(), "30:1"));
        clip.render(100, picture.planes);
        EXPECT_EQ(fnv_1a(picture.pixels), c.hash);
    }
}

// Each line of a rolling shutter is the one that a camera without has at that moment; the frame rate
// of that one is so high that it has a frame for every line.
TEST(ShakyClip, RollsLineByLine) {
    for (const bool by_columns : {false, true}) {
        for (const double readout : {1.0, -1.0}) {
            SCOPED_TRACE(testing::Message() << readout << (by_columns ? " columns" : " rows"));
            constexpr int SIDE = 31;
            synthetic::ClipSettings settings;
            settings.camera.width = settings.camera.height = SIDE;
            settings.camera.shake = 10;
            settings.actors.person = 0.5;
            synthetic::ClipSettings fast = settings;
            fast.camera.fps *= SIDE;
            settings.shutter = {0, readout, by_columns};
            const auto header = video_io::make_y4m_header(SIDE, SIDE, "30:1");
            const PictureBuffer rolled(header);
            const PictureBuffer whole(header);
            synthetic::ShakyClip(settings).render(7, rolled.planes);
            const synthetic::ShakyClip clip(fast);
            for (int i = 0; i < SIDE; ++i) {
                clip.render(7 * SIDE + static_cast<int>(readout) * (i - SIDE / 2), whole.planes);
                for (int k = 0; k < SIDE; ++k) {
                    const int sample = by_columns ? k * SIDE + i : i * SIDE + k;
                    EXPECT_NEAR(rolled.planes.y[sample], whole.planes.y[sample], 1) << i;
                }
            }
        }
    }
}

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
        {magic + "W2 H2 C420p11\n", "'420p11', but only 420, 422"},
        {magic + "W2 H2 C420jpeg10\n", "'420jpeg10'"},
        {magic + "W2 H2 XYSCSS=440\n", "'440'"},
        {magic + "W3 H2 Cmono12\nFRAME\n12345", "cut short: 5 of 12 bytes"},
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

// A sanitizer, which has its own allocator, reports leaks at the end.
TEST(MediaSource, LosesNoMemoryOnAStreamThatCannotBeUsed) {
    constexpr char WAV[] =
        "RIFF\x64\x1f\0\0WAVEfmt \x10\0\0\0\1\0\1\0\x40\x1f\0\0\x40\x1f\0\0\1\0\x8\0data\x40\x1f\0";
    const Folder folder;
    apps::show_ffmpeg_log(false);
    for (const std::string& bytes :
         {std::string(WAV, sizeof WAV) + std::string(8000, '\x80'), std::string("some text\n")}) {
        write_file(folder.file("in"), bytes);
        const auto open = [&] {
            auto stream = std::make_unique<video_io::FdSource>(folder.file("in"));
            EXPECT_THROW(apps::MediaSource(std::move(stream), {}), video_io::InputError);
        };
        open();  // FFmpeg's own allocations
        const std::size_t before = mallinfo2().uordblks;
        for (int i = 0; i < 20; ++i) {
            open();
        }
        EXPECT_LT(mallinfo2().uordblks, before + 100000);
    }
}

TEST(PixelFormats, AreTakenAsTheyAreOrConvertedToTheNearest) {
    const struct {
        const char* name;
        PixelLayout layout;  // bit_depth 0: not taken
        const char* planar;
    } cases[] = {
        {"yuv420p", {CHROMA_420, CHROMA_SITING_TOP, 8, 0, 0, 0, {}}, "yuv420p"},
        {"nv21", {CHROMA_420, CHROMA_SITING_TOP, 8, 1, 0, 0, {}}, "yuv420p"},
        {"nv16", {CHROMA_422, CHROMA_SITING_TOP, 8, 1, 0, 0, {}}, "yuv422p"},
        {"nv20le", {CHROMA_422, CHROMA_SITING_TOP, 10, 1, 0, 0, {}}, "yuv422p10le"},
        {"p010le", {CHROMA_420, CHROMA_SITING_TOP, 10, 1, 1, 0, {}}, "yuv420p10le"},
        {"p016le", {CHROMA_420, CHROMA_SITING_TOP, 16, 1, 0, 0, {}}, "yuv420p16le"},
        {"yuv444p9le", {CHROMA_444, CHROMA_SITING_TOP, 9, 0, 0, 0, {}}, "yuv444p9le"},
        {"gray", {CHROMA_NONE, CHROMA_SITING_TOP, 8, 0, 0, 0, {}}, "gray"},
        {"gray14le", {CHROMA_NONE, CHROMA_SITING_TOP, 14, 0, 0, 0, {}}, "gray14le"},
        {"yuv420p10be", {}, "yuv420p10le"},
        {"yuva422p12le", {CHROMA_422, CHROMA_SITING_TOP, 12, 0, 0, 1, {}}, "yuv422p12le"},
        {"ya8", {}, "gray"},
        {"yuv411p", {CHROMA_411, CHROMA_SITING_TOP, 8, 0, 0, 0, {}}, "yuv411p"},
        {"yuv440p", {}, "yuv444p"},
        {"yuyv422", {}, "yuv422p"},
        {"y210le", {}, "yuv422p10le"},
        {"rgb565le", {}, "yuv444p"},
        {"x2rgb10le", {}, "yuv444p10le"},
        {"gbrpf32le", {}, "yuv444p16le"},
        {"pal8", {}, "yuv444p"},
        {"monow", {}, "gray"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const AVPixelFormat format = av_get_pix_fmt(c.name);
        const PixelLayout layout =
            apps::layout_of(format, AVCHROMA_LOC_TOP).value_or(PixelLayout{});
        EXPECT_TRUE(layout.chroma == c.layout.chroma && layout.bit_depth == c.layout.bit_depth &&
                    layout.siting == c.layout.siting && layout.high_bits == c.layout.high_bits &&
                    layout.semi_planar == c.layout.semi_planar && layout.alpha == c.layout.alpha);
        EXPECT_EQ(apps::name_of(apps::planar_format_for(format)), c.planar);
    }
    const struct {
        AVChromaLocation from;
        apps::Orientation orientation;
        AVChromaLocation to;
    } turns[] = {{AVCHROMA_LOC_UNSPECIFIED, {1, false}, AVCHROMA_LOC_TOP},
                 {AVCHROMA_LOC_BOTTOMLEFT, {1, false}, AVCHROMA_LOC_TOPLEFT},
                 {AVCHROMA_LOC_LEFT, {1, true}, AVCHROMA_LOC_TOP},
                 {AVCHROMA_LOC_LEFT, {0, true}, AVCHROMA_LOC_UNSPECIFIED},
                 {AVCHROMA_LOC_CENTER, {3, true}, AVCHROMA_LOC_CENTER}};
    for (const auto& c : turns) {
        EXPECT_EQ(apps::turned(c.from, c.orientation), c.to);
    }
}

void to_matrix(const synthetic::Affine& m, float matrix[9]) {
    const double values[9] = {m.a, m.b, m.c, m.d, m.e, m.f, 0, 0, 1};
    std::copy(values, values + 9, matrix);
}

void expect_view(const apps::CameraView& view, const synthetic::Pose& pose,
                 const synthetic::Pose& start) {
    // The poses are those of a point half a pixel beside the centre that is followed.
    EXPECT_NEAR(view.x, pose.x - start.x, 0.1);
    EXPECT_NEAR(view.y, pose.y - start.y, 0.1);
    EXPECT_NEAR(view.angle, pose.angle - start.angle, 2e-5);
    EXPECT_NEAR(view.zoom, pose.zoom / start.zoom, 1e-4);
}

// Given the true motions of a known path and corrections onto its steady path, it finds both.
TEST(PathFollower, FollowsTheCameraAndTheSteadyPictures) {
    const synthetic::CameraPath path({640, 480});
    constexpr double CROP = 0.9;
    std::vector<apps::FollowedFrame> frames;
    apps::PathFollower follower(640, 480);
    follower.add([&](const apps::FollowedFrame& frame) { frames.push_back(frame); });
    const videostabilizer::VideoStabilizerObserver observer = follower.observer(CROP);
    const synthetic::Pose start = path.shaky(0);
    for (int i = 0; i < 60; ++i) {
        SCOPED_TRACE(i);
        const synthetic::Pose shaky = path.shaky(i);
        synthetic::Pose steady = path.steady(i);
        float matrix[9];
        if (i > 0) {
            const videostabilizer::MotionLog log = {100 + i, 90, 0.5F, 0};
            to_matrix(synthetic::true_motion(path.shaky(i - 1), shaky, 640, 480), matrix);
            observer.on_motion(observer.ctx, i - 1, matrix, &log);
        }
        to_matrix(synthetic::true_motion(shaky, steady, 640, 480), matrix);
        observer.on_correction(observer.ctx, i, matrix);
        videostabilizer::VideoStabilizerReport report{};
        report.frame = i;
        observer.on_report(observer.ctx, &report);

        const apps::FollowedFrame& frame = frames.at(static_cast<std::size_t>(i));
        EXPECT_EQ(frame.report.frame, i);
        EXPECT_EQ(frame.log.npoints, i == 0 ? 0 : 100 + i);
        expect_view(frame.shaky, shaky, start);
        // The crop reduces the shift.
        steady.x = shaky.x + CROP * (steady.x - shaky.x);
        steady.y = shaky.y + CROP * (steady.y - shaky.y);
        expect_view(frame.steady, steady, start);
    }
}

TEST(PathFollower, WritesCsv) {
    const Folder folder;
    video_io::OutputFile file(folder.file("path.csv"));
    apps::PathCsv csv(file.sink());
    videostabilizer::VideoStabilizerReport report{};
    report.crop = 0.9F;
    csv.write({{1.5, -2, 0.5, 1}, {0, 0, 0, 1.25}, {100, 90, 0.5F, 1}, report});
    file.commit();
    const std::string text = read_file(folder.file("path.csv"));
    EXPECT_EQ(text.substr(text.find('\n') + 1),
              "0,1.5000,-2.0000,28.647890,1.00000000,0.0000,0.0000,0.000000,1.25000000,90,100,"
              "0.5000,1,0.900000,0.0000,0.0000\n");
}

}  // namespace
