// SPDX-License-Identifier: Apache-2.0

// Pictures, options and geometry at the edge of what the numbers can hold.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <vector>

#include "tests/faults/leak_test.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

constexpr unsigned char UNTOUCHED = 0xA5;

using Numbers = LeakTest;

// Squares on a line, of which the detector finds the same corner of each: they leave a motion
// undetermined.
int squares(int along, int across) {
    constexpr int SPACING = 64;
    constexpr int SIDE = 12;
    const bool inside = (along + 10 * SPACING) % SPACING < SIDE && across >= 0 && across < SIDE;
    return inside ? 220 : 40;
}

const struct {
    const char* name;
    Pixel pixel;
} PICTURES[] = {
    {"black", [](int, int, int) { return 0; }},
    {"saturated", [](int, int, int) { return 255; }},
    {"black and saturated in turn", [](int, int, int frame) { return frame % 2 * 255; }},
    {"noise", [](int x, int y, int frame) { return texture(8 * x, 8 * y, frame); }},
    {"columns of one pixel", [](int x, int, int frame) { return (x + frame) % 2 * 255; }},
    {"rows of one pixel", [](int, int y, int frame) { return (y + frame) % 2 * 255; }},
    {"checks of one pixel", [](int x, int y, int frame) { return (x + y + frame) % 2 * 255; }},
    {"a cut every third frame",
     [](int x, int y, int frame) { return texture(x + frame, y, frame / 3); }},
    {"shifts that grow beyond the tracker",
     [](int x, int y, int frame) { return texture(x + frame * frame, y - 3 * frame, 0); }},
    {"zooms to a point",
     [](int x, int y, int frame) { return texture(x * (1 + frame) / 4, y * (1 + frame) / 4, 0); }},
    {"mirrored every frame",
     [](int x, int y, int frame) { return texture(frame % 2 == 0 ? x : 500 - x, y, 0); }},
    {"a still", [](int x, int y, int) { return texture(x, y, 0); }},
    {"slow motion", [](int x, int y, int frame) { return texture(8 * x + frame, 8 * y, 0); }},
    {"slide show", [](int x, int y, int frame) { return texture(x, y, frame / 20); }},
    {"time-lapse: every frame elsewhere",
     [](int x, int y, int frame) { return texture(x + 977 * frame, y - 613 * frame, frame); }},
    {"all foreground",
     [](int x, int y, int frame) {  // squares that go their own ways
         const int way = (x / 48 * 7 + y / 48 * 5) % 9;
         return texture(x + (way % 3 - 1) * 3 * frame, y + (way / 3 - 1) * 3 * frame, 0);
     }},
    {"corners in one row", [](int x, int y, int frame) { return squares(x - frame, y - 80); }},
};

bool is_finite(const Matrix& m) {
    return std::all_of(m.begin(), m.end(), [](float element) { return std::isfinite(element); });
}

// Makes an output frame in which nothing is written yet.
Frame* make_untouched(void* geometry) {
    const Geometry& g = *static_cast<Geometry*>(geometry);
    Frame* const frame = blank_frame(g);
    std::memset(frame->plane_y, UNTOUCHED, g.luma_bytes() + g.chroma_bytes());
    return frame;
}

void expect_well_filled(const Frame* frame) {
    std::int64_t unwritten = 0;
    for (int y = 0; y < frame->height; ++y) {
        const unsigned char* const row =
            frame->plane_y + static_cast<std::ptrdiff_t>(y) * frame->stride_y;
        unwritten += std::count(row, row + frame->width, UNTOUCHED);
    }
    EXPECT_LT(unwritten, std::int64_t{frame->width} * frame->height / 2);
}

// Runs a clip and looks at what comes out.
Ending expect_every_frame(Geometry g, const VideoStabilizerOptions& options, Pixel pixel, int count,
                          bool has_strange_motions = false) {
    VideoStabilizerUser user = {&g, make_untouched};
    const StabilizerPtr s = make_stabilizer(g, false, &options, &user);
    if (s == nullptr) {
        ADD_FAILURE() << "no stream";
        return {};
    }
    Ending ending = run_stream(
        s.get(), count, [&](int number) { return make_frame(number, g, pixel); },
        expect_well_filled);
    EXPECT_EQ(ending.popped, count);
    EXPECT_EQ(ending.motions.size() + 1, static_cast<std::size_t>(count));
    EXPECT_EQ(ending.reports.size(), static_cast<std::size_t>(count));
    EXPECT_EQ(std::all_of(ending.motions.begin(), ending.motions.end(), is_finite),
              !has_strange_motions);
    EXPECT_TRUE(std::all_of(ending.corrections.begin(), ending.corrections.end(), is_finite));
    return ending;
}

TEST_F(Numbers, EveryPictureComesOutWithAllOptions) {
    VideoStabilizerOptions longest = options_for(STABILIZER_MAXIMUM);
    longest.look_ahead = 120;
    longest.sigma = 1000;
    longest.crop_ratio = 1;
    VideoStabilizerOptions shortest = options_for(STABILIZER_STANDARD);
    shortest.look_ahead = 1;
    shortest.sigma = 0.25F;
    shortest.crop_ratio = 0.5F;
    shortest.picture_width = shortest.picture_height = 16;
    for (const VideoStabilizerOptions& options :
         {options_for(STABILIZER_GENTLE), options_for(STABILIZER_STANDARD),
          options_for(STABILIZER_MAXIMUM), longest, shortest}) {
        for (const auto& picture : PICTURES) {
            SCOPED_TRACE(testing::Message()
                         << picture.name << ", look-ahead " << options.look_ahead);
            expect_every_frame(packed(896, 160), options, picture.pixel, 14);
        }
    }
}

// The steady picture lies within its source, and is enlarged by no more than crop and zoom have a share in.
void expect_within(const Ending& ending, int width, int height) {
    constexpr double ROUNDING = 0.05;   // pixels, of single precision
    constexpr double ZOOM_SHARE = 0.2;  // of what is cropped
    for (std::size_t i = 0; i < ending.corrections.size(); ++i) {
        const Matrix& m = ending.corrections[i];
        const auto at = [&m](std::size_t k) { return static_cast<double>(m[k]); };
        const double crop = static_cast<double>(ending.reports[i].crop);
        const double det = at(0) * at(4) - at(1) * at(3);
        ASSERT_GT(crop, 0.5 - 1e-6) << i;
        ASSERT_LE(crop, 1) << i;
        ASSERT_NEAR(0.5 * std::log(det), 0, ZOOM_SHARE * (1 - crop) + 1e-4) << i;
        for (const double side_x : {-0.5, 0.5}) {
            for (const double side_y : {-0.5, 0.5}) {
                const double x = 0.5 * (width - 1) + side_x * crop * (width - 1) - at(2);
                const double y = 0.5 * (height - 1) + side_y * crop * (height - 1) - at(5);
                const double from_x = (at(4) * x - at(1) * y) / det;
                const double from_y = (at(0) * y - at(3) * x) / det;
                ASSERT_TRUE(from_x >= -ROUNDING && from_x <= width - 1 + ROUNDING &&
                            from_y >= -ROUNDING && from_y <= height - 1 + ROUNDING)
                    << i << ": " << from_x << ", " << from_y;
            }
        }
    }
}

TEST_F(Numbers, TheStrongPathRunsAwayInNoPicture) {
    constexpr Geometry G = packed(320, 192);
    for (const bool adapts : {false, true}) {
        VideoStabilizerOptions options = options_for(STABILIZER_STRONG);
        options.engine = STABILIZER_ENGINE_NATIVE;
        options.sampling = STABILIZER_SAMPLING_SHARP;
        options.auto_crop = adapts ? 1 : 0;
        options.shutter = adapts ? STABILIZER_SHUTTER_AUTO : STABILIZER_SHUTTER_OFF;
        for (const auto& picture : PICTURES) {
            SCOPED_TRACE(testing::Message() << picture.name << ", crop " << adapts);
            expect_within(expect_every_frame(G, options, picture.pixel, 70), G.width, G.height);
        }
    }
}

// An estimator that is wrong beyond reason, in the place of the library's own.
int strange_estimates = 0;

void estimate_strangely(SimpleLA::Mat<float>& motion, MotionLog& log,
                        std::vector<KeyPoint>& /*src*/, std::vector<KeyPoint>& /*dst*/,
                        const RansacParams& /*params*/) {
    constexpr float INFINITE = std::numeric_limits<float>::infinity();
    constexpr float NOT_A_NUMBER = std::numeric_limits<float>::quiet_NaN();
    constexpr float LARGEST = std::numeric_limits<float>::max();
    constexpr float SMALLEST = std::numeric_limits<float>::denorm_min();
    constexpr float MOTIONS[][9] = {
        {1, 0, 3, 0, 1, -2, 0, 0, 1},                       // a sound one
        {1e-6F, 0, 3, 0, 1e-6F, 3, 0, 0, 1},                // to a point, nearly
        {0, 0, 3, 0, 0, 3, 0, 0, 1},                        // entirely
        {2, 1, 3, 4, 2, 3, 0, 0, 1},                        // to a line
        {1e20F, 0, 0, 0, 1e20F, 0, 0, 0, 1},                //
        {1, 0, LARGEST, 0, 1, LARGEST, 0, 0, 1},            //
        {SMALLEST, 0, 0, 0, SMALLEST, 0, 0, 0, 1},          //
        {NOT_A_NUMBER, 0, 0, 0, 1, 0, 0, 0, 1},             //
        {1, 0, NOT_A_NUMBER, 0, 1, NOT_A_NUMBER, 0, 0, 1},  //
        {1, 0, INFINITE, 0, 1, -INFINITE, 0, 0, 1},         //
        {INFINITE, 0, 0, 0, INFINITE, 0, 0, 0, 1},          //
    };
    std::copy_n(MOTIONS[strange_estimates++ / 9 % std::size(MOTIONS)], 9, motion.data);
    log = {50, 50, 1, 0};
}

TEST_F(Numbers, StrangeMotionsGiveFiniteCorrections) {
    // The worker of a stream with the stated stage calls the exported name, like any host.
    ASSERT_GT(redirect_calls(LIBRARY, "*estimateGlobalMotionRansac*",
                             reinterpret_cast<void*>(estimate_strangely)),
              0);
    for (int strength = STABILIZER_GENTLE; strength <= STABILIZER_MAXIMUM; ++strength) {
        SCOPED_TRACE(strength);
        strange_estimates = 0;
        // With the edge guard only motions that a camera may make are used.
        VideoStabilizerOptions options = options_for(strength);
        options.engine = STABILIZER_ENGINE_OPENCL;
        options.sampling = STABILIZER_SAMPLING_STATED;
        expect_every_frame(packed(64, 64), options, PICTURES[0].pixel, 120,
                           strength == STABILIZER_GENTLE);
    }
    redirect_calls(LIBRARY, "*estimateGlobalMotionRansac*",
                   reinterpret_cast<void*>(estimateGlobalMotionRansac));
}

TEST_F(Numbers, GeometryFromTheSmallestToTheWidest) {
    constexpr int WIDEST = 8 << 20;  // bytes a row: 16 rows of them are the largest plane
    const Geometry cases[] = {
        packed(16, 16),
        packed(16, 16, PIX_FMT_YUV420SP_0),
        packed(10'000, 16),
        packed(16, 10'000),
        packed(10'000, 1200),                            // decimated by 4
        packed(10'016, 502, PIX_FMT_YUV420SP_1),         // rows of 32 pixels
        {16, 16, WIDEST, 8, PIX_FMT_YUV420P},            //
        {16, 16, 1 << 20, 1 << 19, PIX_FMT_YUV420SP_4},  //
        {48, 48, 97, 53, PIX_FMT_YUV420P},               // strides of no particular kind
    };
    for (const Geometry& g : cases) {
        SCOPED_TRACE(testing::Message() << g.width << " x " << g.height << ", strides "
                                        << g.stride_y << ", " << g.stride_uv);
        const bool large = g.luma_bytes() > std::size_t{1} << 20;
        for (const int strength : {STABILIZER_GENTLE, STABILIZER_MAXIMUM}) {
            expect_every_frame(g, options_for(strength), PICTURES[7].pixel, large ? 2 : 13);
        }
    }
}

}  // namespace
