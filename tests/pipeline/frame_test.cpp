#include "videostabilizer/frame.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <memory>

#include "tests/support/log_capture.h"

using namespace videostabilizer;

namespace {

struct FrameDeleter {
    void operator()(Frame* frame) const { frame_delete(frame); }
};
using FramePtr = std::unique_ptr<Frame, FrameDeleter>;

TEST(Frame, OwnsLumaAndTheChromaAreaOfItsFormat) {
    for (int value = PIX_FMT_YUV420SP_0; value <= PIX_FMT_LUMA_ONLY; ++value) {
        SCOPED_TRACE(value);
        const auto format = static_cast<PixFmt>(value);
        const FramePtr frame(frame_create(30, 20, 32, 16, format, nullptr));
        ASSERT_NE(frame, nullptr);
        const std::size_t chroma = static_cast<std::size_t>(chroma_planes_factor[value]) * 16 * 20;
        // The sanitizers see a plane that is shorter than it should be.
        std::memset(frame->plane_y, 1, 32 * 20);
        std::memset(frame->plane_uv, 2, chroma);
        EXPECT_EQ(frame->plane_uv, frame->plane_y + 32 * 20);
        EXPECT_EQ(frame->contiguous, 1);
        EXPECT_EQ(frame->format, format);
        EXPECT_EQ(frame->timestamp, 0);
        EXPECT_EQ(frame->opaque, nullptr);
        EXPECT_EQ(frame->next, nullptr);
        EXPECT_EQ(frame->prev, nullptr);
    }
}

TEST(Frame, LeavesTheBuffersOfTheHostAlone) {
    std::array<unsigned char, 16 * 8 * 3 / 2> pixels{};
    pixels.fill(7);
    frame_delete(frame_create(16, 8, 16, 8, PIX_FMT_YUV420P, pixels.data()));
    const FramePtr joined(frame_create(16, 8, 16, 8, PIX_FMT_YUV420P, pixels.data()));
    EXPECT_EQ(joined->plane_y, pixels.data());
    EXPECT_EQ(joined->plane_uv, pixels.data() + 16 * 8);
    const FramePtr split(
        frame_create(16, 8, 16, 8, PIX_FMT_YUV420P, pixels.data() + 64, pixels.data()));
    EXPECT_EQ(split->plane_y, pixels.data() + 64);
    EXPECT_EQ(split->plane_uv, pixels.data());
    EXPECT_EQ(split->contiguous, 0);
    for (const unsigned char pixel : pixels) {
        EXPECT_EQ(pixel, 7);
    }
}

TEST(Frame, RefusesWhatCannotBeMade) {
    struct Case {
        const char* name;
        int width, height, stride_y, stride_uv, format;
    };
    const Case cases[] = {
        {"format below the range", 16, 16, 16, 8, -1},
        {"format above the range", 16, 16, 16, 8, 6},
        {"negative height", 16, -16, 16, 8, 2},
        {"negative stride", 16, 16, -16, 8, 2},
        {"more than memory holds", 16, 2147483647, 2147483647, 2147483647, 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        test_support::clear_log();
        EXPECT_EQ(frame_create(c.width, c.height, c.stride_y, c.stride_uv,
                               static_cast<PixFmt>(c.format), nullptr),
                  nullptr);
        ASSERT_EQ(test_support::log_lines().size(), 1U);
        EXPECT_EQ(test_support::log_lines()[0].tag, "log_utils");
        EXPECT_EQ(test_support::log_lines()[0].priority, 6);
    }
    EXPECT_EQ(test_support::log_lines()[0].text, "OUT OF MEMORY!!!");
}

}  // namespace
