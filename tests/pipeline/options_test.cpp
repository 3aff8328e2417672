// What may be chosen for a stream, and what it does to the delay.

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

#include "tests/pipeline/stream_helpers.h"
#include "tests/support/log_capture.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

StabilizerPtr make_with(const VideoStabilizerOptions* options) {
    EXPECT_EQ(video_stabilizer_module_init(), 0);
    return StabilizerPtr(video_stabilizer_create_with_options(
        WIDTH, HEIGHT, WIDTH, WIDTH / 2, PIX_FMT_YUV420P, 1, nullptr, options));
}

VideoStabilizerOptions defaults() {
    VideoStabilizerOptions options;
    video_stabilizer_options_init(&options);
    return options;
}

TEST(Options, AreRefusedOutsideTheirRanges) {
    using Change = std::function<void(VideoStabilizerOptions&)>;
    const struct {
        const char* name;
        bool good;
        Change change;
    } cases[] = {
        {"defaults", true, [](auto&) {}},
        {"shortest look-ahead", true, [](auto& o) { o.look_ahead = 1; }},
        {"longest look-ahead", true, [](auto& o) { o.look_ahead = 120; }},
        {"no look-ahead", false, [](auto& o) { o.look_ahead = 0; }},
        {"look-ahead too long", false, [](auto& o) { o.look_ahead = 121; }},
        {"narrow weights", true, [](auto& o) { o.sigma = 0.25F; }},
        {"wide weights", true, [](auto& o) { o.sigma = 1000; }},
        {"weights too narrow", false, [](auto& o) { o.sigma = 0.2F; }},
        {"weights too wide", false, [](auto& o) { o.sigma = 1001; }},
        {"negative weights", false, [](auto& o) { o.sigma = -1; }},
        {"no number", false, [](auto& o) { o.sigma = std::nanf(""); }},
        {"smallest crop", true, [](auto& o) { o.crop_ratio = 0.5F; }},
        {"no crop", true, [](auto& o) { o.crop_ratio = 1; }},
        {"crop too small", false, [](auto& o) { o.crop_ratio = 0.49F; }},
        {"crop beyond the picture", false, [](auto& o) { o.crop_ratio = 1.01F; }},
        {"guard", true, [](auto& o) { o.edge_guard = o.whole_shift = 1; }},
        {"guard without the whole shift", false, [](auto& o) { o.edge_guard = 1; }},
        {"not a switch", false, [](auto& o) { o.scene_cuts = 2; }},
        {"part of the frame", true, [](auto& o) { o.picture_width = o.picture_height = 100; }},
        {"more than the frame", false,
         [](auto& o) { o.picture_width = WIDTH + 1, o.picture_height = HEIGHT; }},
        {"half a size", false, [](auto& o) { o.picture_width = 100; }},
        {"not initialised", false, [](auto& o) { o.size = 0; }},
    };
    make_stabilizer();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        VideoStabilizerOptions options = defaults();
        c.change(options);
        clear_log();
        EXPECT_EQ(make_with(&options) != nullptr, c.good);
        if (!c.good) {
            ASSERT_EQ(log_lines().size(), 1U);
            EXPECT_EQ(log_lines()[0].tag, "video_stabilizer");
            EXPECT_EQ(log_lines()[0].priority, 6);
        }
    }
    EXPECT_NE(make_with(nullptr), nullptr);
}

// Programs may have been built with another idea of the record.
TEST(Options, AreReadFromRecordsOfOtherVersions) {
    struct Newer {
        VideoStabilizerOptions known;
        std::int32_t unknown;
    } newer{};
    const auto size = static_cast<std::int32_t>(sizeof newer);
    std::memset(&newer, 0x55, sizeof newer);
    video_stabilizer_options_init(&newer.known, size);
    EXPECT_EQ(newer.known.size, size);
    EXPECT_EQ(newer.unknown, 0);
    EXPECT_NE(make_with(&newer.known), nullptr);
    newer.unknown = 1;
    EXPECT_EQ(make_with(&newer.known), nullptr) << "it asks for what the library does not know";
}

TEST(Options, OfEveryStrengthAreAccepted) {
    VideoStabilizerOptions options;
    for (const auto s :
         {STABILIZER_GENTLE, STABILIZER_STANDARD, STABILIZER_STRONG, STABILIZER_MAXIMUM}) {
        EXPECT_EQ(video_stabilizer_options_for_strength(&options, s), 0);
        EXPECT_NE(make_with(&options), nullptr);
    }
    EXPECT_EQ(
        video_stabilizer_options_for_strength(&options, static_cast<VideoStabilizerStrength>(9)),
        -1);
    EXPECT_EQ(options.look_ahead, 10);
}

TEST(Options, LookAheadIsTheDelay) {
    for (const int look_ahead : {1, 4, 25}) {
        for (const std::int32_t guard : {0, 1}) {
            SCOPED_TRACE(look_ahead);
            VideoStabilizerOptions options = defaults();
            options.look_ahead = look_ahead;
            options.edge_guard = options.whole_shift = options.scene_cuts = options.repair_motions =
                guard;
            const StabilizerPtr s = make_with(&options);
            ASSERT_NE(s, nullptr);
            struct Seen {
                int newest;
                std::vector<int> known_before;  // by frame: the newest frame at its correction
            } seen{0, {}};
            VideoStabilizerObserver observer{};
            observer.ctx = &seen;
            observer.on_motion = [](void* ctx, std::int32_t frame, const float*, const MotionLog*) {
                static_cast<Seen*>(ctx)->newest = frame + 1;
            };
            observer.on_report = [](void* ctx, const VideoStabilizerReport*) {
                auto& record = *static_cast<Seen*>(ctx);
                record.known_before.push_back(record.newest);
            };
            video_stabilizer_set_observer(s.get(), &observer);
            ASSERT_EQ(video_stabilizer_start(s.get()), 0);
            constexpr int FRAMES = 40;
            EXPECT_EQ(run_stream(s.get(), FRAMES), numbers_up_to(FRAMES));
            ASSERT_EQ(seen.known_before.size(), static_cast<std::size_t>(FRAMES));
            for (int frame = 0; frame < FRAMES; ++frame) {
                EXPECT_EQ(seen.known_before[static_cast<std::size_t>(frame)],
                          std::min(frame + look_ahead, FRAMES - 1));
            }
        }
    }
}

}  // namespace
