// SPDX-License-Identifier: Apache-2.0

// The work of the OpenCL device: the kernel in all variants, and the transfers.

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_clip.h"
#include "bench/measure.h"
#include "tests/warp/kernel_variants.h"

using namespace videostabilizer;

namespace {

using Bytes = std::vector<unsigned char>;

void picture_sizes(benchmark::internal::Benchmark* b) {
    b->ArgNames({"w", "h"})->Unit(benchmark::kMicrosecond)->UseManualTime();
    b->Args({640, 480})->Args({1280, 720})->Args({1920, 1080});
}

// The queue and buffers of an idle warp stage, with a picture in the source buffers.
struct Device {
    bench::Clip clip;
    VideoStabilizer* stabilizer;
    AffineTransformerOcl* stage;
    cl_command_queue queue;
    std::size_t luma_bytes;
    std::size_t chroma_bytes;

    explicit Device(const benchmark::State& state)
        : clip(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)), 1),
          stabilizer(video_stabilizer_create(clip.width, clip.height, clip.width, clip.width / 2,
                                             PIX_FMT_YUV420P, 0, 1, nullptr)),
          stage(stabilizer->transformer),
          queue(stage->cmd_queue),
          luma_bytes(clip.luma_bytes()),
          chroma_bytes(luma_bytes / 2) {
        // A slight rotation and zoom, as in corrections: rows are read obliquely.
        const float wp[6] = {0.9F, 0.01F, 40.0F, -0.01F, 0.9F, 36.0F};
        clEnqueueWriteBuffer(queue, stage->mem_wp, CL_TRUE, 0, sizeof wp, wp, 0, nullptr, nullptr);
        set_arguments(stage->kernel);
        upload();
        run(stage->kernel);
    }
    ~Device() { video_stabilizer_delete(stabilizer); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    void set_arguments(cl_kernel kernel) const {
        const cl_mem buffers[] = {stage->mem_src_y, stage->mem_src_uv, stage->mem_dst_y,
                                  stage->mem_dst_uv, stage->mem_wp};
        cl_uint index = 0;
        for (const cl_mem& buffer : buffers) {
            clSetKernelArg(kernel, index++, sizeof(cl_mem), &buffer);
        }
        const cl_int geometry[] = {clip.width, clip.height, clip.width, clip.width / 2};
        for (const cl_int& value : geometry) {
            clSetKernelArg(kernel, index++, sizeof value, &value);
        }
    }

    void enqueue_upload() const {
        const unsigned char* const pixels = clip.frames[0].data();
        clEnqueueWriteBuffer(queue, stage->mem_src_y, CL_FALSE, 0, luma_bytes, pixels, 0, nullptr,
                             nullptr);
        clEnqueueWriteBuffer(queue, stage->mem_src_uv, CL_FALSE, 0, chroma_bytes,
                             pixels + luma_bytes, 0, nullptr, nullptr);
    }
    void enqueue_kernel(cl_kernel kernel) const {
        const std::size_t items[] = {static_cast<std::size_t>(clip.width / stage->pixels_per_item),
                                     static_cast<std::size_t>(clip.height)};
        clEnqueueNDRangeKernel(queue, kernel, 2, nullptr, items, nullptr, 0, nullptr, nullptr);
    }
    void upload() const {
        enqueue_upload();
        clFinish(queue);
    }
    void run(cl_kernel kernel) const {
        enqueue_kernel(kernel);
        clFinish(queue);
    }
    void download(Bytes& pixels) const {
        clEnqueueReadBuffer(queue, stage->mem_dst_y, CL_FALSE, 0, luma_bytes, pixels.data(), 0,
                            nullptr, nullptr);
        clEnqueueReadBuffer(queue, stage->mem_dst_uv, CL_TRUE, 0, chroma_bytes,
                            pixels.data() + luma_bytes, 0, nullptr, nullptr);
    }
};

// The stage's kernel, built with the options of a variant.
struct Kernel {
    cl_program program;
    cl_kernel kernel;

    Kernel(const Device& device, const KernelVariant& variant)
        : program(clCreateProgramWithSource(device.stage->runtime->context, 1, &kernel_source_code,
                                            nullptr, nullptr)) {
        clBuildProgram(program, 1, device.stage->runtime->devices, variant.options, nullptr,
                       nullptr);
        kernel = clCreateKernel(program, "warp_affine_line_yuv420p", nullptr);
        device.set_arguments(kernel);
    }
    ~Kernel() {
        clReleaseKernel(kernel);
        clReleaseProgram(program);
    }
    Kernel(const Kernel&) = delete;
    Kernel& operator=(const Kernel&) = delete;

    Bytes picture(const Device& device) const {
        Bytes pixels(device.luma_bytes + device.chroma_bytes);
        device.run(kernel);
        device.download(pixels);
        return pixels;
    }
};

// A variant, the plain kernel and a copy of the planes, alternating.
void BM_WarpKernel(benchmark::State& state, const KernelVariant& variant) {
    const Device device(state);
    const Kernel plain(device, kernel_variants[0]);
    const Kernel fast(device, variant);
    Bytes copy = plain.picture(device);
    if (fast.picture(device) != copy) {
        state.SkipWithError("differs from the plain kernel");
        return;
    }
    bench::Runs runs;
    bench::Runs plain_runs;
    bench::Runs copies;
    for (auto _ : state) {
        runs.time([&] { device.run(fast.kernel); });
        state.SetIterationTime(runs.wall.back());
        plain_runs.time([&] { device.run(plain.kernel); });
        copies.time([&] {
            std::memcpy(copy.data(), device.clip.frames[0].data(), copy.size());
            benchmark::ClobberMemory();
        });
    }
    const double cpu = bench::median(runs.cpu);
    state.counters["wall_us"] = 1e6 * bench::median(runs.wall);
    state.counters["cpu_us"] = 1e6 * cpu;
    state.counters["plain_cpu_us"] = 1e6 * bench::median(plain_runs.cpu);
    state.counters["speedup"] = bench::median(plain_runs.wall) / bench::median(runs.wall);
    state.counters["cpu_saved_x"] = bench::median(plain_runs.cpu) / cpu;
    state.counters["x_memcpy"] = cpu / bench::median(copies.cpu);
}

// The cost of a frame on the device, part by part, and as in the stage with one wait.
void BM_WarpParts(benchmark::State& state) {
    const Device device(state);
    Bytes output(device.luma_bytes + device.chroma_bytes);
    bench::Runs uploads;
    bench::Runs kernels;
    bench::Runs downloads;
    bench::Runs whole;
    bench::Runs copies;
    for (auto _ : state) {
        uploads.time([&] { device.upload(); });
        kernels.time([&] { device.run(device.stage->kernel); });
        downloads.time([&] { device.download(output); });
        copies.time([&] {
            std::memcpy(output.data(), device.clip.frames[0].data(), output.size());
            benchmark::ClobberMemory();
        });
        whole.time([&] {
            device.enqueue_upload();
            device.enqueue_kernel(device.stage->kernel);
            device.download(output);
        });
        state.SetIterationTime(whole.wall.back());
    }
    state.counters["upload_us"] = 1e6 * bench::median(uploads.wall);
    state.counters["kernel_us"] = 1e6 * bench::median(kernels.wall);
    state.counters["download_us"] = 1e6 * bench::median(downloads.wall);
    state.counters["copy_us"] = 1e6 * bench::median(copies.wall);
    state.counters["whole_us"] = 1e6 * bench::median(whole.wall);
    state.counters["whole_cpu_us"] = 1e6 * bench::median(whole.cpu);
}
BENCHMARK(BM_WarpParts)->Apply(picture_sizes);

[[maybe_unused]] const bool registered = [] {
    for (const KernelVariant& variant : kernel_variants) {
        const std::string name = std::string("BM_WarpKernel/") + variant.name;
        benchmark::RegisterBenchmark(name.c_str(), [&variant](benchmark::State& state) {
            BM_WarpKernel(state, variant);
        })->Apply(picture_sizes);
    }
    return true;
}();

}  // namespace
