// SPDX-License-Identifier: Apache-2.0

// The library exports a main of its own, which the linker would take instead of the one in the
// benchmark library's archive.

#include <benchmark/benchmark.h>

#include <cstdio>

#include "videostabilizer/videostabilizer.h"

// The tracker reports lost points; a benchmark of it is not to measure a terminal.
extern "C" int __android_log_print(int, const char*, const char*, ...) {
    return 0;
}

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    if (videostabilizer::video_stabilizer_module_init() != 0) {
        std::fprintf(stderr, "no usable OpenCL device\n");
        return 1;
    }
    benchmark::AddCustomContext("videostabilizer", videostabilizer::version());
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
