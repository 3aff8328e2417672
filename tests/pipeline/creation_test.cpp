// SPDX-License-Identifier: Apache-2.0

// What a stabilizer is made of, and what is refused at creation and at push.

#include <array>
#include <cmath>
#include <cstddef>
#include <limits>

#include "tests/faults/leak_test.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

class Creation : public LeakTest {
  protected:
    void expect_refused(const Geometry& geometry, const VideoStabilizerOptions* options = nullptr,
                        std::size_t lines = 1) const {
        clear_log();
        EXPECT_EQ(make_stabilizer(geometry, true, options), nullptr);
        ASSERT_EQ(log_lines().size(), lines);
        EXPECT_EQ(log_lines().back().tag, "video_stabilizer");
        EXPECT_EQ(log_lines().back().priority, 6);
        expect_nothing_left();
    }
};
using Options = Creation;
using Push = Creation;

void set_engine(VideoStabilizerOptions& options, int engine, int sampling) {
    options.engine = static_cast<VideoStabilizerEngine>(engine);
    options.sampling = static_cast<VideoStabilizerSampling>(sampling);
}

TEST_F(Creation, ScalesTheAnalysisWithThePicture) {
    const int cases[][3] = {{640, 480, 1},   {1440, 1080, 1}, {480, 2000, 1},
                            {750, 500, 1},   {752, 500, 2},   {1280, 720, 2},
                            {1920, 1080, 4}, {1080, 1920, 4}, {3840, 2160, 4}};
    for (const auto& [width, height, scale] : cases) {
        SCOPED_TRACE(testing::Message() << width << " x " << height);
        const StabilizerPtr s = make_stabilizer(packed(width, height));
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(s->scale, scale);
        const int border = scale == 4 ? 16 : 32;
        EXPECT_EQ(s->fast_params.cell_size, 2 * border);
        EXPECT_EQ(s->fast_params.border_x, border);
        EXPECT_EQ(s->fast_params.border_y, border);
        EXPECT_EQ(s->fast_params.width, width / scale);
        EXPECT_EQ(s->lk_params.border_x, border);
        const float max_disp = scale == 1 ? 72.0F : (scale == 2 ? 75.0F : 64.0F);
        EXPECT_EQ(s->lk_params.max_disp_x, max_disp);
        EXPECT_EQ(s->lk_params.max_disp_y, max_disp);
        EXPECT_EQ(s->cur_luma - s->prev_luma, (width / scale) * (height / scale));
    }
}

TEST_F(Creation, RefusesWhatItCannotWorkOn) {
    constexpr int MOST = std::numeric_limits<int>::max();
    const struct {
        const char* name;
        Geometry geometry;
    } cases[] = {
        {"odd width", packed(65, 48)},
        {"odd height", packed(64, 47)},
        {"zero", packed(0, 0)},
        {"negative", {-64, 48, 64, 32, PIX_FMT_YUV420P}},
        {"below sixteen", packed(64, 14)},
        {"larger than any plane", packed(MOST - 1, MOST - 1)},
        {"luma stride below width", {64, 48, 62, 32, PIX_FMT_YUV420P}},
        {"planar chroma stride too small", {64, 48, 64, 31, PIX_FMT_YUV420P}},
        {"semi-planar chroma area too small", {72, 48, 80, 39, PIX_FMT_YUV420SP_0}},
        {"negative chroma stride", {64, 48, 64, -32, PIX_FMT_YUV420P}},
        {"luma just beyond the largest plane", {16, 16, (8 << 20) + 1, 8, PIX_FMT_YUV420P}},
        {"chroma beyond the largest plane", {64, 48, 64, MOST, PIX_FMT_YUV420P}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expect_refused(c.geometry);
    }
    // The OpenCL kernels for this width take the rows of pairs as packed; the native engine does not.
    const Geometry padded = {64, 48, 80, 32, PIX_FMT_YUV420SP_0};
    EXPECT_NE(make_stabilizer(padded), nullptr);
    VideoStabilizerOptions native = options_for(STABILIZER_GENTLE);
    set_engine(native, STABILIZER_ENGINE_NATIVE, STABILIZER_SAMPLING_SHARP);
    expect_refused(padded, &native);
    for (const int format : {-1, 3, 5, 6}) {
        SCOPED_TRACE(format);
        expect_refused(packed(64, 48, static_cast<PixFmt>(format)), &native);
        expect_refused(packed(64, 48, static_cast<PixFmt>(format)), nullptr, 2);
        EXPECT_EQ(count_log("Un-supported pixel format!!"), 1);
        EXPECT_EQ(count_log("Failed to init AffineTransformer!!"), 1);
    }
}

void set_auto_crop(VideoStabilizerOptions& o, int guard, float least, float most) {
    o.auto_crop = 1;
    o.edge_guard = o.whole_shift = guard;
    o.crop_least = least;
    o.crop_most = most;
}

TEST_F(Options, AreRefusedOutsideTheirRanges) {
    using Change = void (*)(VideoStabilizerOptions&, bool good);
    const Change changes[] = {
        [](auto& o, bool good) { o.look_ahead = good ? 1 : 0; },
        [](auto& o, bool good) { o.look_ahead = good ? 120 : 121; },
        [](auto& o, bool good) { o.sigma = good ? 0.25F : 0.2F; },
        [](auto& o, bool good) { o.sigma = good ? 1000.0F : 1001.0F; },
        [](auto& o, bool good) { o.sigma = good ? 0.0F : std::nanf(""); },
        [](auto& o, bool good) { o.crop_ratio = good ? 0.5F : 0.49F; },
        [](auto& o, bool good) { o.crop_ratio = good ? 1.0F : 1.01F; },
        [](auto& o, bool good) { o.edge_guard = 1, o.whole_shift = good ? 1 : 0; },
        [](auto& o, bool good) { o.scene_cuts = good ? 1 : 2; },
        [](auto& o, bool good) { o.repair_motions = good ? 1 : -1; },
        [](auto& o, bool good) { o.picture_width = good ? 16 : 15, o.picture_height = 16; },
        [](auto& o, bool good) { o.picture_width = 16, o.picture_height = good ? 16 : 15; },
        [](auto& o, bool good) { o.picture_width = WIDTH, o.picture_height = good ? HEIGHT : 0; },
        [](auto& o, bool good) { o.picture_width = WIDTH + !good, o.picture_height = HEIGHT; },
        [](auto& o, bool good) { set_engine(o, 2, good ? 1 : 3); },
        [](auto& o, bool good) { set_engine(o, good ? 1 : -1, 0); },
        [](auto& o, bool good) { set_engine(o, good ? 2 : 3, 2); },
        [](auto& o, bool good) { set_engine(o, 1, 2), o.threads = good ? 64 : 65; },
        [](auto& o, bool good) { set_auto_crop(o, good ? 1 : 0, 0, 0); },
        [](auto& o, bool good) { set_auto_crop(o, 1, good ? 0.5F : 0.49F, 0); },
        [](auto& o, bool good) { set_auto_crop(o, 1, 0, good ? 0.99F : 1.0F); },
        [](auto& o, bool good) { set_auto_crop(o, 1, good ? 0.7F : 0.71F, 0.7F); },
        [](auto& o, bool good) { o.auto_crop = o.edge_guard = o.whole_shift = good ? 1 : 2; },
        [](auto& o, bool good) { o.size = good ? o.size : 0; },
    };
    for (const Change& change : changes) {
        SCOPED_TRACE(&change - changes);
        VideoStabilizerOptions options = options_for(STABILIZER_GENTLE);
        change(options, true);
        EXPECT_NE(make_stabilizer(packed(), true, &options), nullptr);
        change(options, false);
        expect_refused(packed(), &options);
    }
    for (const int strength : {STABILIZER_STANDARD, STABILIZER_STRONG, STABILIZER_MAXIMUM}) {
        const VideoStabilizerOptions options = options_for(strength);
        EXPECT_NE(make_stabilizer(packed(), true, &options), nullptr);
    }
    VideoStabilizerOptions options;
    constexpr auto UNKNOWN = static_cast<VideoStabilizerStrength>(9);
    EXPECT_EQ(video_stabilizer_options_for_strength(&options, UNKNOWN), -1);
    EXPECT_EQ(options.look_ahead, 10);
}

// A program may have been built with another version of the record.
TEST_F(Options, AreReadFromRecordsOfOtherVersions) {
    alignas(VideoStabilizerOptions) std::array<unsigned char, 4097> bytes{};
    bytes.fill(0x55);
    const auto untouched = bytes;
    auto* const record = reinterpret_cast<VideoStabilizerOptions*>(bytes.data());
    for (const std::int32_t size : {-1, 0, 39, 4097}) {  // no record's
        EXPECT_EQ(video_stabilizer_options_for_strength(record, STABILIZER_STRONG, size), -1);
        video_stabilizer_options_init(record, size);
        EXPECT_EQ(bytes, untouched) << size;
    }
    constexpr std::size_t NEWER = sizeof(VideoStabilizerOptions) + 4;
    video_stabilizer_options_init(record, NEWER);
    EXPECT_EQ(record->size, static_cast<std::int32_t>(NEWER));
    EXPECT_EQ(bytes[NEWER - 1], 0);
    EXPECT_EQ(bytes[NEWER], 0x55);
    EXPECT_NE(make_stabilizer(packed(), true, record), nullptr);
    bytes[NEWER - 1] = 1;  // asks for what the library does not know
    expect_refused(packed(), record);
}

// Against the formula in the documentation.
TEST_F(Options, TakeTheMemoryThatIsDocumented) {
    const auto bytes_of = [](int look_ahead, int repair, int guard) {
        VideoStabilizerOptions options = options_for(STABILIZER_GENTLE);
        options.look_ahead = look_ahead;
        options.repair_motions = options.scene_cuts = repair;
        options.edge_guard = options.whole_shift = guard;
        const long before = live_bytes();
        const StabilizerPtr s = make_stabilizer(packed(), true, &options);
        return live_bytes() - before;
    };
    constexpr long MOTION = 350'000 + 2L * WIDTH * HEIGHT / 3;
    const long least = bytes_of(1, 0, 0);
    EXPECT_LE(bytes_of(120, 0, 0) - least, 300 * 119);
    EXPECT_LE(bytes_of(120, 1, 0) - least, 300 * 119 + 320 * 120 + MOTION);
    EXPECT_LE(bytes_of(120, 0, 1) - least, 300 * 119 + 320 * 120 + MOTION);
}

TEST_F(Push, RefusesFramesThatAreNotOfTheStream) {
    const struct {
        const char* name;
        Geometry geometry;
        bool has_chroma = true;
    } cases[] = {
        {"narrower", {WIDTH - 32, HEIGHT, WIDTH, WIDTH / 2, PIX_FMT_YUV420P}},
        {"wider", packed(WIDTH + 32, HEIGHT)},
        {"higher", packed(WIDTH, HEIGHT + 2)},
        {"larger luma plane", {WIDTH, HEIGHT, WIDTH + 16, WIDTH / 2, PIX_FMT_YUV420P}},
        {"larger chroma area", {WIDTH, HEIGHT, WIDTH, WIDTH, PIX_FMT_YUV420P}},
        {"rows too short for the picture", {WIDTH, HEIGHT, WIDTH - 1, WIDTH / 2, PIX_FMT_YUV420P}},
        {"other chroma layout", packed(WIDTH, HEIGHT, PIX_FMT_YUV420SP_0)},
        {"no chroma", packed(WIDTH, HEIGHT, PIX_FMT_LUMA_ONLY)},
        {"null chroma", packed(), false},
    };
    const StabilizerPtr s = make_stabilizer();
    const int blocks = live_blocks();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        clear_log();
        Frame* const frame = blank_frame(c.geometry);
        if (!c.has_chroma) {
            frame->plane_uv = nullptr;
        }
        EXPECT_EQ(video_stabilizer_push_frame(s.get(), frame), RESULT_FAILED);
        EXPECT_EQ(log_lines().size(), 1U);
        EXPECT_EQ(live_blocks(), blocks);
    }
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), nullptr), RESULT_NO_FRAME);
    EXPECT_EQ(run_stream(s.get(), 12).popped, 12);  // undisturbed
    const StabilizerPtr over = make_stabilizer();
    const auto push = [&] { return video_stabilizer_push_frame(over.get(), make_frame(0, SMALL)); };
    EXPECT_EQ(push(), RESULT_FAILED);
    video_stabilizer_stop(over.get());
    EXPECT_EQ(push(), RESULT_STOPPING);
    video_stabilizer_signal_eos(over.get());
    EXPECT_EQ(push(), RESULT_END_OF_STREAM);
}

}  // namespace
