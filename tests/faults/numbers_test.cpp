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
void expect_every_frame(Geometry g, const VideoStabilizerOptions& options, Pixel pixel, int count,
                        bool has_strange_motions = false) {
    VideoStabilizerUser user = {&g, make_untouched};
    const StabilizerPtr s = make_stabilizer(g, false, &options, &user);
    ASSERT_NE(s, nullptr);
    const Ending ending = run_stream(
        s.get(), count, [&](int number) { return make_frame(number, g, pixel); },
        expect_well_filled);
    EXPECT_EQ(ending.popped, count);
    EXPECT_EQ(ending.motions.size() + 1, static_cast<std::size_t>(count));
    EXPECT_EQ(ending.reports.size(), static_cast<std::size_t>(count));
    EXPECT_EQ(std::all_of(ending.motions.begin(), ending.motions.end(), is_finite),
              !has_strange_motions);
    EXPECT_TRUE(std::all_of(ending.corrections.begin(), ending.corrections.end(), is_finite));
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
