// SPDX-License-Identifier: Apache-2.0

// The warp of whole pictures on the OpenCL device, transfers included, beside that on the processors,
// frame by frame in turns. Linked with the internals.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdio>
#include <vector>

#include "bench/measure.h"
#include "bench/usual_map.h"
#include "gpu_warp/opencl_device.h"
#include "gpu_warp/opencl_picture_warper.h"
#include "picture_warp/native_warper.h"
#include "videostabilizer/affine_transformer_ocl.h"
#include "videostabilizer/result.h"

namespace {

using namespace videostabilizer;

struct Picture {
    explicit Picture(const PictureShape& shape) {
        for (int k = 0; k < shape.planes; ++k) {
            const PlaneShape& plane = shape.plane[k].shape;
            planes.stride[k] = plane.width * plane.format.channels * plane.format.bytes;
            bytes[k].resize(static_cast<std::size_t>(planes.stride[k]) *
                            static_cast<std::size_t>(plane.height));
            for (std::size_t i = 0; i < bytes[k].size(); ++i) {
                bytes[k][i] = static_cast<unsigned char>(i * 37 / 8);
            }
            planes.data[k] = bytes[k].data();
        }
    }

    std::vector<unsigned char> bytes[3];
    PicturePlanes planes{};
};

// height of 16:9, bits (8: planar, 10: P010), sharp, transforms
void BM_PictureWarp(benchmark::State& state) {
    const auto height = static_cast<int>(state.range(0));
    const bool deep = state.range(1) > 8;
    const PixelLayout layout{
        CHROMA_420, CHROMA_SITING_LEFT, deep ? 10 : 8, deep ? 1 : 0, deep ? 1 : 0, 0, {}};
    const PictureShape shape = picture_shape(height * 16 / 9, height, layout);
    const Resampling resampling = state.range(2) != 0 ? Resampling::LANCZOS3 : Resampling::BILINEAR;
    const WarpMap map = bench::usual_map(static_cast<int>(state.range(3)), height);
    const Picture source(shape);
    Picture target(shape);
    Picture native_target(shape);
    NativeWarper native(shape, resampling, 0);
    const auto device = OpenclPictureWarper::create(shape, resampling);
    if (device == nullptr) {
        state.SkipWithError("no warp on this device");
        return;
    }
    device->warp(source.planes, map, target.planes);
    bench::Runs runs;
    bench::Runs native_runs;
    for (auto _ : state) {
        runs.time([&] { device->warp(source.planes, map, target.planes); });
        state.SetIterationTime(runs.wall.back());
        native_runs.time([&] { native.warp(source.planes, map, native_target.planes); });
    }
    for (int k = 0; k < shape.planes; ++k) {
        if (target.bytes[k] != native_target.bytes[k]) {
            state.SkipWithError("differs from the native warp");
        }
    }
    state.counters["opencl_ms"] = 1e3 * bench::median(runs.wall);
    state.counters["opencl_cpu_ms"] = 1e3 * bench::median(runs.cpu);
    state.counters["native_ms"] = 1e3 * bench::median(native_runs.wall);
    state.counters["native_cpu_ms"] = 1e3 * bench::median(native_runs.cpu);
}
BENCHMARK(BM_PictureWarp)
    ->ArgNames({"height", "bits", "sharp", "transforms"})
    ->ArgsProduct({{1080, 2160}, {8, 10}, {0, 1}, {1}})
    ->Args({1080, 8, 1, 16})
    ->Args({2160, 8, 1, 16})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    if (affine_transformer_ocl_module_init() != 1) {
        std::fprintf(stderr, "no usable OpenCL device\n");
        return 1;
    }
    benchmark::AddCustomContext("device", opencl_device_is_gpu() ? "GPU" : "processor");
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
