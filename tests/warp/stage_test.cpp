// SPDX-License-Identifier: Apache-2.0

// The warp stage: output, ownership of frames, and the end from every state.

#include <gmock/gmock.h>

#include <string>
#include <tuple>

#include "tests/faults/leak_test.h"
#include "tests/warp/warp_stage.h"

using namespace videostabilizer;

namespace {

using test_support::logged_errors;
using testing::ElementsAre;
using WarpStage = test_support::LeakTest;

const std::string TAG = "warp_affine_ocl: ";
constexpr int WARNINGS = 5;

// wp of a stage that shows the centred part of the picture.
Affine cropped(const Affine& transform, float part, const Geometry& geometry) {
    Affine wp = reference_inverse(transform);
    for (float& element : wp) {
        element *= part;
    }
    wp[2] += static_cast<float>(geometry.width) * (1.0F - part) / 2.0F;
    wp[5] += static_cast<float>(geometry.height) * (1.0F - part) / 2.0F;
    return wp;
}

Frame* make_marked_frame(void* stage) {
    const AffineTransformerOcl* const t = static_cast<Stage*>(stage)->t;
    Frame* const frame =
        frame_create(t->width, t->height, t->stride_y, t->stride_uv, t->format, nullptr);
    frame->opaque = stage;
    return frame;
}

TEST_F(WarpStage, DeliversEveryFrameWarpedAndInOrderAndThenTheEnd) {
    constexpr int FRAMES = 5;
    constexpr float CROP_RATIO = 0.8719F;  // keeps samples off the pixel centres
    const Affine transforms[FRAMES] = {
        {1.0F, 0.0F, 4.3F, 0.0F, 1.0F, -2.6F},    {0.93F, 0.171F, 0.3F, -0.163F, 0.91F, 1.1F},
        {1.37F, 0.0F, -9.1F, 0.0F, 1.41F, -3.3F}, {0.0F, 0.0F, 3.0F, 0.0F, 0.0F, 3.0F},
        {1.0F, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F},  // sent as a null pointer
    };
    const std::tuple<Geometry, int, Frame* (*)(void*)> cases[] = {
        {SEMI_PLANAR, 1, nullptr},                        // in place
        {{56, 12, 64, 40, PIX_FMT_YUV420P}, 0, nullptr},  // rest columns, more than half a stride
        {{64, 10, 80, 40, PIX_FMT_YUV420SP_4}, 0, make_marked_frame},  // packed in longer planes
    };
    for (const auto& [geometry, in_place, create_frame] : cases) {
        SCOPED_TRACE(geometry.width);
        Stage stage(in_place, 1, create_frame);
        ASSERT_EQ(stage.init(geometry, CROP_RATIO), RESULT_OK);
        // Like the stabilizer: a pool of one matrix more than the queue holds.
        Affine pool[2] = {};
        void* opaque[FRAMES] = {};
        for (int i = 0; i < FRAMES; ++i) {
            pool[i % 2] = transforms[i];
            Frame* const frame = noise_frame(geometry, static_cast<std::uint32_t>(i));
            frame->timestamp = 1000 + i;
            frame->opaque = opaque[i] = i == FRAMES - 1 ? nullptr : pool[i % 2].data();
            ASSERT_EQ(stage.send(frame), RESULT_OK);
        }
        affine_transformer_ocl_signal_eos(stage.t);
        wait_until([&] { return stage.t->quit.load() != 0; });
        EXPECT_EQ(stage.send(), RESULT_STOPPING);
        EXPECT_EQ(stage.fini(), 0);
        EXPECT_EQ(stage.fini(), 0);
        EXPECT_EQ(affine_transformer_ocl_reach_eos(stage.t), 1);
        EXPECT_TRUE(logged_errors().empty());
        EXPECT_THAT(logged_errors(WARNINGS), ElementsAre(TAG + "Meet End of Input Stream...",
                                                         TAG + "thread meet EOS, and return"));
        EXPECT_THAT(stage.frames_at_end, ElementsAre(FRAMES));
        EXPECT_EQ(stage.live_frames(), FRAMES);
        EXPECT_EQ(test_support::live_opencl_objects(), 0);

        ASSERT_EQ(stage.delivered.load(), FRAMES);
        for (int i = 0; i < FRAMES; ++i) {
            SCOPED_TRACE(i);
            const Frame* const frame = stage.frames[static_cast<std::size_t>(i)];
            EXPECT_EQ(frame->timestamp, 1000 + i);
            EXPECT_EQ(frame->stride_y, geometry.stride_y);
            void* const made_by = create_frame != nullptr ? &stage : nullptr;
            EXPECT_EQ(frame->opaque, in_place != 0 ? opaque[i] : made_by);
            expect_warped(geometry, static_cast<std::uint32_t>(i),
                          cropped(transforms[i], CROP_RATIO, geometry), frame->plane_y);
        }
    }
}

TEST_F(WarpStage, StopsIdleAndBusyAndOnlyOnce) {
    constexpr int CAPACITY = 2;
    // One is in the callback, the others are queued.
    for (int sent = 0; sent <= 1 + CAPACITY; ++sent) {
        SCOPED_TRACE(sent);
        Stage stage(0, CAPACITY);
        stage.held.store(true);
        stage.t->timeout_ms = 600000;  // fini has to wake the thread
        ASSERT_EQ(stage.init(), RESULT_OK);
        for (int i = 0; i < sent; ++i) {
            ASSERT_EQ(stage.send(), RESULT_OK);
            stage.wait_for_frames(1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // an idle thread waits by then
        const bool full = sent == 1 + CAPACITY;
        EXPECT_EQ(affine_transformer_ocl_empty(stage.t), sent <= 1 ? 1 : 0);
        EXPECT_EQ(affine_transformer_ocl_full(stage.t), full ? 1 : 0);
        std::thread other([&] {
            EXPECT_EQ(full ? stage.send() : stage.fini(), full ? RESULT_STOPPING : RESULT_OK);
        });
        EXPECT_EQ(stage.fini(), RESULT_OK);
        other.join();
        EXPECT_THAT(stage.frames_at_end, ElementsAre());
        EXPECT_EQ(stage.send(), RESULT_STOPPING);
        EXPECT_EQ(stage.live_frames(), stage.delivered.load());
        // A thread that sees the stop between two frames logs nothing.
        EXPECT_TRUE(logged_errors().empty());
        EXPECT_THAT(logged_errors(WARNINGS),
                    testing::AnyOf(ElementsAre(), ElementsAre(TAG + "AffineTransformerOcl quit",
                                                              TAG + "thread quited, and return")));
    }
}

TEST_F(WarpStage, RefusesFormatsAndGeometryThatItCannotHoldAndCanTryAgain) {
    affine_transformer_ocl_delete(nullptr);
    const Stage never_initialised;
    EXPECT_EQ(never_initialised.send(nullptr), RESULT_NO_FRAME);
    EXPECT_EQ(never_initialised.send(), RESULT_OK);
    EXPECT_EQ(never_initialised.fini(), 0);
    EXPECT_EQ(never_initialised.live_frames(), 0);
    const Stage stage;
    const std::tuple<int, int, int, const char*> refusals[] = {
        {3, 48, 24, "Un-supported pixel format!!"},
        {1, 0, 24, "Failed to create buffer for srcY!"},
        {1, 48, -24, "Failed to create buffer for srcUV!"},
        {1, 1 << 30, 24, "Failed to create buffer for srcY!"},
    };
    for (const auto& [format, stride_y, stride_uv, text] : refusals) {
        test_support::clear_log();
        EXPECT_EQ(affine_transformer_ocl_init(stage.t, static_cast<PixFmt>(format), 48, 12,
                                              stride_y, stride_uv, 1.0F),
                  RESULT_FAILED);
        EXPECT_THAT(logged_errors(), ElementsAre(TAG + text));
    }
    EXPECT_EQ(stage.init(), RESULT_OK);
    EXPECT_EQ(stage.init(), RESULT_FAILED) << "the stage is running";
}

TEST_F(WarpStage, EndsWithAnErrorThatFiniClearsUp) {
    // The frame, whose stage is made for SEMI_PLANAR; the code; the first line of the log.
    const std::tuple<Geometry, int, const char*> cases[] = {
        {{48, 24, 48, 24, PIX_FMT_YUV420SP_0}, -1, "Failed to write srcY buffer!!"},
        {{48, 12, 48, 48, PIX_FMT_YUV420SP_0}, -1, "Failed to write srcUV buffer!!"},
        {{48, 12, 40, 24, PIX_FMT_YUV420SP_0},
         -1,
         "Frame does not fit its planes: 48 x 12, strides 40, 24"},
        {{48, 12, 48, 20, PIX_FMT_YUV420SP_0},
         -1,
         "Frame does not fit its planes: 48 x 12, strides 48, 20"},
        {{48, 1, 48, 48, PIX_FMT_YUV420SP_0},
         -1,
         "Frame does not fit its planes: 48 x 1, strides 48, 48"},
        {SEMI_PLANAR, RESULT_NO_FRAME, "Failed to create external frame!!"},
    };
    for (const auto& [geometry, code, text] : cases) {
        SCOPED_TRACE(text);
        Stage stage(0, 1, [](void*) -> Frame* { return nullptr; });
        stage.t->callbacks.ctx = code == RESULT_NO_FRAME ? &stage : nullptr;
        ASSERT_EQ(stage.init(), RESULT_OK);
        ASSERT_EQ(stage.send(noise_frame(geometry)), RESULT_OK);
        const std::string ending = "AffineTransformerOcl met an error: " + std::to_string(code);
        wait_until([&] { return test_support::count_log(ending) != 0; });
        // The frame in progress is kept; the queue still accepts frames until it is full.
        ASSERT_EQ(stage.send(), RESULT_OK);
        EXPECT_EQ(affine_transformer_ocl_full(stage.t), 1);
        EXPECT_EQ(stage.fini(), 0);
        EXPECT_EQ(stage.live_frames(), 0);
        EXPECT_EQ(stage.delivered.load(), 0);
        EXPECT_THAT(stage.frames_at_end, ElementsAre());
        EXPECT_THAT(logged_errors(), ElementsAre(TAG + text, TAG + ending));
    }
}

}  // namespace
