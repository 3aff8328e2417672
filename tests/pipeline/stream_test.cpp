// Whole streams: order, number and identity of the frames, end of stream, back-pressure, and what
// the pictures show.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <thread>

#include "simplela/affine_inverse.h"
#include "tests/pipeline/stream_helpers.h"
#include "tests/support/frame_ledger.h"
#include "tests/support/log_capture.h"
#include "tests/support/opencl_ledger.h"

using namespace videostabilizer;
using namespace test_support;

namespace {

struct FrameMaker {
    int made = 0;
    static Frame* make(void* ctx) {
        static_cast<FrameMaker*>(ctx)->made += 1;
        return frame_create(WIDTH, HEIGHT, WIDTH, WIDTH / 2, PIX_FMT_YUV420P, nullptr);
    }
};

TEST(Stream, DeliversEveryFrameOnceInOrderThenTheEnd) {
    enum Output { IN_PLACE, OWN_FRAMES, HOST_FRAMES };
    for (const Output output : {IN_PLACE, OWN_FRAMES, HOST_FRAMES}) {
        for (const int count : {0, 1, 2, 10, 11, 12, 60}) {
            SCOPED_TRACE(testing::Message() << "output " << output << ", frames " << count);
            FrameMaker maker;
            VideoStabilizerUser user{&maker, FrameMaker::make};
            {
                const StabilizerPtr s = make_stabilizer(WIDTH, HEIGHT, output == IN_PLACE,
                                                        output == HOST_FRAMES ? &user : nullptr);
                ASSERT_NE(s, nullptr);
                ASSERT_EQ(video_stabilizer_start(s.get()), 0);
                int code = 0;
                EXPECT_EQ(run_stream(s.get(), count, &code), numbers_up_to(count));
                // The end is told once; a stream without any frame only ever stops.
                EXPECT_EQ(code, count == 0 ? RESULT_STOPPING : RESULT_END_OF_STREAM);
                Frame* none = nullptr;
                EXPECT_EQ(video_stabilizer_pop_frame(s.get(), &none), RESULT_STOPPING);
                EXPECT_EQ(none, nullptr);
                EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(99)),
                          RESULT_END_OF_STREAM);
                EXPECT_EQ(video_stabilizer_reached_eos(s.get()), count == 0 ? 0 : 1);
            }
            EXPECT_EQ(maker.made, output == HOST_FRAMES ? count : 0);
            EXPECT_EQ(live_frames(), 0);
            EXPECT_EQ(live_opencl_objects(), 0);
        }
    }
}

TEST(Stream, LogsItsEndInTheStatedWords) {
    const StabilizerPtr s = make_stabilizer();
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    clear_log();
    run_stream(s.get(), 12);
    video_stabilizer_stop(s.get());
    EXPECT_EQ(count_log("before thread loop..."), 1);
    EXPECT_EQ(count_log("Meet End of Input Stream..."), 2);  // worker and warp stage
    EXPECT_EQ(count_log("thread meet EOS, and return"), 2);
    EXPECT_EQ(count_log("Met output EOS."), 1);
    EXPECT_EQ(count_log("Already quit!"), 1);
}

// A host that does not pop fills the whole pipeline, and is then held in push.
TEST(Stream, HoldsTheHostBackWhenNobodyPops) {
    constexpr int FRAMES = 40;
    const StabilizerPtr s = make_stabilizer();
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    std::atomic<int> pushed{0};
    std::thread producer([&] {
        for (int i = 0; i < FRAMES; ++i) {
            EXPECT_EQ(video_stabilizer_push_frame(s.get(), make_frame(i)), 0);
            ++pushed;
        }
        video_stabilizer_signal_eos(s.get());
    });
    while (pushed.load() < FRAMES_INSIDE) {
        std::this_thread::yield();
    }
    EXPECT_EQ(video_stabilizer_input_full(s.get()), 1);
    EXPECT_EQ(video_stabilizer_output_full(s.get()), 1);
    EXPECT_EQ(pushed.load(), FRAMES_INSIDE);
    for (int i = 0; i < FRAMES; ++i) {
        Frame* frame = nullptr;
        ASSERT_EQ(video_stabilizer_pop_frame(s.get(), &frame), 0);
        EXPECT_EQ(frame->timestamp, i);
        frame_delete(frame);
        EXPECT_LE(pushed.load(), FRAMES_INSIDE + i + 1);
    }
    producer.join();
    EXPECT_EQ(video_stabilizer_wait_eos(s.get()), 0);
    EXPECT_EQ(video_stabilizer_output_empty(s.get()), 1);
    EXPECT_EQ(video_stabilizer_input_empty(s.get()), 1);
}

TEST(Stream, TwoStabilizersAtOnce) {
    const StabilizerPtr a = make_stabilizer(192, 144);
    const StabilizerPtr b = make_stabilizer(160, 208, false);
    ASSERT_EQ(video_stabilizer_start(a.get()), 0);
    ASSERT_EQ(video_stabilizer_start(b.get()), 0);
    std::vector<std::int64_t> from_b;
    std::thread other([&] { from_b = run_stream(b.get(), 30); });
    EXPECT_EQ(run_stream(a.get(), 40), numbers_up_to(40));
    other.join();
    EXPECT_EQ(from_b, numbers_up_to(30));
}

// What the observer was told, and the pictures before the warp.
struct Record {
    std::vector<std::int32_t> motions;
    std::vector<std::array<float, 9>> corrections;
    std::vector<int> statuses;

    static void on_motion(void* ctx, std::int32_t frame, const float motion[9],
                          const MotionLog* log) {
        auto* const record = static_cast<Record*>(ctx);
        record->motions.push_back(frame);
        record->statuses.push_back(log->status);
        EXPECT_EQ(motion[8], 1.0F);
    }
    static void on_correction(void* ctx, std::int32_t frame, const float correction[9]) {
        auto* const record = static_cast<Record*>(ctx);
        EXPECT_EQ(frame, static_cast<std::int32_t>(record->corrections.size()));
        auto& copy = record->corrections.emplace_back();
        std::copy_n(correction, 9, copy.begin());
    }
};

// Luma of the output at (x, y), as the correction and the crop to the middle 90 % demand it.
double expected_luma(const Frame* source, const std::array<float, 9>& correction, int x, int y) {
    constexpr double CROP = 0.9;
    float inverse[6];
    SimpleLA::invert_affine(correction.data(), inverse);
    const auto at = [&](int row, int size) {
        const double position = static_cast<double>(inverse[3 * row]) * x +
                                static_cast<double>(inverse[3 * row + 1]) * y +
                                static_cast<double>(inverse[3 * row + 2]);
        const double cropped = size * (1 - CROP) / 2 + CROP * position;
        return std::min(std::max(cropped, 0.0), size - 1.001);
    };
    const double xs = at(0, source->width);
    const double ys = at(1, source->height);
    const int xi = static_cast<int>(xs);
    const int yi = static_cast<int>(ys);
    const unsigned char* const p = source->plane_y + yi * source->width + xi;
    const unsigned char* const q = p + source->width;
    const double top = p[0] + (xs - xi) * (p[1] - p[0]);
    const double bottom = q[0] + (xs - xi) * (q[1] - q[0]);
    return top + (ys - yi) * (bottom - top);
}

// Each frame leaves as its own correction warps it: no frame gets the matrix of another.
TEST(Stream, WarpsEachFrameByItsOwnCorrection) {
    constexpr int FRAMES = 40;
    constexpr int BIG_WIDTH = 448;  // room for enough corners to estimate motions
    constexpr int BIG_HEIGHT = 320;
    Record record;
    const VideoStabilizerObserver observer{&record, Record::on_motion, Record::on_correction};
    const StabilizerPtr s = make_stabilizer(BIG_WIDTH, BIG_HEIGHT);
    video_stabilizer_set_observer(s.get(), &observer);
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    std::vector<std::vector<unsigned char>> outputs;
    run_stream(s.get(), FRAMES, nullptr, [&](const Frame* frame) {
        outputs.emplace_back(frame->plane_y, frame->plane_y + BIG_WIDTH * BIG_HEIGHT);
    });
    video_stabilizer_stop(s.get());  // the observer's record is ours from here on

    ASSERT_EQ(record.motions.size(), FRAMES - 1U);
    ASSERT_EQ(record.corrections.size(), static_cast<std::size_t>(FRAMES));
    ASSERT_EQ(outputs.size(), static_cast<std::size_t>(FRAMES));
    int estimated = 0;
    for (int i = 0; i + 1 < FRAMES; ++i) {
        EXPECT_EQ(record.motions[static_cast<std::size_t>(i)], i);
        estimated += record.statuses[static_cast<std::size_t>(i)] == 0 ? 1 : 0;
    }
    EXPECT_GT(estimated, FRAMES / 2);  // else the corrections below are identities
    for (std::size_t i = 0; i < FRAMES; ++i) {
        Frame* const source = make_frame(static_cast<std::int64_t>(i), BIG_WIDTH, BIG_HEIGHT);
        int wrong = 0;
        for (int y = 0; y < BIG_HEIGHT; ++y) {
            for (int x = 0; x < BIG_WIDTH; ++x) {
                const double expected = expected_luma(source, record.corrections[i], x, y);
                const auto pixel =
                    static_cast<std::size_t>(y) * BIG_WIDTH + static_cast<std::size_t>(x);
                const int actual = outputs[i][pixel];
                wrong += std::abs(actual - std::floor(expected)) > 1.0 ? 1 : 0;
            }
        }
        frame_delete(source);
        EXPECT_LT(wrong, BIG_WIDTH * BIG_HEIGHT / 1000) << "frame " << i;
    }
}

TEST(Stream, FeaturelessPicturesPassUnmoved) {
    Record record;
    const VideoStabilizerObserver observer{&record, Record::on_motion, Record::on_correction};
    const StabilizerPtr s = make_stabilizer();
    video_stabilizer_set_observer(s.get(), &observer);
    ASSERT_EQ(video_stabilizer_start(s.get()), 0);
    std::thread producer([&] {
        for (int i = 0; i < 15; ++i) {
            Frame* const frame = make_frame(i);
            std::fill_n(frame->plane_y, WIDTH * HEIGHT, static_cast<unsigned char>(90));
            video_stabilizer_push_frame(s.get(), frame);
        }
        video_stabilizer_signal_eos(s.get());
    });
    Frame* frame = nullptr;
    int frames = 0;
    while (video_stabilizer_pop_frame(s.get(), &frame) == 0) {
        EXPECT_EQ(frame->timestamp, frames++);
        EXPECT_EQ(frame->plane_y[WIDTH * HEIGHT / 2], 90);
        frame_delete(frame);
    }
    producer.join();
    video_stabilizer_stop(s.get());
    EXPECT_EQ(frames, 15);
    for (const auto& correction : record.corrections) {
        for (std::size_t i = 0; i < correction.size(); ++i) {
            EXPECT_NEAR(correction[i], i % 4 == 0 ? 1.0F : 0.0F, 1e-6F);  // rounding of the weights
        }
    }
}

}  // namespace
