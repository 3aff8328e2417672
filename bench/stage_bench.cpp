// Each stage of the pipeline alone.

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>
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

// The floor of every stage that touches the whole picture.
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

// Every third pair is wrong: no model reaches three quarters, and all 293 samples are drawn.
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

// The device's part, on the queue and buffers of an idle warp stage.
struct Device {
    AffineTransformerOcl* stage;
    cl_command_queue queue;
    std::size_t luma_bytes;
    std::size_t chroma_bytes;
    std::size_t global[2];

    explicit Device(const Setup& setup)
        : stage(setup.analysis.stabilizer->transformer),
          queue(stage->cmd_queue),
          luma_bytes(setup.clip.luma_bytes()),
          chroma_bytes(luma_bytes / 2),
          global{static_cast<std::size_t>(setup.clip.width / stage->pixels_per_item),
                 static_cast<std::size_t>(setup.clip.height)} {
        // A slight rotation and zoom, as corrections have: rows are read across.
        const float wp[6] = {0.9F, 0.01F, 40.0F, -0.01F, 0.9F, 36.0F};
        clEnqueueWriteBuffer(queue, stage->mem_wp, CL_TRUE, 0, sizeof wp, wp, 0, nullptr, nullptr);
        const cl_mem buffers[] = {stage->mem_src_y, stage->mem_src_uv, stage->mem_dst_y,
                                  stage->mem_dst_uv, stage->mem_wp};
        cl_uint index = 0;
        for (const cl_mem& buffer : buffers) {
            clSetKernelArg(stage->kernel, index++, sizeof(cl_mem), &buffer);
        }
        const cl_int geometry[] = {setup.clip.width, setup.clip.height, setup.clip.width,
                                   setup.clip.width / 2};
        for (const cl_int& value : geometry) {
            clSetKernelArg(stage->kernel, index++, sizeof value, &value);
        }
    }

    void upload(const unsigned char* pixels) const {
        clEnqueueWriteBuffer(queue, stage->mem_src_y, CL_FALSE, 0, luma_bytes, pixels, 0, nullptr,
                             nullptr);
        clEnqueueWriteBuffer(queue, stage->mem_src_uv, CL_FALSE, 0, chroma_bytes,
                             pixels + luma_bytes, 0, nullptr, nullptr);
    }
    void run() const {
        clEnqueueNDRangeKernel(queue, stage->kernel, 2, nullptr, global, nullptr, 0, nullptr,
                               nullptr);
    }
    void download(unsigned char* pixels) const {
        clEnqueueReadBuffer(queue, stage->mem_dst_y, CL_FALSE, 0, luma_bytes, pixels, 0, nullptr,
                            nullptr);
        clEnqueueReadBuffer(queue, stage->mem_dst_uv, CL_TRUE, 0, chroma_bytes, pixels + luma_bytes,
                            0, nullptr, nullptr);
    }
};

void BM_WarpKernel(benchmark::State& state) {
    Setup setup(state);
    const Device device(setup);
    device.upload(setup.clip.frames[0].data());
    device.run();
    clFinish(device.queue);
    for (auto _ : state) {
        device.run();
        clFinish(device.queue);
    }
}
BENCHMARK(BM_WarpKernel)->Apply(picture_sizes)->UseRealTime();

void BM_Transfers(benchmark::State& state) {
    Setup setup(state);
    const Device device(setup);
    std::vector<unsigned char> output(setup.clip.frames[0].size());
    for (auto _ : state) {
        device.upload(setup.clip.frames[0].data());
        device.download(output.data());
    }
}
BENCHMARK(BM_Transfers)->Apply(picture_sizes)->UseRealTime();

}  // namespace
