// Whole streams, push to pop, and what each stage has of the work of a frame.

#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "bench/bench_clip.h"

using namespace videostabilizer;

namespace {

constexpr int CLIP_FRAMES = 30;

void picture_sizes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"w", "h"})->Unit(benchmark::kMillisecond);
    b->Args({640, 480})->Args({1280, 720})->Args({1920, 1080});
}

bench::Clip make_clip(const benchmark::State& state) {
    return {static_cast<int>(state.range(0)), static_cast<int>(state.range(1)), CLIP_FRAMES};
}

// One stream as long as the benchmark runs; an iteration is one frame popped.
void BM_Pipeline(benchmark::State& state) {
    bench::Clip clip = make_clip(state);
    VideoStabilizer* const s = video_stabilizer_create(
        clip.width, clip.height, clip.width, clip.width / 2, PIX_FMT_YUV420P, 0, 0, nullptr);
    video_stabilizer_start(s);
    std::thread producer([&] {
        int number = 0;
        while (video_stabilizer_push_frame(s, clip.frame(number)) == 0) {
            ++number;
        }
    });
    Frame* frame = nullptr;
    for (int i = 0; i < CLIP_FRAMES; ++i) {  // the pipeline is full and the caches are warm
        video_stabilizer_pop_frame(s, &frame);
        frame_delete(frame);
    }
    for (auto _ : state) {
        video_stabilizer_pop_frame(s, &frame);
        frame_delete(frame);
    }
    video_stabilizer_stop(s);
    producer.join();
    video_stabilizer_delete(s);
    state.counters["fps"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_Pipeline)->Apply(picture_sizes)->UseRealTime()->MeasureProcessCPUTime();

// The stages of a frame one after another on one thread, with the share of each. The warp is that
// of the stage, thread hand-over included.
void BM_StageShares(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    bench::Clip clip = make_clip(state);
    bench::Analysis analysis(clip);
    AffineTransformerOcl* const stage = analysis.stabilizer->transformer;
    enum Stage { DECIMATE, CORNERS, TRACK, ESTIMATE, SMOOTH, WARP, STAGES };
    constexpr std::array<const char*, STAGES> names = {"decimate", "corners", "track",
                                                       "estimate", "smooth",  "warp"};
    std::array<Clock::duration, STAGES> spent{};
    const auto warp = [&](int frame_number) {
        Frame* const frame = clip.frame(frame_number);
        frame->opaque = analysis.stabilizer->warp_pool[0]->data;
        affine_transformer_ocl_send_frame(stage, frame);
        Frame* out = nullptr;
        video_stabilizer_pop_frame(analysis.stabilizer, &out);
        frame_delete(out);
    };
    analysis.smooth();
    warp(0);  // the first launch compiles the kernel for this size
    int number = 1;
    for (auto _ : state) {
        std::array<Clock::time_point, STAGES + 1> at{};
        at[DECIMATE] = Clock::now();
        analysis.decimate(clip, number, analysis.next);
        at[CORNERS] = Clock::now();
        analysis.find_corners();
        at[TRACK] = Clock::now();
        analysis.track();
        analysis.match();
        at[ESTIMATE] = Clock::now();
        analysis.estimate();
        at[SMOOTH] = Clock::now();
        analysis.smooth();
        at[WARP] = Clock::now();
        warp(number);
        at[STAGES] = Clock::now();
        std::swap(analysis.prev, analysis.next);
        ++number;
        for (std::size_t i = 0; i < STAGES; ++i) {
            spent[i] += at[i + 1] - at[i];
        }
    }
    Clock::duration total{};
    for (const Clock::duration& part : spent) {
        total += part;
    }
    for (std::size_t i = 0; i < STAGES; ++i) {
        state.counters[std::string(names[i]) + "_%"] =
            100.0 * static_cast<double>(spent[i].count()) / static_cast<double>(total.count());
    }
}
BENCHMARK(BM_StageShares)->Apply(picture_sizes)->UseRealTime();

}  // namespace
