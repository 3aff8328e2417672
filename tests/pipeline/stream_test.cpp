// SPDX-License-Identifier: Apache-2.0

// Whole streams: order, number and identity of the frames, end of stream, back-pressure, delay, and
// what the pictures show. Stops in the middle are in tests/faults.

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <thread>
#include <vector>

#include "tests/faults/leak_test.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

class Stream : public LeakTest {};

TEST_F(Stream, DeliversEveryFrameOnceInOrderThenTheEnd) {
    int made = 0;
    const auto make = [](void* ctx) {
        ++*static_cast<int*>(ctx);
        return frame_create(WIDTH, HEIGHT, WIDTH, WIDTH / 2, PIX_FMT_YUV420P, nullptr);
    };
    VideoStabilizerUser host{&made, make};
    VideoStabilizerUser no_maker{&made, nullptr};
    VideoStabilizerUser no_context{nullptr, make};
    const struct {
        const char* output;
        bool in_place;
        VideoStabilizerUser* user;
    } cases[] = {
        {"in place", true, nullptr},
        {"own frames", false, nullptr},
        {"the host's frames", false, &host},
        {"own frames for want of a maker", false, &no_maker},
        {"own frames for want of a context", false, &no_context},
    };
    for (const auto& c : cases) {
        for (const int count : {0, 1, 2, 10, 11, 12, 60}) {
            SCOPED_TRACE(testing::Message() << c.output << ", frames " << count);
            const bool any = count > 0;
            const bool is_stopped = count % 2 == 0;  // else deleted without a stop
            made = 0;
            clear_log();
            StabilizerPtr s = make_stabilizer(packed(), c.in_place, nullptr, c.user);
            const Ending ending = run_stream(s.get(), count);
            EXPECT_EQ(ending.popped, count);
            // The end is reported once; a stream without any frame only ever stops.
            EXPECT_EQ(ending.code, any ? RESULT_END_OF_STREAM : RESULT_STOPPING);
            Frame* none = nullptr;
            EXPECT_EQ(video_stabilizer_pop_frame(s.get(), &none), RESULT_STOPPING);
            EXPECT_EQ(none, nullptr);
            EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(99)), RESULT_END_OF_STREAM);
            EXPECT_EQ(video_stabilizer_reached_eos(s.get()), any ? 1 : 0);
            if (is_stopped) {
                EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
                EXPECT_EQ(live_opencl_objects(), 0);
            }
            s.reset();
            expect_nothing_left();
            EXPECT_EQ(made, c.user == &host ? count : 0);
            EXPECT_EQ(count_log("before thread loop..."), any ? 1 : 0);
            EXPECT_EQ(count_log("Meet End of Input Stream..."), any ? 2 : 0);  // worker and stage
            EXPECT_EQ(count_log("thread meet EOS, and return"), any ? 2 : 1);
            EXPECT_EQ(count_log("Met output EOS."), any ? 1 : 0);
            EXPECT_EQ(count_log("Already quit!"), is_stopped ? 1 : 0);
        }
    }
}

TEST_F(Stream, MayNeverStart) {
    const StabilizerPtr s = make_stabilizer();
    const int blocks = live_blocks();
    const auto push = [&] { return video_stabilizer_push_frame(s.get(), make_frame(0)); };
    EXPECT_EQ(push(), RESULT_OK);
    EXPECT_EQ(push(), RESULT_OK);
    EXPECT_EQ(live_blocks(), blocks + 2);
    EXPECT_EQ(video_stabilizer_input_empty(s.get()), 0);
    EXPECT_EQ(video_stabilizer_input_full(s.get()), 0);
    EXPECT_EQ(video_stabilizer_flush(s.get()), 0);
    EXPECT_EQ(live_blocks(), blocks);
    EXPECT_EQ(video_stabilizer_input_empty(s.get()), 1);
    EXPECT_EQ(push(), RESULT_OK);
    // Nobody signals the end: ten waits.
    s->timeout_ms = 5;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(video_stabilizer_wait_eos(s.get()), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    for (const int stops_before : {0, 1}) {
        EXPECT_EQ(video_stabilizer_stop(s.get()), 0);
        EXPECT_EQ(count_log("Already quit!"), stops_before);
    }
    EXPECT_EQ(push(), RESULT_STOPPING);
    EXPECT_EQ(video_stabilizer_start(s.get()), RESULT_NO_THREAD);
}

// A host that does not pop fills the input queue and, once it has started, the whole pipeline; then
// it is held in push.
TEST_F(Stream, HoldsTheHostBackWhenNobodyPops) {
    constexpr int FRAMES = 40;
    const StabilizerPtr s = make_stabilizer();
    std::atomic<int> pushed{0};
    const auto wait_for = [&](int count) {
        while (pushed.load() < count) {
            std::this_thread::yield();
        }
        EXPECT_EQ(pushed.load(), count);
        EXPECT_EQ(video_stabilizer_input_full(s.get()), 1);
    };
    std::thread producer([&] {
        for (int i = 0; i < FRAMES; ++i) {
            EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(i)), RESULT_OK);
            ++pushed;
        }
        video_stabilizer_signal_eos(s.get());
    });
    wait_for(3);
    EXPECT_EQ(video_stabilizer_start(s.get()), RESULT_OK);
    EXPECT_EQ(video_stabilizer_start(s.get()), RESULT_NO_THREAD);
    wait_for(FRAMES_INSIDE);
    EXPECT_EQ(video_stabilizer_output_full(s.get()), 1);
    Frame* frame = nullptr;
    for (int i = 0; i < FRAMES; ++i) {
        ASSERT_EQ(video_stabilizer_pop_frame(s.get(), &frame), RESULT_OK);
        EXPECT_EQ(frame->timestamp, i);
        frame_delete(frame);
        EXPECT_LE(pushed.load(), FRAMES_INSIDE + i + 1);
    }
    producer.join();
    EXPECT_EQ(video_stabilizer_output_empty(s.get()), 1);
    EXPECT_EQ(video_stabilizer_input_empty(s.get()), 1);
}

TEST_F(Stream, RunsBesideAnother) {
    const StabilizerPtr a = make_stabilizer(packed(192, 144));
    const StabilizerPtr b = make_stabilizer(packed(160, 208), false);
    std::thread other([&] { EXPECT_EQ(run_stream(b.get(), 30).popped, 30); });
    EXPECT_EQ(run_stream(a.get(), 40).popped, 40);
    other.join();
}

TEST_F(Stream, NumbersMoreFramesThanThirtyTwoBitsHold) {
    constexpr int COUNT = 60;
    for (const int strength : {STABILIZER_GENTLE, STABILIZER_STANDARD}) {
        const VideoStabilizerOptions options = options_for(strength);
        const auto run = [&](std::int64_t first) {
            const StabilizerPtr s = make_stabilizer(packed(), true, &options);
            const Ending ending = run_stream(s.get(), COUNT, {}, {}, first);
            EXPECT_EQ(ending.popped, COUNT);
            EXPECT_EQ(s->output_index, (first + COUNT - 1) & INT32_MAX);
            return ending.corrections;
        };
        const std::vector<Matrix> early = run(0);
        for (const int bits : {31, 32}) {
            const std::vector<Matrix> late = run((std::int64_t{1} << bits) - COUNT / 2);
            ASSERT_EQ(late.size(), early.size());
            // The first spans differ: they reach back before the first frame.
            for (std::size_t i = 21; i < late.size() && strength == STABILIZER_GENTLE; ++i) {
                EXPECT_EQ(late[i], early[i]) << i;
            }
        }
    }
}

// The picture of a frame as the CPU warps it by a correction and the crop to the middle 90 %.
std::vector<unsigned char> warped_by_cpu(const Frame& source, Matrix matrix) {
    constexpr float CROP = 0.9F;
    const float left = static_cast<float>(source.width) * (1 - CROP) / 2;
    const float top = static_cast<float>(source.height) * (1 - CROP) / 2;
    for (const std::size_t row : {0, 3}) {
        matrix[row] /= CROP;
        matrix[row + 1] /= CROP;
        matrix[row + 2] -= matrix[row] * left + matrix[row + 1] * top;
    }
    std::vector<unsigned char> picture(
        static_cast<std::size_t>(source.width * source.height * 3 / 2));
    warpAffine_420p(source.plane_y, picture.data(), matrix.data(), source.width, source.height);
    return picture;
}

// Each frame leaves as its own correction warps it: no frame gets the matrix of another.
TEST_F(Stream, WarpsEachFrameByItsOwnCorrection) {
    constexpr int FRAMES = 40;
    constexpr Geometry LARGE = packed(448, 320);  // room for enough corners to estimate motions
    const Pixel flat = [](int, int, int) { return 90; };
    const struct {
        const char* name;
        Pixel pixel;
        VideoStabilizerSampling sampling;
        bool in_place;
        int stride;
    } cases[] = {{"shaking", shaking_texture, STABILIZER_SAMPLING_STATED, true, 448},
                 {"flat", flat, STABILIZER_SAMPLING_STATED, true, 448},
                 {"native", shaking_texture, STABILIZER_SAMPLING_BILINEAR, true, 448},
                 {"padded rows", shaking_texture, STABILIZER_SAMPLING_BILINEAR, false, 470}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Pixel pixel = c.pixel;
        const int stride = c.stride;
        VideoStabilizerOptions options = options_for(STABILIZER_GENTLE);
        options.engine = c.sampling == STABILIZER_SAMPLING_STATED ? STABILIZER_ENGINE_OPENCL
                                                                  : STABILIZER_ENGINE_NATIVE;
        options.sampling = c.sampling;
        const Geometry geometry = {LARGE.width, LARGE.height, stride, stride / 2, LARGE.format};
        const StabilizerPtr s = make_stabilizer(geometry, c.in_place, &options);
        EXPECT_EQ(live_opencl_objects() > 0, c.sampling == STABILIZER_SAMPLING_STATED);
        const auto make = [&](int number) { return make_frame(number, geometry, pixel); };
        std::vector<std::vector<unsigned char>> outputs;
        const Ending ending = run_stream(s.get(), FRAMES, make, [&](const Frame* frame) {
            auto& output = outputs.emplace_back();
            for (int y = 0; y < LARGE.height; ++y) {
                const unsigned char* const row = frame->plane_y + y * stride;
                output.insert(output.end(), row, row + LARGE.width);
            }
        });
        EXPECT_EQ(ending.estimated > FRAMES / 2, pixel != flat);
        ASSERT_EQ(ending.corrections.size(), static_cast<std::size_t>(FRAMES));
        ASSERT_EQ(outputs.size(), static_cast<std::size_t>(FRAMES));
        for (int i = 0; i < FRAMES; ++i) {
            const auto& correction = ending.corrections[static_cast<std::size_t>(i)];
            const auto& output = outputs[static_cast<std::size_t>(i)];
            Frame* const source = make_frame(i, LARGE, pixel);
            const std::vector<unsigned char> expected = warped_by_cpu(*source, correction);
            frame_delete(source);
            std::size_t wrong = 0;
            for (std::size_t at = 0; at < LARGE.luma_bytes(); ++at) {
                wrong += std::abs(output[at] - expected[at]) > 1 ? 1 : 0;
            }
            EXPECT_LT(wrong, LARGE.luma_bytes() / 1000) << "frame " << i;
            for (std::size_t at = 0; pixel == flat && at < 9; ++at) {  // rounding of the weights
                EXPECT_NEAR(correction[at], at % 4 == 0 ? 1.0F : 0.0F, 1e-6F);
            }
        }
    }
}

}  // namespace
