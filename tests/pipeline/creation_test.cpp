// What a stabilizer is made of for each picture size, and what is refused at creation and at push.

#include <gtest/gtest.h>

#include "tests/pipeline/stream_helpers.h"
#include "tests/support/frame_ledger.h"
#include "tests/support/log_capture.h"
#include "tests/support/opencl_ledger.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

TEST(Creation, ScalesTheAnalysisWithThePicture) {
    struct Case {
        int width, height, scale, cell_size, border;
        float max_disp;
    };
    const Case cases[] = {
        {640, 480, 1, 64, 32, 72.0F},   {1440, 1080, 1, 64, 32, 72.0F},
        {480, 2000, 1, 64, 32, 72.0F},  {1280, 720, 2, 64, 32, 75.0F},
        {752, 500, 2, 64, 32, 75.0F},   {750, 500, 1, 64, 32, 72.0F},
        {1920, 1080, 4, 32, 16, 64.0F}, {1080, 1920, 4, 32, 16, 64.0F},
        {3840, 2160, 4, 32, 16, 64.0F},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.width << " x " << c.height);
        const StabilizerPtr s = make_stabilizer(c.width, c.height);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(s->scale, c.scale);
        EXPECT_EQ(s->fast_params.cell_size, c.cell_size);
        EXPECT_EQ(s->fast_params.border_x, c.border);
        EXPECT_EQ(s->fast_params.border_y, c.border);
        EXPECT_EQ(s->fast_params.width, c.width / c.scale);
        EXPECT_EQ(s->lk_params.border_x, c.border);
        EXPECT_EQ(s->lk_params.max_disp_x, c.max_disp);
        EXPECT_EQ(s->lk_params.max_disp_y, c.max_disp);
        EXPECT_EQ(s->cur_luma - s->prev_luma, (c.width / c.scale) * (c.height / c.scale));
    }
}

TEST(Creation, RefusesWhatItCannotWorkOn) {
    struct Case {
        const char* name;
        int width, height, stride_y, stride_uv, format;
    };
    const Case cases[] = {
        {"odd width", 65, 48, 65, 33, 2},
        {"odd height", 64, 47, 64, 32, 2},
        {"zero", 0, 0, 0, 0, 2},
        {"negative", -64, 48, 64, 32, 2},
        {"below sixteen", 64, 14, 64, 32, 2},
        {"luma stride below width", 64, 48, 62, 32, 2},
        {"planar chroma stride too small", 64, 48, 64, 31, 2},
        {"semi-planar chroma area too small", 72, 48, 80, 39, 0},
        {"negative chroma stride", 64, 48, 64, -32, 2},
        {"luma beyond the largest plane", 65536, 65536, 65536, 32768, 2},
        {"chroma beyond the largest plane", 64, 48, 64, 2147483647, 2},
    };
    make_stabilizer();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        clear_log();
        EXPECT_EQ(video_stabilizer_create(c.width, c.height, c.stride_y, c.stride_uv,
                                          static_cast<PixFmt>(c.format), 0, 1, nullptr),
                  nullptr);
        ASSERT_EQ(log_lines().size(), 1U);
        EXPECT_EQ(log_lines()[0].tag, "video_stabilizer");
        EXPECT_EQ(log_lines()[0].priority, 6);
    }
    for (const int format : {-1, 3, 5, 6}) {
        SCOPED_TRACE(format);
        clear_log();
        EXPECT_EQ(
            video_stabilizer_create(64, 48, 64, 32, static_cast<PixFmt>(format), 0, 1, nullptr),
            nullptr);
        EXPECT_EQ(count_log("Un-supported pixel format!!"), 1);
        EXPECT_EQ(count_log("Failed to init AffineTransformer!!"), 1);
    }
    EXPECT_EQ(live_opencl_objects(), 0);
}

TEST(Creation, NeedsTheModule) {
    if (module_was_set_up()) {
        GTEST_SKIP() << "needs a process of its own, which ctest gives it";
    }
    clear_log();
    EXPECT_EQ(video_stabilizer_create(64, 48, 64, 32, PIX_FMT_YUV420P, 0, 1, nullptr), nullptr);
    EXPECT_EQ(count_log("OUT OF MEMORY!!!"), 1);
}

TEST(Creation, TakesAUserRecordOnlyWhole) {
    int context = 0;
    VideoStabilizerUser no_maker{&context, nullptr};
    VideoStabilizerUser no_context{nullptr, [](void*) -> Frame* { return nullptr; }};
    for (VideoStabilizerUser* user : {&no_maker, &no_context}) {
        const StabilizerPtr s = make_stabilizer(WIDTH, HEIGHT, false, user);
        ASSERT_EQ(video_stabilizer_start(s.get()), 0);
        EXPECT_EQ(run_stream(s.get(), 3), numbers_up_to(3));
    }
}

TEST(Push, RefusesFramesThatAreNotOfTheStream) {
    struct Case {
        const char* name;
        int width, height, stride_y, stride_uv, format;
    };
    const Case cases[] = {
        {"narrower", WIDTH - 32, HEIGHT, WIDTH, WIDTH / 2, 2},
        {"wider", WIDTH + 32, HEIGHT, WIDTH + 32, WIDTH / 2 + 16, 2},
        {"higher", WIDTH, HEIGHT + 2, WIDTH, WIDTH / 2, 2},
        {"larger luma plane", WIDTH, HEIGHT, WIDTH + 16, WIDTH / 2, 2},
        {"larger chroma area", WIDTH, HEIGHT, WIDTH, WIDTH, 2},
        {"rows that do not hold the picture", WIDTH, HEIGHT, WIDTH - 1, WIDTH / 2, 2},
        {"other chroma layout", WIDTH, HEIGHT, WIDTH, WIDTH / 2, 0},
        {"no chroma", WIDTH, HEIGHT, WIDTH, WIDTH / 2, 5},
    };
    const StabilizerPtr s = make_stabilizer();
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        clear_log();
        Frame* const frame = frame_create(c.width, c.height, c.stride_y, c.stride_uv,
                                          static_cast<PixFmt>(c.format), nullptr);
        EXPECT_EQ(video_stabilizer_push_frame(s.get(), frame), RESULT_FAILED);
        EXPECT_EQ(log_lines().size(), 1U);
        EXPECT_EQ(live_frames(), 0);
    }
    Frame* const hollow = make_frame(0);
    hollow->plane_uv = nullptr;
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), hollow), RESULT_FAILED);
    EXPECT_EQ(video_stabilizer_push_frame(s.get(), nullptr), RESULT_NO_FRAME);
    // The stream is none the worse for it.
    EXPECT_EQ(run_stream(s.get(), 12), numbers_up_to(12));
}

}  // namespace
