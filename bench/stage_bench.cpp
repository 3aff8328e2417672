// SPDX-License-Identifier: Apache-2.0

// Each stage of the pipeline by itself.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/bench_clip.h"

using namespace videostabilizer;

namespace {

void picture_sizes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"w", "h"})->Unit(benchmark::kMicrosecond);
    b->Args({640, 480})->Args({1280, 720})->Args({1920, 1080});
}

struct Setup {
    bench::Clip clip;
    bench::Analysis analysis;
    explicit Setup(const benchmark::State& state)
        : clip(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)), 2),
          analysis(clip) {}
};

// The lower bound of every stage that touches the whole picture.
void BM_CopyPlanes(benchmark::State& state) {
    Setup setup(state);
    std::vector<unsigned char> copy(setup.clip.frames[0].size());
    for (auto _ : state) {
        std::memcpy(copy.data(), setup.clip.frames[0].data(), copy.size());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_CopyPlanes)->Apply(picture_sizes);

void BM_Decimate(benchmark::State& state) {
    Setup setup(state);
    for (auto _ : state) {
        setup.analysis.decimate(setup.clip, 0, setup.analysis.prev);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Decimate)->Apply(picture_sizes);

void BM_Corners(benchmark::State& state) {
    Setup setup(state);
    for (auto _ : state) {
        setup.analysis.find_corners();
    }
    state.counters["corners"] = static_cast<double>(setup.analysis.stabilizer->prev_points.size());
}
BENCHMARK(BM_Corners)->Apply(picture_sizes);

void BM_Track(benchmark::State& state) {
    Setup setup(state);
    for (auto _ : state) {
        setup.analysis.track();
    }
    state.counters["tracked"] = static_cast<double>(setup.analysis.stabilizer->matched_prev.size());
}
BENCHMARK(BM_Track)->Apply(picture_sizes);

// Clean pairs end the draws after the first or second sample.
void BM_EstimateEarlyStop(benchmark::State& state) {
    Setup setup(state);
    for (auto _ : state) {
        setup.analysis.estimate();
    }
    state.counters["inliers"] = setup.analysis.stabilizer->motion_logs[0].ninliers;
}
BENCHMARK(BM_EstimateEarlyStop)->Apply(picture_sizes);

// Every third pair is an outlier: no model reaches three quarters, and all 293 samples are drawn.
void BM_EstimateAllDraws(benchmark::State& state) {
    Setup setup(state);
    auto& points = setup.analysis.stabilizer->matched_next;
    for (std::size_t i = 0; i < points.size(); i += 3) {
        points[i].x += 10.0F + static_cast<float>(i % 37);
        points[i].y -= 10.0F + static_cast<float>(i % 23);
    }
    for (auto _ : state) {
        setup.analysis.estimate();
    }
    state.counters["inliers"] = setup.analysis.stabilizer->motion_logs[0].ninliers;
}
BENCHMARK(BM_EstimateAllDraws)->Apply(picture_sizes);

void BM_Smooth(benchmark::State& state) {
    Setup setup(state);
    for (auto _ : state) {
        setup.analysis.smooth();
    }
}
BENCHMARK(BM_Smooth)->Args({1280, 720})->Unit(benchmark::kMicrosecond);

}  // namespace
