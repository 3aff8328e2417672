// SPDX-License-Identifier: Apache-2.0

// From the start of a process to its first output frame, part by part, with an empty and with a
// filled cache of compiled kernels.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bench/measure.h"

namespace fs = std::filesystem;

namespace {

// A temporary folder for PoCL's compiled kernels. Other drivers cache elsewhere, if at all.
struct CacheFolder {
    fs::path path;
    CacheFolder() {
        std::string name = fs::temp_directory_path() / "videostabilizer-cache-XXXXXX";
        path = mkdtemp(name.data());
    }
    ~CacheFolder() { fs::remove_all(path); }
    CacheFolder(const CacheFolder&) = delete;
    CacheFolder& operator=(const CacheFolder&) = delete;
};

// Runs a process to its first frame and adds the time of each part. False if it failed.
bool add_run(const CacheFolder& cache, const benchmark::State& state, const char* engine,
             std::map<std::string, std::vector<double>>& parts) {
    const fs::path program = fs::read_symlink("/proc/self/exe").parent_path() / "bench_first_frame";
    const std::string command = "POCL_CACHE_DIR='" + cache.path.string() + "' '" +
                                program.string() + "' " + std::to_string(state.range(0)) + " " +
                                std::to_string(state.range(1)) + " " + engine + " " +
                                std::to_string(bench::seconds_of(CLOCK_MONOTONIC));
    // NOLINTNEXTLINE(cert-env33-c): a program of ours, by a path of ours
    std::FILE* const output = popen(command.c_str(), "r");
    if (output == nullptr) {
        return false;
    }
    char name[32];
    double milliseconds = 0;
    double total = 0;
    while (std::fscanf(output, "%31s %lf", name, &milliseconds) == 2) {
        parts[name].push_back(milliseconds);
        total += milliseconds;
    }
    parts["total_ms"].push_back(total);
    return pclose(output) == 0;
}

void BM_StartUp(benchmark::State& state, const char* engine, bool warm) {
    std::map<std::string, std::vector<double>> parts;
    const CacheFolder warm_cache;
    std::map<std::string, std::vector<double>> ignored;
    if (warm && !add_run(warm_cache, state, engine, ignored)) {
        state.SkipWithError("no first frame");
    }
    for (auto _ : state) {
        const CacheFolder cold_cache;
        if (!add_run(warm ? warm_cache : cold_cache, state, engine, parts)) {
            state.SkipWithError("no first frame");
            break;
        }
        state.SetIterationTime(1e-3 * parts["total_ms"].back());
    }
    for (const auto& [name, times] : parts) {
        state.counters[name] = bench::median(times);
    }
}
void start_up(benchmark::internal::Benchmark* b) {
    b->ArgNames({"w", "h"})->Args({1280, 720})->UseManualTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK_CAPTURE(BM_StartUp, native, "native", true)->Apply(start_up)->Iterations(15);
BENCHMARK_CAPTURE(BM_StartUp, cold, "opencl", false)->Apply(start_up)->Iterations(5);
BENCHMARK_CAPTURE(BM_StartUp, warm, "opencl", true)->Apply(start_up)->Iterations(15);

}  // namespace
