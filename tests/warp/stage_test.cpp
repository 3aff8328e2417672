// The warp stage: what it delivers, what becomes of its frames, and how it ends from every state.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/frame_ledger.h"
#include "tests/support/opencl_ledger.h"
#include "tests/warp/plain_warp.h"
#include "tests/warp/warp_log.h"
#include "videostabilizer/affine_transformer_ocl.h"
#include "videostabilizer/result.h"
#include "warp/warp_parameters.h"

namespace videostabilizer {

namespace {

using test_support::live_frames;
using testing::ElementsAre;

constexpr Geometry SEMI_PLANAR = {48, 12, 48, 24, false};

Frame* make_frame(const Geometry& geometry = SEMI_PLANAR, std::uint32_t seed = 1) {
    Frame* const frame =
        frame_create(geometry.width, geometry.height, geometry.stride_y, geometry.stride_uv,
                     geometry.planar ? PIX_FMT_YUV420P : PIX_FMT_YUV420SP_0, nullptr);
    const Planes content = noise_planes(geometry, seed);
    std::memcpy(frame->plane_y, content.y.data(), content.y.size());
    std::memcpy(frame->plane_uv, content.uv.data(), content.uv.size());
    return frame;
}

void pause() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// A stage and its user, who keeps what is delivered and can hold the stage in its callback.
struct Stage {
    explicit Stage(int in_place = 1, int capacity = 1, Frame* (*create_frame)(void*) = nullptr) {
        EXPECT_EQ(affine_transformer_ocl_module_init(), 1);
        test_support::clear_log();
        t = affine_transformer_ocl_create(
            in_place, this,
            {on_frame, on_eos, create_frame != nullptr ? this : nullptr, create_frame}, capacity);
    }
    ~Stage() {
        affine_transformer_ocl_delete(t);
        for (Frame* frame : frames) {
            frame_delete(frame);
        }
        EXPECT_EQ(live_frames(), 0);
        EXPECT_EQ(test_support::live_opencl_objects(), 0);
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    int init(const Geometry& of = SEMI_PLANAR, float crop_ratio = 1.0F) {
        geometry = of;
        return affine_transformer_ocl_init(t, of.planar ? PIX_FMT_YUV420P : PIX_FMT_YUV420SP_4,
                                           of.width, of.height, of.stride_y, of.stride_uv,
                                           crop_ratio);
    }
    int send(Frame* frame = make_frame()) const {
        return affine_transformer_ocl_send_frame(t, frame);
    }
    int fini() const { return affine_transformer_ocl_fini(t); }
    void wait_for_frames(int count) const {
        while (delivered.load() < count) {
            pause();
        }
    }

    static int on_frame(void* self, Frame* frame) {
        auto& stage = *static_cast<Stage*>(self);
        stage.frames.push_back(frame);
        ++stage.delivered;
        // Like every user's, this callback returns when its stage is stopped.
        while (stage.held.load() && stage.t->quit.load() == 0) {
            pause();
        }
        return 0;
    }
    static void on_eos(void* self) {
        auto& stage = *static_cast<Stage*>(self);
        EXPECT_EQ(affine_transformer_ocl_reach_eos(stage.t), 1);
        stage.frames_at_end.push_back(stage.delivered.load());
    }

    AffineTransformerOcl* t = nullptr;
    Geometry geometry = SEMI_PLANAR;
    std::atomic<bool> held{false};
    std::atomic<int> delivered{0};
    std::vector<Frame*> frames;  // like the next one, of the stage's thread until fini
    std::vector<int> frames_at_end;
};

Frame* make_marked_frame(void* stage) {
    Frame* const frame = make_frame(static_cast<Stage*>(stage)->geometry);
    frame->opaque = stage;
    return frame;
}

TEST(WarpStage, delivers_every_frame_warped_and_in_order_and_then_the_end) {
    constexpr int FRAMES = 5;
    constexpr float CROP_RATIO = 0.8719F;  // keeps samples off the pixel centres
    const AffineSix transforms[FRAMES] = {
        {1.0F, 0.0F, 4.3F, 0.0F, 1.0F, -2.6F},    {0.93F, 0.171F, 0.3F, -0.163F, 0.91F, 1.1F},
        {1.37F, 0.0F, -9.1F, 0.0F, 1.41F, -3.3F}, {0.0F, 0.0F, 3.0F, 0.0F, 0.0F, 3.0F},
        {1.0F, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F},  // sent as a null pointer
    };
    const struct {
        const char* name;
        Geometry geometry;
        int in_place;
        Frame* (*create_frame)(void*);
    } cases[] = {
        {"in place, semi-planar", SEMI_PLANAR, 1, nullptr},
        {"own frames, planar, rest columns", {56, 12, 64, 32, true}, 0, nullptr},
        {"frame maker, packed rows in longer planes",
         {64, 10, 80, 40, false},
         0,
         make_marked_frame},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Stage stage(c.in_place, 1, c.create_frame);
        ASSERT_EQ(stage.init(c.geometry, CROP_RATIO), RESULT_OK);
        // As the stabilizer does it: one matrix more than the queue holds, in turn.
        AffineSix pool[2] = {};
        std::vector<Frame*> sent;
        for (int i = 0; i < FRAMES; ++i) {
            pool[i % 2] = transforms[i];
            sent.push_back(make_frame(c.geometry, static_cast<std::uint32_t>(i)));
            sent.back()->timestamp = 1000 + i;
            sent.back()->opaque = i == FRAMES - 1 ? nullptr : pool[i % 2].data();
            ASSERT_EQ(stage.send(sent.back()), RESULT_OK);
        }
        affine_transformer_ocl_signal_eos(stage.t);
        wait_for_log("thread meet EOS, and return");
        EXPECT_EQ(stage.fini(), 0);
        EXPECT_EQ(stage.fini(), 0);
        EXPECT_EQ(stage.send(), RESULT_STOPPING);
        EXPECT_EQ(affine_transformer_ocl_reach_eos(stage.t), 1);
        EXPECT_THAT(warp_log(), ElementsAre(LogEntry{5, "Meet End of Input Stream..."},
                                            LogEntry{5, "thread meet EOS, and return"}));
        EXPECT_THAT(stage.frames_at_end, ElementsAre(FRAMES));
        EXPECT_EQ(live_frames(), FRAMES);
        EXPECT_EQ(test_support::live_opencl_objects(), 0);

        ASSERT_EQ(stage.delivered.load(), FRAMES);
        for (int i = 0; i < FRAMES; ++i) {
            SCOPED_TRACE("frame " + std::to_string(i));
            const Frame* const frame = stage.frames[index(i)];
            EXPECT_EQ(frame->timestamp, 1000 + i);
            EXPECT_EQ(frame->stride_y, c.geometry.stride_y);
            if (c.in_place != 0) {
                EXPECT_EQ(frame, sent[index(i)]);
            } else {
                EXPECT_EQ(frame->opaque, c.create_frame != nullptr ? &stage : nullptr);
            }
            const AffineSix wp =
                warp_parameters(transforms[i], CROP_RATIO, c.geometry.width, c.geometry.height);
            const Planes source = noise_planes(c.geometry, static_cast<std::uint32_t>(i));
            const Planes shown = {Bytes(frame->plane_y, frame->plane_y + source.y.size()),
                                  Bytes(frame->plane_uv, frame->plane_uv + source.uv.size())};
            expect_agreement(plain_warp(c.geometry, source, wp), shown, 16, 128);
        }
    }
}

TEST(WarpStage, makes_what_it_needs_once_and_calls_as_little_as_can_be_for_a_frame) {
    struct Calls {
        int builds = test_support::opencl_calls("clBuildProgram");
        int kernels = test_support::opencl_calls("clCreateKernel");
        int buffers = test_support::opencl_calls("clCreateBuffer");
        int writes = test_support::opencl_calls("clEnqueueWriteBuffer");
        int launches = test_support::opencl_calls("clEnqueueNDRangeKernel");
        int reads = test_support::opencl_calls("clEnqueueReadBuffer");
    };
    const Stage warm_up;  // the program of the process is built by now
    for (int stream = 0; stream < 2; ++stream) {
        SCOPED_TRACE(stream);
        const Calls before;
        Stage stage;
        ASSERT_EQ(stage.init(), RESULT_OK);
        const Calls ready;
        EXPECT_EQ(ready.builds - before.builds, 0);
        EXPECT_EQ(ready.kernels - before.kernels, 1);
        // Drivers that know a fast kind of host memory take the destination buffers' flag at once.
        EXPECT_THAT(ready.buffers - before.buffers, testing::AnyOf(5, 7));
        EXPECT_EQ(ready.writes - before.writes, 2) << "the destination buffers' first colour";
        constexpr int FRAMES = 3;
        for (int i = 0; i < FRAMES; ++i) {
            ASSERT_EQ(stage.send(), RESULT_OK);
        }
        stage.wait_for_frames(FRAMES);
        const Calls after;
        EXPECT_EQ(after.builds - ready.builds, 0);
        EXPECT_EQ(after.kernels - ready.kernels, 0);
        EXPECT_EQ(after.buffers - ready.buffers, 0);
        EXPECT_EQ(after.writes - ready.writes, 3 * FRAMES);
        EXPECT_EQ(after.launches - ready.launches, FRAMES);
        EXPECT_EQ(after.reads - ready.reads, 2 * FRAMES);
    }
}

TEST(WarpStage, holds_the_sender_while_its_queue_is_full) {
    Stage stage;
    stage.held.store(true);
    ASSERT_EQ(stage.init(), RESULT_OK);
    ASSERT_EQ(stage.send(), RESULT_OK);
    stage.wait_for_frames(1);
    EXPECT_EQ(affine_transformer_ocl_empty(stage.t), 1);
    ASSERT_EQ(stage.send(), RESULT_OK);
    EXPECT_EQ(affine_transformer_ocl_full(stage.t), 1);
    EXPECT_EQ(affine_transformer_ocl_empty(stage.t), 0);

    std::atomic<bool> sent{false};
    std::thread sender([&] {
        EXPECT_EQ(stage.send(), RESULT_OK);
        sent.store(true);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(sent.load());
    stage.held.store(false);
    stage.wait_for_frames(3);
    sender.join();
}

TEST(WarpStage, stops_busy_with_any_number_of_frames_queued) {
    constexpr int CAPACITY = 2;
    for (int queued = 0; queued <= CAPACITY; ++queued) {
        SCOPED_TRACE(queued);
        Stage stage(0, CAPACITY);
        stage.held.store(true);
        ASSERT_EQ(stage.init(), RESULT_OK);
        ASSERT_EQ(stage.send(), RESULT_OK);
        stage.wait_for_frames(1);
        for (int i = 0; i < queued; ++i) {
            ASSERT_EQ(stage.send(), RESULT_OK);
        }
        // With a full queue this one waits until the stop; else it may still get in.
        std::thread sender([&] { stage.send(); });
        EXPECT_EQ(stage.fini(), 0);
        sender.join();
        EXPECT_THAT(stage.frames_at_end, ElementsAre());
        EXPECT_EQ(stage.send(), RESULT_STOPPING);
        EXPECT_EQ(live_frames(), 1) << "the one that was delivered";
    }
}

TEST(WarpStage, stops_idle_at_once_and_only_once) {
    Stage stage;
    stage.t->timeout_ms = 600000;  // fini has to wake the thread
    ASSERT_EQ(stage.init(), RESULT_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // by then it waits
    std::thread other([&] { EXPECT_EQ(stage.fini(), 0); });
    EXPECT_EQ(stage.fini(), 0);
    other.join();
    EXPECT_THAT(warp_log(), ElementsAre(LogEntry{5, "AffineTransformerOcl quit"},
                                        LogEntry{5, "thread quited, and return"}));
    EXPECT_EQ(stage.fini(), 0);
}

TEST(WarpStage, ends_without_having_been_initialised) {
    affine_transformer_ocl_delete(nullptr);
    const Stage stage;
    EXPECT_EQ(stage.send(nullptr), RESULT_NO_FRAME);
    ASSERT_EQ(stage.send(), RESULT_OK);
    EXPECT_EQ(stage.fini(), 0);
    EXPECT_EQ(live_frames(), 0);
}

TEST(WarpStage, refuses_formats_and_geometry_that_it_cannot_hold_and_can_try_again) {
    Stage stage;
    const struct {
        int format;
        int stride_y;
        int stride_uv;
        const char* text;
    } refusals[] = {
        {3, 48, 24, "Un-supported pixel format!!"},
        {5, 48, 24, "Un-supported pixel format!!"},
        {-1, 48, 24, "Un-supported pixel format!!"},
        {1, 0, 24, "Failed to create buffer for srcY!"},
        {1, 48, -24, "Failed to create buffer for srcUV!"},
        {1, 1 << 30, 24, "Failed to create buffer for srcY!"},
    };
    for (const auto& refusal : refusals) {
        test_support::clear_log();
        EXPECT_EQ(affine_transformer_ocl_init(stage.t, static_cast<PixFmt>(refusal.format), 48, 12,
                                              refusal.stride_y, refusal.stride_uv, 1.0F),
                  RESULT_FAILED);
        EXPECT_THAT(warp_log(), ElementsAre(LogEntry{6, refusal.text}));
    }
    EXPECT_EQ(stage.init(), RESULT_OK);
    EXPECT_EQ(stage.init(), RESULT_FAILED) << "the stage is running";
}

TEST(WarpStage, ends_with_an_error_that_fini_clears_up) {
    const struct {
        Geometry geometry;  // of the frame; the stage is made for SEMI_PLANAR
        int code;
        const char* text;
        Frame* (*create_frame)(void*) = nullptr;
    } cases[] = {
        {{48, 24, 48, 24, false}, -1, "Failed to write srcY buffer!!"},
        {{48, 12, 48, 48, false}, -1, "Failed to write srcUV buffer!!"},
        {{48, 12, 40, 24, false}, -1, "Frame does not fit its planes: 48 x 12, strides 40, 24"},
        {{40, 12, 48, 20, false}, -1, "Frame does not fit its planes: 40 x 12, strides 48, 20"},
        {SEMI_PLANAR, -20000, "Failed to create external frame!!",
         [](void*) -> Frame* { return nullptr; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        Stage stage(0, 1, c.create_frame);
        ASSERT_EQ(stage.init(), RESULT_OK);
        ASSERT_EQ(stage.send(make_frame(c.geometry)), RESULT_OK);
        const std::string ending = "AffineTransformerOcl met an error: " + std::to_string(c.code);
        wait_for_log(ending);
        // The frame in hand stays; the queue still takes what fits.
        ASSERT_EQ(stage.send(), RESULT_OK);
        EXPECT_EQ(affine_transformer_ocl_full(stage.t), 1);
        EXPECT_EQ(stage.fini(), 0);
        EXPECT_EQ(live_frames(), 0);
        EXPECT_EQ(stage.delivered.load(), 0);
        EXPECT_THAT(stage.frames_at_end, ElementsAre());
        EXPECT_THAT(warp_log(), ElementsAre(LogEntry{6, c.text}, LogEntry{6, ending}));
    }
}

}  // namespace

}  // namespace videostabilizer
