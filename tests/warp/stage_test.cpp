// The warp stage: what it delivers, what becomes of its frames, and how it ends from every state.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
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

using videostabilizer::Frame;
using videostabilizer::PixFmt;

namespace {

std::atomic<bool> out_of_memory{false};
std::atomic<int> waits{0};  // of queues for a frame

}  // namespace

// The linker's --wrap leads the calls of the subsystem's objects here, of pthread_cond_timedwait
// and of frame_create(int, int, int, int, PixFmt, unsigned char*).
extern "C" {
int __real_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                  const timespec* deadline);
int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                  const timespec* deadline) {
    waits.fetch_add(1);
    return __real_pthread_cond_timedwait(cond, mutex, deadline);
}

Frame* __real__ZN15videostabilizer12frame_createEiiiiNS_6PixFmtEPh(int width, int height,
                                                                   int stride_y, int stride_uv,
                                                                   PixFmt format,
                                                                   unsigned char* data);
Frame* __wrap__ZN15videostabilizer12frame_createEiiiiNS_6PixFmtEPh(int width, int height,
                                                                   int stride_y, int stride_uv,
                                                                   PixFmt format,
                                                                   unsigned char* data) {
    return out_of_memory.load() ? nullptr
                                : __real__ZN15videostabilizer12frame_createEiiiiNS_6PixFmtEPh(
                                      width, height, stride_y, stride_uv, format, data);
}
}

namespace videostabilizer {

namespace {

using test_support::live_frames;
using test_support::live_opencl_objects;

using testing::ElementsAre;
using testing::IsEmpty;

constexpr Geometry SEMI_PLANAR = {48, 12, 48, 24, false};

Frame* make_frame(const Geometry& geometry, const Planes& content) {
    Frame* const frame =
        frame_create(geometry.width, geometry.height, geometry.stride_y, geometry.stride_uv,
                     geometry.planar ? PIX_FMT_YUV420P : PIX_FMT_YUV420SP_0, nullptr);
    std::memcpy(frame->plane_y, content.y.data(), content.y.size());
    std::memcpy(frame->plane_uv, content.uv.data(), content.uv.size());
    return frame;
}

Frame* make_frame(const Geometry& geometry = SEMI_PLANAR) {
    return make_frame(geometry, noise_planes(geometry, 1));
}

Planes content_of(const Frame* frame) {
    const std::size_t y_bytes = index(frame->stride_y * frame->height);
    const std::size_t uv_bytes = index(frame->stride_uv * frame->height);
    return {Bytes(frame->plane_y, frame->plane_y + y_bytes),
            Bytes(frame->plane_uv, frame->plane_uv + uv_bytes)};
}

// The user of a stage: keeps what is delivered, and can hold the stage in its callback.
class Receiver {
  public:
    ~Receiver() {
        for (Frame* frame : frames_) {
            frame_delete(frame);
        }
    }

    static int on_frame(void* self, Frame* frame) {
        auto& receiver = *static_cast<Receiver*>(self);
        std::unique_lock<std::mutex> lock(receiver.mutex_);
        receiver.frames_.push_back(frame);
        receiver.changed_.notify_all();
        // Like every user's, this callback returns when its stage is stopped.
        while (receiver.holding_ && receiver.stage->quit.load() == 0) {
            receiver.changed_.wait_for(lock, std::chrono::milliseconds(1));
        }
        return 0;
    }

    static void on_eos(void* self) {
        auto& receiver = *static_cast<Receiver*>(self);
        EXPECT_EQ(affine_transformer_ocl_reach_eos(receiver.stage), 1);
        const std::lock_guard<std::mutex> lock(receiver.mutex_);
        ++receiver.ends_;
        receiver.frames_at_end_ = receiver.frames_.size();
        receiver.changed_.notify_all();
    }

    void hold(bool holding) {
        const std::lock_guard<std::mutex> lock(mutex_);
        holding_ = holding;
        changed_.notify_all();
    }
    void wait_for_frames(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return frames_.size() >= count; });
    }
    void wait_for_end() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return ends_ > 0; });
    }
    std::vector<Frame*> frames() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }
    std::size_t frames_at_end() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return frames_at_end_;
    }
    int ends() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return ends_;
    }

    AffineTransformerOcl* stage = nullptr;  // set before the stage's thread starts

  private:
    std::mutex mutex_;  // guards the fields below
    std::condition_variable changed_;
    std::vector<Frame*> frames_;
    std::size_t frames_at_end_ = 0;
    int ends_ = 0;
    bool holding_ = false;
};

class WarpStage : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(affine_transformer_ocl_module_init(), 1);
        test_support::clear_log();
    }
    void TearDown() override {
        affine_transformer_ocl_delete(receiver.stage);
        receiver_.reset();
        EXPECT_EQ(live_frames(), 0);
        EXPECT_EQ(live_opencl_objects(), 0);
    }

    AffineTransformerOcl* create(int in_place = 1, int capacity = 1, void* maker = nullptr,
                                 Frame* (*create_frame)(void*) = nullptr) {
        receiver.stage = affine_transformer_ocl_create(
            in_place, &receiver, {Receiver::on_frame, Receiver::on_eos, maker, create_frame},
            capacity);
        receiver.stage->timeout_ms = 20;  // the end of the stream is noticed that soon
        return receiver.stage;
    }

    static int init(AffineTransformerOcl* t, const Geometry& geometry = SEMI_PLANAR,
                    float crop_ratio = 1.0F) {
        return affine_transformer_ocl_init(
            t, geometry.planar ? PIX_FMT_YUV420P : PIX_FMT_YUV420SP_4, geometry.width,
            geometry.height, geometry.stride_y, geometry.stride_uv, crop_ratio);
    }

    // An initialised stage that is held in the callback of its first frame.
    AffineTransformerOcl* create_held(int capacity) {
        AffineTransformerOcl* const t = create(1, capacity);
        EXPECT_EQ(init(t), RESULT_OK);
        receiver.hold(true);
        EXPECT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_OK);
        receiver.wait_for_frames(1);
        return t;
    }

  private:
    std::unique_ptr<Receiver> receiver_ = std::make_unique<Receiver>();

  protected:
    Receiver& receiver = *receiver_;
};

// --- what is delivered ---

enum class Output { IN_PLACE, OWN, MAKER };

// A host's frame maker.
struct Maker {
    Geometry geometry;

    static Frame* create_frame(void* self) {
        Frame* const frame = make_frame(static_cast<Maker*>(self)->geometry);
        frame->opaque = self;
        return frame;
    }
};

struct Delivery {
    const char* name;
    Geometry geometry;
    Output output;
};

const Delivery DELIVERIES[] = {
    {"in place, semi-planar", SEMI_PLANAR, Output::IN_PLACE},
    {"own frames, planar, rest columns", {56, 12, 64, 32, true}, Output::OWN},
    {"frame maker, packed rows in longer planes", {64, 10, 80, 40, false}, Output::MAKER},
};

TEST_F(WarpStage, delivers_every_frame_warped_and_in_order_and_then_the_end) {
    constexpr int FRAMES = 5;
    constexpr float CROP_RATIO = 0.8719F;  // keeps samples off the pixel centres
    const AffineSix transforms[FRAMES] = {
        {1.0F, 0.0F, 4.3F, 0.0F, 1.0F, -2.6F},    {0.93F, 0.171F, 0.3F, -0.163F, 0.91F, 1.1F},
        {1.37F, 0.0F, -9.1F, 0.0F, 1.41F, -3.3F}, {0.0F, 0.0F, 3.0F, 0.0F, 0.0F, 3.0F},
        {1.0F, 0.0F, 0.0F, 0.0F, 1.0F, 0.0F},  // sent as a null pointer
    };
    for (const Delivery& delivery : DELIVERIES) {
        SCOPED_TRACE(delivery.name);
        Receiver own_receiver;
        Maker maker{delivery.geometry};
        const bool makes = delivery.output == Output::MAKER;
        AffineTransformerOcl* const t = affine_transformer_ocl_create(
            delivery.output == Output::IN_PLACE ? 1 : 0, &own_receiver,
            {Receiver::on_frame, Receiver::on_eos, makes ? &maker : nullptr,
             makes ? Maker::create_frame : nullptr},
            1);
        own_receiver.stage = t;
        ASSERT_EQ(init(t, delivery.geometry, CROP_RATIO), RESULT_OK);

        // As the stabilizer does it: one matrix more than the queue holds, in turn.
        AffineSix pool[2] = {};
        std::vector<Frame*> sent;
        for (int i = 0; i < FRAMES; ++i) {
            pool[i % 2] = transforms[i];
            sent.push_back(make_frame(
                delivery.geometry, noise_planes(delivery.geometry, static_cast<std::uint32_t>(i))));
            sent.back()->timestamp = 1000 + i;
            sent.back()->opaque = i == FRAMES - 1 ? nullptr : pool[i % 2].data();
            ASSERT_EQ(affine_transformer_ocl_send_frame(t, sent.back()), RESULT_OK);
        }
        affine_transformer_ocl_signal_eos(t);
        own_receiver.wait_for_end();
        EXPECT_EQ(affine_transformer_ocl_fini(t), 0);
        EXPECT_EQ(own_receiver.ends(), 1);
        EXPECT_EQ(own_receiver.frames_at_end(), static_cast<std::size_t>(FRAMES));
        EXPECT_EQ(live_frames(), FRAMES);

        const std::vector<Frame*> delivered = own_receiver.frames();
        ASSERT_EQ(delivered.size(), static_cast<std::size_t>(FRAMES));
        for (int i = 0; i < FRAMES; ++i) {
            SCOPED_TRACE("frame " + std::to_string(i));
            const auto index = static_cast<std::size_t>(i);
            const Frame* const frame = delivered[index];
            EXPECT_EQ(frame->timestamp, 1000 + i);
            EXPECT_EQ(frame->stride_y, delivery.geometry.stride_y);
            if (delivery.output == Output::IN_PLACE) {
                EXPECT_EQ(frame, sent[index]);
            } else {
                EXPECT_EQ(frame->opaque, makes ? &maker : nullptr);
            }
            const AffineSix wp = warp_parameters(transforms[i], CROP_RATIO, delivery.geometry.width,
                                                 delivery.geometry.height);
            const Planes source = noise_planes(delivery.geometry, static_cast<std::uint32_t>(i));
            expect_agreement(plain_warp(delivery.geometry, source, wp), content_of(frame), 16, 128);
        }
        affine_transformer_ocl_delete(t);
    }
}

// --- the queue ---

TEST_F(WarpStage, holds_the_sender_while_its_queue_is_full) {
    AffineTransformerOcl* const t = create_held(1);
    EXPECT_EQ(affine_transformer_ocl_empty(t), 1);
    ASSERT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_OK);
    EXPECT_EQ(affine_transformer_ocl_full(t), 1);
    EXPECT_EQ(affine_transformer_ocl_empty(t), 0);

    std::atomic<bool> sent{false};
    std::thread sender([&] {
        EXPECT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_OK);
        sent.store(true);
    });
    EXPECT_FALSE(sent.load());
    receiver.hold(false);
    receiver.wait_for_frames(3);
    sender.join();
}

TEST_F(WarpStage, hands_queued_frames_to_another_taker) {
    AffineTransformerOcl* const t = create_held(2);
    Frame* const frame = make_frame();
    ASSERT_EQ(affine_transformer_ocl_send_frame(t, frame), RESULT_OK);
    Frame* taken = nullptr;
    EXPECT_EQ(affine_transformer_ocl_get_frame(t, &taken), RESULT_OK);
    EXPECT_EQ(taken, frame);
    affine_transformer_ocl_signal_eos(t);
    EXPECT_EQ(affine_transformer_ocl_get_frame(t, &taken), RESULT_END_OF_STREAM);
    affine_transformer_ocl_fini(t);
    EXPECT_EQ(affine_transformer_ocl_get_frame(t, &taken), RESULT_STOPPING);
    EXPECT_EQ(taken, frame);
    frame_delete(frame);
}

TEST_F(WarpStage, refuses_a_null_frame) {
    EXPECT_EQ(affine_transformer_ocl_send_frame(create(), nullptr), RESULT_NO_FRAME);
}

// --- endings ---

TEST_F(WarpStage, stops_busy_with_any_number_of_frames_queued) {
    constexpr int CAPACITY = 2;
    for (int queued = 0; queued <= CAPACITY; ++queued) {
        SCOPED_TRACE(queued);
        Receiver own_receiver;
        AffineTransformerOcl* const t = affine_transformer_ocl_create(
            0, &own_receiver, {Receiver::on_frame, Receiver::on_eos, nullptr, nullptr}, CAPACITY);
        own_receiver.stage = t;
        own_receiver.hold(true);
        ASSERT_EQ(init(t), RESULT_OK);
        ASSERT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_OK);
        own_receiver.wait_for_frames(1);
        for (int i = 0; i < queued; ++i) {
            ASSERT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_OK);
        }
        // With a full queue this one waits until the stop; else it may still get in.
        std::thread sender([&] { affine_transformer_ocl_send_frame(t, make_frame()); });
        EXPECT_EQ(affine_transformer_ocl_fini(t), 0);
        sender.join();
        EXPECT_EQ(own_receiver.ends(), 0);
        EXPECT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_STOPPING);
        affine_transformer_ocl_delete(t);
        EXPECT_EQ(live_frames(), 1) << "the one that was delivered";
    }
}

TEST_F(WarpStage, stops_idle_at_once_and_only_once) {
    AffineTransformerOcl* const t = create();
    t->timeout_ms = 600000;  // fini has to wake the thread
    waits.store(0);
    ASSERT_EQ(init(t), RESULT_OK);
    while (waits.load() == 0) {  // then it holds the mutex, or waits
        std::this_thread::yield();
    }
    std::thread other([&] { EXPECT_EQ(affine_transformer_ocl_fini(t), 0); });
    EXPECT_EQ(affine_transformer_ocl_fini(t), 0);
    other.join();
    EXPECT_THAT(warp_log(), ElementsAre(LogEntry{5, "AffineTransformerOcl quit"},
                                        LogEntry{5, "thread quited, and return"}));
    EXPECT_EQ(live_opencl_objects(), 0);
    EXPECT_EQ(affine_transformer_ocl_fini(t), 0);
}

TEST_F(WarpStage, releases_everything_after_the_end_of_the_stream) {
    AffineTransformerOcl* const t = create(0);
    ASSERT_EQ(init(t), RESULT_OK);
    ASSERT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_OK);
    affine_transformer_ocl_signal_eos(t);
    wait_for_log("thread meet EOS, and return");
    EXPECT_THAT(warp_log(), ElementsAre(LogEntry{5, "Meet End of Input Stream..."},
                                        LogEntry{5, "thread meet EOS, and return"}));
    EXPECT_EQ(affine_transformer_ocl_fini(t), 0);
    EXPECT_EQ(affine_transformer_ocl_reach_eos(t), 1);
    EXPECT_EQ(live_opencl_objects(), 0);
    EXPECT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_STOPPING);
}

TEST_F(WarpStage, ends_without_having_been_initialised) {
    affine_transformer_ocl_delete(nullptr);
    AffineTransformerOcl* const t = create();
    ASSERT_EQ(affine_transformer_ocl_send_frame(t, make_frame()), RESULT_OK);
    EXPECT_EQ(affine_transformer_ocl_fini(t), 0);
    EXPECT_EQ(live_frames(), 0);
}

TEST_F(WarpStage, refuses_formats_and_geometry_that_it_cannot_hold_and_can_try_again) {
    AffineTransformerOcl* const t = create();
    for (const int format : {3, 5, 6, -1}) {
        test_support::clear_log();
        EXPECT_EQ(affine_transformer_ocl_init(t, static_cast<PixFmt>(format), 48, 12, 48, 24, 1.0F),
                  RESULT_FAILED);
        EXPECT_EQ(t->width, 0);
        EXPECT_THAT(warp_log(), ElementsAre(LogEntry{6, "Un-supported pixel format!!"}));
    }
    struct Refusal {
        int stride_y;
        int stride_uv;
        const char* text;
    };
    const Refusal refusals[] = {
        {0, 24, "Failed to create buffer for srcY!"},
        {48, 0, "Failed to create buffer for srcUV!"},
        {48, -24, "Failed to create buffer for srcUV!"},
        {1 << 30, 24, "Failed to create buffer for srcY!"},
    };
    for (const Refusal& refusal : refusals) {
        test_support::clear_log();
        EXPECT_EQ(affine_transformer_ocl_init(t, PIX_FMT_YUV420SP_1, 48, 12, refusal.stride_y,
                                              refusal.stride_uv, 1.0F),
                  RESULT_FAILED);
        EXPECT_THAT(warp_log(), ElementsAre(LogEntry{6, refusal.text}));
    }
    EXPECT_EQ(init(t), RESULT_OK);
    EXPECT_EQ(init(t), RESULT_FAILED) << "the stage is running";
}

// --- errors of the thread ---

void drop_luma(Frame* frame) {
    frame->plane_y = nullptr;
}
void exhaust_memory(Frame* /*frame*/) {
    out_of_memory.store(true);
}

Frame* make_no_frame(void* /*context*/) {
    return nullptr;
}
template <unsigned char* Frame::*PLANE>
Frame* make_without(void* /*context*/) {
    Frame* const frame = make_frame();
    frame->*PLANE = nullptr;
    return frame;
}

struct Failure {
    const char* name;
    const char* text;
    int code;
    Geometry geometry = SEMI_PLANAR;          // of the frame; the stage is made for SEMI_PLANAR
    void (*prepare)(Frame*) = nullptr;        // spoils the frame before it is sent
    Frame* (*create_frame)(void*) = nullptr;  // null: the stage makes its output itself
};

constexpr Geometry TALL = {48, 24, 48, 24, false};
constexpr Geometry LONG_CHROMA = {48, 12, 48, 48, false};
constexpr Geometry SHORT_ROWS = {48, 12, 40, 24, false};
constexpr Geometry SHORT_CHROMA = {40, 12, 48, 20, false};  // its rows are stride_y apart
constexpr char SHORT_ROWS_TEXT[] = "Frame does not fit its planes: 48 x 12, strides 40, 24";
constexpr char SHORT_CHROMA_TEXT[] = "Frame does not fit its planes: 40 x 12, strides 48, 20";

const Failure FAILURES[] = {
    {"larger than the stage", "Failed to write srcY buffer!!", -1, TALL},
    {"chroma larger than the stage", "Failed to write srcUV buffer!!", -1, LONG_CHROMA},
    {"rows longer than the stride", SHORT_ROWS_TEXT, -1, SHORT_ROWS},
    {"chroma rows beyond the area", SHORT_CHROMA_TEXT, -1, SHORT_CHROMA},
    {"no luma", "Failed to write srcY buffer!!", -1, SEMI_PLANAR, drop_luma},
    {"output without luma", "Failed to read dstY buffer!!", -1, SEMI_PLANAR, nullptr,
     make_without<&Frame::plane_y>},
    {"output without chroma", "Failed to read dstUV buffer!!", -1, SEMI_PLANAR, nullptr,
     make_without<&Frame::plane_uv>},
    {"no output", "Failed to create external frame!!", -20000, SEMI_PLANAR, nullptr, make_no_frame},
    {"no memory for the output", "OUT OF MEMORY!!!", -10004, SEMI_PLANAR, exhaust_memory},
};

TEST_F(WarpStage, ends_with_an_error_that_fini_clears_up) {
    for (const Failure& failure : FAILURES) {
        SCOPED_TRACE(failure.name);
        test_support::clear_log();
        AffineTransformerOcl* const t =
            create(0, 1, failure.create_frame != nullptr ? this : nullptr, failure.create_frame);
        ASSERT_EQ(init(t), RESULT_OK);
        Frame* const next = make_frame();
        Frame* const frame = make_frame(failure.geometry);
        if (failure.prepare != nullptr) {
            failure.prepare(frame);
        }
        ASSERT_EQ(affine_transformer_ocl_send_frame(t, frame), RESULT_OK);
        const std::string ending =
            "AffineTransformerOcl met an error: " + std::to_string(failure.code);
        wait_for_log(ending);
        out_of_memory.store(false);
        const auto lines = ElementsAre(LogEntry{6, failure.text}, LogEntry{6, ending});
        EXPECT_THAT(warp_log(), lines);

        // The frame in hand stays; the queue still takes what fits.
        ASSERT_EQ(affine_transformer_ocl_send_frame(t, next), RESULT_OK);
        EXPECT_EQ(affine_transformer_ocl_full(t), 1);
        EXPECT_GE(live_frames(), 2);
        EXPECT_EQ(affine_transformer_ocl_fini(t), 0);
        EXPECT_EQ(live_frames(), 0);
        EXPECT_THAT(receiver.frames(), IsEmpty());
        EXPECT_EQ(receiver.ends(), 0);
        EXPECT_THAT(warp_log(), lines);
        affine_transformer_ocl_delete(t);
        receiver.stage = nullptr;
    }
}

}  // namespace

}  // namespace videostabilizer
