// SPDX-License-Identifier: Apache-2.0

// Every CPU warp, against a plain copy of the same planes and against warpAffine on a picture of
// the same size. The three alternate, so that other load on the machine affects all of them.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "tests/cpu_warp/warp_variants.h"
#include "videostabilizer/warp_affine.h"

namespace {

// A slight rotation and zoom, as in corrections: rows are read obliquely.
constexpr float MATRIX[6] = {1.1F, 0.02F, -60.0F, -0.02F, 1.1F, -30.0F};

// The vector code adds in another order, so that positions differ in their last bit: luma may be off
// by `tolerance` grey levels, and chroma halfway between two samples may be the other one.
bool agree(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b,
           std::size_t luma_bytes, int tolerance) {
    std::size_t other_chroma = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (i < luma_bytes && std::abs(a[i] - b[i]) > tolerance) {
            return false;
        }
        other_chroma += i >= luma_bytes && a[i] != b[i] ? 1U : 0U;
    }
    return other_chroma <= (tolerance == 0 ? 0 : (a.size() - luma_bytes) / 500);
}

void BM_CpuWarp(benchmark::State& state, const WarpVariant& variant) {
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const auto luma_bytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<unsigned char> source =
        noise_picture(packed_picture(variant.layout, width, height).bytes, 1);
    std::vector<unsigned char> target(source.size());
    std::vector<unsigned char> plain_target(source.size());
    float matrix[6];
    std::copy_n(MATRIX, 6, matrix);
    const auto run = [&] {
        variant.run(source.data(), target.data(), matrix, width, height);
        benchmark::ClobberMemory();
    };
    std::vector<unsigned char> semi_planar =
        noise_picture(packed_picture(Layout::SEMI_PLANAR, width, height).bytes, 2);
    std::vector<unsigned char> semi_planar_target(semi_planar.size());
    const auto run_warp_affine = [&] {
        videostabilizer::warpAffine(semi_planar.data(), semi_planar_target.data(), matrix, width,
                                    height);
        benchmark::ClobberMemory();
    };
    const auto copy = [&] {
        std::memcpy(plain_target.data(), source.data(), source.size());
        benchmark::ClobberMemory();
    };

    copy();
    run();
    run_warp_affine();
    const WarpFunction plain = variant.vector ? videostabilizer::warpAffine : variant.run;
    plain(source.data(), plain_target.data(), matrix, width, height);
    if (!agree(target, plain_target, luma_bytes, variant.vector ? 1 : 0)) {
        state.SkipWithError("differs from the plain routine");
        return;
    }
    bench::Runs runs;
    bench::Runs warp_affine_runs;
    bench::Runs copies;
    for (auto _ : state) {
        runs.time(run);
        state.SetIterationTime(runs.wall.back());
        warp_affine_runs.time(run_warp_affine);
        copies.time(copy);
    }
    const double median = bench::median(runs.wall);
    state.counters["median_us"] = 1e6 * median;
    state.counters["spread_%"] =
        100 * (bench::quantile(runs.wall, 0.75) - bench::quantile(runs.wall, 0.25)) / median;
    state.counters["x_memcpy"] = median / bench::median(copies.wall);
    state.counters["x_warpAffine"] = median / bench::median(warp_affine_runs.wall);
}

[[maybe_unused]] const bool registered = [] {
    for (const WarpVariant& variant : warp_variants) {
        const std::string name = std::string("BM_CpuWarp/") + variant.name;
        benchmark::RegisterBenchmark(
            name.c_str(), [&variant](benchmark::State& state) { BM_CpuWarp(state, variant); })
            ->ArgNames({"w", "h"})
            ->Args({1280, 720})
            ->Args({1920, 1080})
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
    return true;
}();

}  // namespace
