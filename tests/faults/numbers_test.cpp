// Pictures and geometry at the edge of what the numbers can hold.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/library_calls.h"
#include "tests/faults/streams.h"

using namespace videostabilizer;
using namespace fault_support;

namespace {

constexpr unsigned char UNTOUCHED = 0xA5;

struct Geometry {
    int width, height, stride_y, stride_uv;
    PixFmt format;

    std::size_t luma_bytes() const { return static_cast<std::size_t>(stride_y) * rows(); }
    std::size_t chroma_bytes() const { return static_cast<std::size_t>(stride_uv) * rows(); }

  private:
    std::size_t rows() const { return static_cast<std::size_t>(height); }
};

Geometry packed(int width, int height, PixFmt format = PIX_FMT_YUV420P) {
    return {width, height, width, width / 2, format};
}

std::uint32_t noise(int x, int y, int frame) {
    std::uint32_t h = static_cast<std::uint32_t>(x) * 0x9E3779B1U ^
                      static_cast<std::uint32_t>(y) * 0x85EBCA77U ^
                      static_cast<std::uint32_t>(frame) * 0xC2B2AE3DU;
    h = (h ^ h >> 15) * 0x2C1B3C6DU;
    return (h ^ h >> 13) * 0x297A2D39U >> 24;
}

// Random grey on a lattice of 8 pixels, even in between: corners all over, which can be followed.
int texture(int x, int y, int scene) {
    constexpr int SPACING = 8;
    constexpr int FAR = SPACING << 12;  // keeps positions positive
    const int column = (x + FAR) / SPACING;
    const int row = (y + FAR) / SPACING;
    const int fx = (x + FAR) % SPACING;
    const int fy = (y + FAR) % SPACING;
    const auto lattice = [&](int c, int r) { return static_cast<int>(noise(c, r, scene)); };
    const int top = lattice(column, row) * (SPACING - fx) + lattice(column + 1, row) * fx;
    const int bottom =
        lattice(column, row + 1) * (SPACING - fx) + lattice(column + 1, row + 1) * fx;
    return (top * (SPACING - fy) + bottom * fy) / (SPACING * SPACING);
}

// Squares on a line, of which the detector finds the same corner of each: they leave a motion
// undetermined.
int squares(int along, int across) {
    constexpr int SPACING = 64;
    constexpr int SIDE = 12;
    const bool inside = (along + 10 * SPACING) % SPACING < SIDE && across >= 0 && across < SIDE;
    return inside ? 220 : 40;
}

struct Picture {
    const char* name;
    int (*pixel)(int x, int y, int frame);
};

const Picture PICTURES[] = {
    {"black", [](int, int, int) { return 0; }},
    {"saturated", [](int, int, int) { return 255; }},
    {"black and saturated in turn", [](int, int, int frame) { return frame % 2 * 255; }},
    {"noise", [](int x, int y, int frame) { return static_cast<int>(noise(x, y, frame)); }},
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

// An output frame with a guard behind each plane, made by the host.
struct GuardedFrames {
    static constexpr std::size_t GUARD = 64;
    Geometry geometry;
    std::vector<unsigned char> planes[64];
    int made = 0;

    static Frame* make(void* self) {
        auto& f = *static_cast<GuardedFrames*>(self);
        const Geometry& g = f.geometry;
        std::vector<unsigned char>& block = f.planes[f.made++ % 64];
        block.assign(g.luma_bytes() + g.chroma_bytes() + 2 * GUARD, UNTOUCHED);
        return frame_create(g.width, g.height, g.stride_y, g.stride_uv, g.format, block.data(),
                            block.data() + g.luma_bytes() + GUARD);
    }
};

bool is_untouched(const unsigned char* from, std::size_t count) {
    return std::all_of(from, from + count, [](unsigned char b) { return b == UNTOUCHED; });
}

// The share of the picture's luma that was not written.
double unwritten_share(const Frame& frame) {
    std::int64_t count = 0;
    for (int y = 0; y < frame.height; ++y) {
        const unsigned char* const row =
            frame.plane_y + static_cast<std::ptrdiff_t>(y) * frame.stride_y;
        count += std::count(row, row + frame.width, UNTOUCHED);
    }
    return static_cast<double>(count) / frame.width / frame.height;
}

Frame* make_picture(const Geometry& g, const Picture& picture, int number) {
    Frame* const frame =
        frame_create(g.width, g.height, g.stride_y, g.stride_uv, g.format, nullptr);
    std::memset(frame->plane_y, 0, g.luma_bytes());
    for (int y = 0; y < g.height; ++y) {
        for (int x = 0; x < g.width; ++x) {
            frame->plane_y[static_cast<std::ptrdiff_t>(y) * g.stride_y + x] =
                static_cast<unsigned char>(picture.pixel(x, y, number));
        }
    }
    std::memset(frame->plane_uv, 100, g.chroma_bytes());
    frame->timestamp = number;
    return frame;
}

struct Seen {
    int motions = 0;
    int motions_not_finite = 0;
    int corrections = 0;
    int corrections_not_finite = 0;
};

bool are_finite(const float m[9]) {
    return std::all_of(m, m + 9, [](float element) { return std::isfinite(element); });
}

// Runs a clip and looks at what comes out.
void expect_every_frame(const Geometry& g, const VideoStabilizerOptions& options,
                        const Picture& picture, int count, bool strange_motions = false) {
    GuardedFrames output{g, {}};
    VideoStabilizerUser user = {&output, GuardedFrames::make};
    ASSERT_EQ(video_stabilizer_module_init(), 0);
    const StabilizerPtr s(video_stabilizer_create_with_options(
        g.width, g.height, g.stride_y, g.stride_uv, g.format, 0, &user, &options));
    ASSERT_NE(s, nullptr);
    Seen seen;
    VideoStabilizerObserver observer{};
    observer.ctx = &seen;
    observer.on_motion = [](void* ctx, std::int32_t, const float m[9], const MotionLog*) {
        auto& to = *static_cast<Seen*>(ctx);
        ++to.motions;
        to.motions_not_finite += are_finite(m) ? 0 : 1;
    };
    observer.on_correction = [](void* ctx, std::int32_t, const float m[9]) {
        auto& to = *static_cast<Seen*>(ctx);
        ++to.corrections;
        to.corrections_not_finite += are_finite(m) ? 0 : 1;
    };
    video_stabilizer_set_observer(s.get(), &observer);
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    std::thread producer([&] {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_picture(g, picture, i)), 0);
        }
        video_stabilizer_signal_eos(s.get());
    });
    Frame* frame = nullptr;
    int popped = 0;
    while (video_stabilizer_pop_frame(s.get(), &frame) == RESULT_OK) {
        EXPECT_EQ(frame->timestamp, popped++);
        EXPECT_LT(unwritten_share(*frame), 0.5);
        EXPECT_TRUE(is_untouched(frame->plane_y + g.luma_bytes(), GuardedFrames::GUARD));
        EXPECT_TRUE(is_untouched(frame->plane_uv + g.chroma_bytes(), GuardedFrames::GUARD));
        frame_delete(frame);
    }
    producer.join();
    EXPECT_EQ(popped, count);
    EXPECT_EQ(seen.corrections, count);
    EXPECT_EQ(seen.motions, count - 1);
    EXPECT_EQ(seen.motions_not_finite > 0, strange_motions);
    EXPECT_EQ(seen.corrections_not_finite, 0);
}

VideoStabilizerOptions strength(int number) {
    VideoStabilizerOptions options;
    EXPECT_EQ(video_stabilizer_options_for_strength(&options,
                                                    static_cast<VideoStabilizerStrength>(number)),
              0);
    return options;
}

TEST(Numbers, EveryPictureComesOutWithEveryStrength) {
    for (const Picture& picture : PICTURES) {
        for (int number = STABILIZER_GENTLE; number <= STABILIZER_MAXIMUM; ++number) {
            SCOPED_TRACE(std::string(picture.name) + ", strength " + std::to_string(number));
            expect_every_frame(packed(896, 160), strength(number), picture, 14);
        }
    }
}

TEST(Numbers, TheExtremesOfEveryOption) {
    VideoStabilizerOptions longest = strength(STABILIZER_MAXIMUM);
    longest.look_ahead = 120;
    longest.sigma = 1000;
    longest.crop_ratio = 1;
    VideoStabilizerOptions shortest = strength(STABILIZER_STANDARD);
    shortest.look_ahead = 1;
    shortest.sigma = 0.25F;
    shortest.crop_ratio = 0.5F;
    shortest.picture_width = shortest.picture_height = 16;
    for (const VideoStabilizerOptions& options : {longest, shortest}) {
        for (const Picture& picture : PICTURES) {
            SCOPED_TRACE(std::string(picture.name) + ", look-ahead " +
                         std::to_string(options.look_ahead));
            expect_every_frame(packed(896, 160), options, picture, 8);
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
    constexpr float MOTIONS[][6] = {
        {1, 0, 3, 0, 1, -2},                       // a sound one
        {1e-6F, 0, 3, 0, 1e-6F, 3},                // to a point, nearly
        {0, 0, 3, 0, 0, 3},                        // entirely
        {2, 1, 3, 4, 2, 3},                        // to a line
        {1e20F, 0, 0, 0, 1e20F, 0},                //
        {1, 0, LARGEST, 0, 1, LARGEST},            //
        {SMALLEST, 0, 0, 0, SMALLEST, 0},          //
        {NOT_A_NUMBER, 0, 0, 0, 1, 0},             //
        {1, 0, NOT_A_NUMBER, 0, 1, NOT_A_NUMBER},  //
        {1, 0, INFINITE, 0, 1, -INFINITE},         //
        {INFINITE, 0, 0, 0, INFINITE, 0},          //
    };
    const float* const rows = MOTIONS[strange_estimates / 9 % std::size(MOTIONS)];
    ++strange_estimates;
    for (int i = 0; i < 6; ++i) {
        motion.at(i / 3, i % 3) = rows[i];
    }
    motion.at(2, 0) = motion.at(2, 1) = 0;
    motion.at(2, 2) = 1;
    log = {50, 50, 1, 0};
}

// The worker calls the exported name, like any host.
void lead_estimates_to(decltype(estimateGlobalMotionRansac)* function) {
    constexpr char NAME[] =
        "_ZN15videostabilizer26estimateGlobalMotionRansacERN8SimpleLA3MatIfEERNS_9MotionLogE"
        "RSt6vectorINS_8KeyPointESaIS7_EESA_RKNS_12RansacParamsE";
    EXPECT_GT(redirect_calls("libvideostabilizer", NAME, reinterpret_cast<void*>(function)), 0);
}

TEST(Numbers, MotionsThatLeadBeyondAllNumbers) {
    lead_estimates_to(estimate_strangely);
    for (int number = STABILIZER_GENTLE; number <= STABILIZER_MAXIMUM; ++number) {
        SCOPED_TRACE(number);
        strange_estimates = 0;
        expect_every_frame(packed(64, 64), strength(number), PICTURES[0], 120, true);
    }
    lead_estimates_to(estimateGlobalMotionRansac);
}

TEST(Numbers, GeometryFromTheSmallestToTheWidest) {
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
        for (const int number : {0, 3}) {
            expect_every_frame(g, strength(number), PICTURES[7], large ? 2 : 13);
        }
    }
    EXPECT_EQ(video_stabilizer_create(16, 16, WIDEST + 1, 8, PIX_FMT_YUV420P, 0, 1, nullptr),
              nullptr);
    constexpr int MOST = std::numeric_limits<int>::max();
    for (const int size : {MOST, MOST - 1, 1 << 30, -16, 0}) {
        EXPECT_EQ(video_stabilizer_create(size, size, size, size, PIX_FMT_YUV420P, 0, 1, nullptr),
                  nullptr);
        EXPECT_EQ(video_stabilizer_create(16, 16, size, MOST, PIX_FMT_YUV420P, 0, 1, nullptr),
                  nullptr);
    }
}

}  // namespace
