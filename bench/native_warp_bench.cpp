// SPDX-License-Identifier: Apache-2.0

// The native warp of whole 4:2:0 pictures on one thread: every variant, linear and sharp, 8 and 10
// bits, and the sampling of the kernels, beside a copy of the planes. Linked with the internals.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstring>
#include <iterator>
#include <vector>

#include "bench/usual_map.h"
#include "native_warp/plane_warp.h"
#include "native_warp/stated_variants.h"

namespace {

using namespace videostabilizer;

constexpr int SIZES[][2] = {{1280, 720}, {1920, 1080}, {3840, 2160}};

struct Picture {
    Picture(int width, int height, const SampleFormat& format)
        : shapes{{width, height, format},
                 {width / 2, height / 2, format},
                 {width / 2, height / 2, format}} {
        for (int p = 0; p < 3; ++p) {
            planes[p].resize(static_cast<std::size_t>(shapes[p].width) *
                             static_cast<std::size_t>(shapes[p].height * format.bytes));
            for (std::size_t i = 0; i < planes[p].size(); i += 1) {
                // High bytes stay small, so that values stay below 2^10.
                const bool high = format.bytes == 2 && i % 2 == 1;
                planes[p][i] = static_cast<unsigned char>(high ? i / 64 % 4 : i * 37 / 8);
            }
        }
    }
    std::ptrdiff_t stride(int p) const { return shapes[p].width * shapes[p].format.bytes; }

    PlaneShape shapes[3];
    std::vector<unsigned char> planes[3];
};

// variant, size, bytes a sample, sharp, transforms
void BM_NativeWarp(benchmark::State& state) {
    const WarpVariant& variant = warp_variants[state.range(0)];
    if (!cpu_supports(variant.level)) {
        state.SkipWithError("not supported by this processor");
        return;
    }
    const int width = SIZES[state.range(1)][0];
    const int height = SIZES[state.range(1)][1];
    const bool deep = state.range(2) == 2;
    const SampleFormat format{deep ? 2 : 1, deep ? 10 : 8, 0, 1};
    const Picture source(width, height, format);
    Picture target(width, height, format);
    const WarpMap map = bench::usual_map(static_cast<int>(state.range(4)), height);
    ResamplingKernels kernels(state.range(3) != 0 ? Resampling::LANCZOS3 : Resampling::BILINEAR);
    WarpMap plane;
    PlaneWarp warp;
    WarpScratch scratch;
    for (auto _ : state) {
        for (int p = 0; p < 3; ++p) {
            const PlaneGrid grid = p == 0 ? PlaneGrid{} : PlaneGrid{2, 2, 0, 0.5};
            plane_map(map, grid, plane);
            warp.prepare(source.shapes[p], plane, kernels);
            warp.warp_rows(variant, {source.planes[p].data(), source.stride(p)},
                           {target.planes[p].data(), target.stride(p)}, 0, source.shapes[p].height,
                           scratch);
        }
        benchmark::ClobberMemory();
    }
    state.SetLabel(variant.name);
}

// variant, size, bytes a sample
void BM_StatedWarp(benchmark::State& state) {
    const StatedVariant& variant = stated_variants[state.range(0)];
    if (!cpu_supports(variant.level)) {
        state.SkipWithError("not supported by this processor");
        return;
    }
    const bool deep = state.range(2) == 2;
    const Picture source(SIZES[state.range(1)][0], SIZES[state.range(1)][1],
                         {deep ? 2 : 1, deep ? 10 : 8, 0, 1});
    Picture target = source;
    const Affine2 t = bench::usual_map(1, 1).transforms[0];
    const auto element = [](double value) { return static_cast<float>(value); };
    const float wp[] = {element(t.a), element(t.b), element(t.c),
                        element(t.d), element(t.e), element(t.f)};
    for (auto _ : state) {
        for (int p = 0; p < 3; ++p) {
            const PlaneShape& shape = source.shapes[p];
            const SourcePlane from{source.planes[p].data(), source.stride(p)};
            const TargetPlane to{target.planes[p].data(), target.stride(p)};
            if (p == 0) {
                variant.luma(shape, wp, from, to, 0, shape.height);
            } else {
                variant.chroma(shape, {2, 2, 0, 0}, wp, from, to, 0, shape.height);
            }
        }
        benchmark::ClobberMemory();
    }
    state.SetLabel(variant.name);
}

void BM_CopyPicture(benchmark::State& state) {
    const Picture source(SIZES[state.range(0)][0], SIZES[state.range(0)][1],
                         {static_cast<int>(state.range(1)), 8, 0, 1});
    Picture target = source;
    for (auto _ : state) {
        for (int p = 0; p < 3; ++p) {
            std::memcpy(target.planes[p].data(), source.planes[p].data(), source.planes[p].size());
        }
        benchmark::ClobberMemory();
    }
}

void rows(benchmark::internal::Benchmark* bench) {
    bench->ArgNames({"variant", "size", "bytes", "sharp", "transforms"});
    const int fastest = static_cast<int>(std::size(warp_variants)) - 1;
    for (int variant = 0; variant <= fastest; ++variant) {
        for (const int sharp : {0, 1}) {
            for (const int bytes : {1, 2}) {
                bench->Args({variant, 0, bytes, sharp, 1});
            }
        }
    }
    bench->Args({fastest, 0, 1, 1, 16})->Args({fastest, 1, 1, 1, 1})->Args({fastest, 2, 1, 1, 1});
}

BENCHMARK(BM_NativeWarp)->Apply(rows)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StatedWarp)
    ->ArgNames({"variant", "size", "bytes"})
    ->ArgsProduct({{0, static_cast<long>(std::size(stated_variants)) - 1}, {0, 1}, {1, 2}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyPicture)
    ->ArgNames({"size", "bytes"})
    ->ArgsProduct({{0, 1, 2}, {1, 2}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
