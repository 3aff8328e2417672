// SPDX-License-Identifier: Apache-2.0

// Whole streams, push to pop, and the share of each stage in the work of a frame; both by size.

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "bench/bench_clip.h"
#include "bench/measure.h"

using namespace videostabilizer;

namespace {

constexpr int CLIP_FRAMES = 30;

void picture_sizes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"w", "h"})->Unit(benchmark::kMillisecond);
    b->Args({640, 480})->Args({1280, 720})->Args({1920, 1080});
}

// Clips take longer to make than to stabilise, so benchmarks of a size share one.
bench::Clip& clip_of(const benchmark::State& state) {
    static std::map<std::pair<int, int>, std::unique_ptr<bench::Clip>> clips;
    const auto size =
        std::make_pair(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    auto& clip = clips[size];
    if (clip == nullptr) {
        clip = std::make_unique<bench::Clip>(size.first, size.second, CLIP_FRAMES);
    }
    return *clip;
}

using MakeFrame = std::function<Frame*(int number)>;

// A running stream and its host, a thread that pushes as fast as it can.
class Stream {
  public:
    Stream(VideoStabilizer* stabilizer, MakeFrame make) : stabilizer_(stabilizer) {
        video_stabilizer_start(stabilizer_);
        producer_ = std::thread([this, make = std::move(make)] {
            int number = 0;
            while (video_stabilizer_push_frame(stabilizer_, make(number)) == 0) {
                ++number;
            }
        });
    }
    // Of the defaults.
    explicit Stream(bench::Clip& clip)
        : Stream(video_stabilizer_create(clip.width, clip.height, clip.width, clip.width / 2,
                                         PIX_FMT_YUV420P, 0, 0, nullptr),
                 [&clip](int number) { return clip.frame(number); }) {}
    ~Stream() {
        video_stabilizer_stop(stabilizer_);
        producer_.join();
        video_stabilizer_delete(stabilizer_);
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void pop(int frames = 1) {
        Frame* frame = nullptr;
        for (int i = 0; i < frames && video_stabilizer_pop_frame(stabilizer_, &frame) == 0; ++i) {
            frame_delete(frame);
        }
    }
    // Until the pipeline is full and the caches are warm.
    void warm_up() { pop(CLIP_FRAMES); }
    // Until it holds the most memory.
    void wait_until_full() const {
        while (video_stabilizer_output_full(stabilizer_) == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the stage's next frame
    }
    int scale() const { return stabilizer_->scale; }

  private:
    VideoStabilizer* stabilizer_;
    std::thread producer_;
};

// Samples the states of the process's other threads, and counts how often none of them was running
// or runnable: the share of the time that is lost in hand-overs.
class IdleSampler {
  public:
    IdleSampler() : thread_([this] { sample(); }) {}
    double stop() {
        stopping_.store(true);
        thread_.join();
        return samples_ == 0 ? 0.0 : 100.0 * idle_ / samples_;
    }

  private:
    static bool runs(const std::string& task) {
        std::ifstream file("/proc/self/task/" + task + "/stat");
        std::string text;
        std::getline(file, text);
        const std::size_t name_end = text.rfind(')');
        return name_end != std::string::npos && text.compare(name_end, 3, ") R") == 0;
    }
    void sample() {
        const std::string self = std::to_string(gettid());
        while (!stopping_.load()) {
            // Unlike any frame period.
            std::this_thread::sleep_for(std::chrono::microseconds(2000 + 37 * (samples_ % 61)));
            bool busy = false;
            std::error_code gone;  // of tasks that have ended
            for (const auto& task : std::filesystem::directory_iterator("/proc/self/task", gone)) {
                const std::string id = task.path().filename();
                busy = busy || (id != self && runs(id));
            }
            ++samples_;
            idle_ += busy ? 0 : 1;
        }
    }

    std::atomic<bool> stopping_{false};
    int samples_ = 0;  // this and the next belong to the thread until it is joined
    int idle_ = 0;
    std::thread thread_;
};

// The lower bound: the planes of a frame copied to the device and back, by memcpy.
double copies_of_a_frame(const bench::Clip& clip) {
    std::vector<unsigned char> copy(clip.frames[0].size());
    bench::Runs runs;
    for (int i = 0; i < 20; ++i) {
        runs.time([&] {
            for (int way = 0; way < 2; ++way) {
                const auto& from = clip.frames[static_cast<std::size_t>(2 * i + way) % CLIP_FRAMES];
                std::memcpy(copy.data(), from.data(), copy.size());
                benchmark::ClobberMemory();
            }
        });
    }
    return bench::median(runs.cpu);
}

// One stream as long as the benchmark runs; an iteration is one frame popped.
void measure(benchmark::State& state, const bench::Clip& clip, Stream& stream) {
    stream.warm_up();
    const double cpu_start = bench::seconds_of(CLOCK_PROCESS_CPUTIME_ID);
    for (auto _ : state) {
        stream.pop();
    }
    const double cpu = (bench::seconds_of(CLOCK_PROCESS_CPUTIME_ID) - cpu_start) /
                       static_cast<double>(state.iterations());
    IdleSampler sampler;
    const double end = bench::seconds_of(CLOCK_MONOTONIC) + 1.0;
    while (bench::seconds_of(CLOCK_MONOTONIC) < end) {
        stream.pop();
    }
    state.counters["idle_%"] = sampler.stop();
    const double copies = copies_of_a_frame(clip);
    state.counters["fps"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["cpu_ms"] = 1e3 * cpu;
    state.counters["copies_ms"] = 1e3 * copies;
    state.counters["x_copies"] = cpu / copies;
}

void BM_Pipeline(benchmark::State& state) {
    bench::Clip& clip = clip_of(state);
    Stream stream(clip);
    measure(state, clip, stream);
}

// The clip's pictures with twice the bytes, and the other two bits zero.
std::vector<std::vector<unsigned char>> in_ten_bits(const bench::Clip& clip) {
    std::vector<std::vector<unsigned char>> pictures;
    for (const auto& frame : clip.frames) {
        std::vector<unsigned char> picture;
        picture.reserve(2 * frame.size());
        for (const unsigned char level : frame) {
            picture.push_back(static_cast<unsigned char>(level << 2));
            picture.push_back(static_cast<unsigned char>(level >> 6));
        }
        pictures.push_back(std::move(picture));
    }
    return pictures;
}

// The same analysis and path as BM_Pipeline's, with the native engine.
void BM_Native(benchmark::State& state, VideoStabilizerSampling sampling, int bit_depth) {
    bench::Clip& clip = clip_of(state);
    VideoStabilizerOptions options;
    video_stabilizer_options_init(&options);
    options.engine = STABILIZER_ENGINE_NATIVE;
    options.sampling = sampling;
    PixelLayout layout{};
    layout.bit_depth = bit_depth;
    std::vector<std::vector<unsigned char>> ten_bits;
    if (bit_depth == 10) {
        ten_bits = in_ten_bits(clip);
    }
    auto& pictures = bit_depth == 10 ? ten_bits : clip.frames;
    const auto make = [&](int number) {
        auto& bytes = pictures[static_cast<std::size_t>(number) % pictures.size()];
        const int row = clip.width * (bit_depth > 8 ? 2 : 1);
        PicturePlanes planes = {{bytes.data()}, {row, row / 2, row / 2}};
        planes.data[1] = planes.data[0] + static_cast<std::ptrdiff_t>(row) * clip.height;
        planes.data[2] = planes.data[1] + static_cast<std::ptrdiff_t>(row) * clip.height / 4;
        return picture_frame_create(clip.width, clip.height, &layout, &planes);
    };
    Stream stream(video_stabilizer_create_for_pictures(clip.width, clip.height, &layout, 0, nullptr,
                                                       &options),
                  make);
    measure(state, clip, stream);
}
BENCHMARK_CAPTURE(BM_Native, stated, STABILIZER_SAMPLING_STATED, 8)
    ->Apply(picture_sizes)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Native, bilinear, STABILIZER_SAMPLING_BILINEAR, 8)
    ->Apply(picture_sizes)
    ->Args({3840, 2160})
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Native, sharp, STABILIZER_SAMPLING_SHARP, 8)
    ->Apply(picture_sizes)
    ->Args({3840, 2160})
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_Native, sharp_10_bits, STABILIZER_SAMPLING_SHARP, 10)
    ->Apply(picture_sizes)
    ->Args({3840, 2160})
    ->UseRealTime();
BENCHMARK(BM_Pipeline)->Apply(picture_sizes)->Args({2560, 1440})->Args({3840, 2160})->UseRealTime();

// Bytes allocated on the heap. (Resident memory says little once earlier benchmarks have freed
// some.)
double heap_bytes() {
    const struct mallinfo2 heap = mallinfo2();
    return static_cast<double>(heap.uordblks) + static_cast<double>(heap.hblkhd);
}

// The memory of a stream that waits for a pop, without its input frames, which are the host's:
// source and destination buffers, two analysis images, and three output frames, one in the warp
// stage and two in the output queue.
double formula_bytes(const bench::Clip& clip, int scale) {
    const auto luma = static_cast<double>(clip.luma_bytes());
    return 2 * 1.5 * luma + 2 * luma / (scale * scale) + 3 * 1.5 * luma;
}

// Several streams at once: an iteration is a number of frames of each.
void BM_Streams(benchmark::State& state) {
    constexpr int FRAMES = 100;
    const int count = static_cast<int>(state.range(2));
    bench::Clip& clip = clip_of(state);
    {
        Stream first(clip);  // excludes the cost of a process's first stream
        first.warm_up();
    }
    const double before = heap_bytes();
    std::vector<std::unique_ptr<Stream>> streams;
    for (int i = 0; i < count; ++i) {
        streams.push_back(std::make_unique<Stream>(clip));
        streams.back()->warm_up();
        streams.back()->wait_until_full();
    }
    const double held = heap_bytes() - before;
    bench::Runs runs;
    for (auto _ : state) {
        runs.time([&] {
            std::vector<std::thread> hosts;
            hosts.reserve(streams.size());
            for (auto& stream : streams) {
                hosts.emplace_back([&stream] { stream->pop(FRAMES); });
            }
            for (std::thread& host : hosts) {
                host.join();
            }
        });
        state.SetIterationTime(runs.wall.back());
    }
    const double frames = static_cast<double>(FRAMES) * count;
    state.counters["total_fps"] = frames / bench::median(runs.wall);
    state.counters["cpu_ms"] = 1e3 * bench::median(runs.cpu) / frames;
    state.counters["MB_each"] = 1e-6 * held / count;
    state.counters["formula_MB"] = 1e-6 * formula_bytes(clip, streams[0]->scale());
}
BENCHMARK(BM_Streams)
    ->ArgNames({"w", "h", "streams"})
    ->Args({1280, 720, 1})
    ->Args({1280, 720, 2})
    ->Args({1280, 720, 4})
    ->Args({1280, 720, 8})
    ->UseManualTime()
    ->MinTime(2.0)
    ->Unit(benchmark::kMillisecond);

enum Stage { DECIMATE, CORNERS, TRACK, ESTIMATE, SMOOTH, WARP, STAGES };
constexpr std::array<const char*, STAGES> STAGE_NAMES = {"decimate", "corners", "track",
                                                         "estimate", "smooth",  "warp"};

// Runs the stages of a frame one after another on one thread, a frame per iteration, and returns
// the mean seconds of each. The warp is that of the stage, with the hand-over to its thread.
std::array<double, STAGES> run_stages(benchmark::State& state, bench::Clip& clip,
                                      bench::Analysis& analysis) {
    using Clock = std::chrono::steady_clock;
    AffineTransformerOcl* const stage = analysis.stabilizer->transformer;
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
    std::array<double, STAGES> spent{};
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
            spent[i] += std::chrono::duration<double>(at[i + 1] - at[i]).count();
        }
    }
    for (double& seconds : spent) {
        seconds /= number - 1;
    }
    return spent;
}

void BM_StageShares(benchmark::State& state) {
    bench::Clip& clip = clip_of(state);
    bench::Analysis analysis(clip);
    const auto spent = run_stages(state, clip, analysis);
    const double total = std::accumulate(spent.begin(), spent.end(), 0.0);
    for (std::size_t i = 0; i < STAGES; ++i) {
        state.counters[std::string(STAGE_NAMES[i]) + "_%"] = 100.0 * spent[i] / total;
    }
}
BENCHMARK(BM_StageShares)->Apply(picture_sizes)->UseRealTime();

// The stages by the number of corners, which depends on the size of the detector's cells: the
// library's own are 64 analysis pixels wide here.
void BM_CornerCounts(benchmark::State& state) {
    bench::Clip& clip = clip_of(state);
    bench::Analysis analysis(clip);
    analysis.stabilizer->fast_params.cell_size = static_cast<int>(state.range(2));
    const auto spent = run_stages(state, clip, analysis);
    for (const Stage stage : {CORNERS, TRACK, ESTIMATE, WARP}) {
        state.counters[std::string(STAGE_NAMES[stage]) + "_us"] = 1e6 * spent[stage];
    }
    state.counters["count"] = static_cast<double>(analysis.stabilizer->prev_points.size());
}
BENCHMARK(BM_CornerCounts)
    ->ArgNames({"w", "h", "cells"})
    ->Args({1280, 720, 64})
    ->Args({1280, 720, 32})
    ->Args({1280, 720, 16})
    ->Args({1280, 720, 8})
    ->Args({1280, 720, 4})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
