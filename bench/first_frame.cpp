// SPDX-License-Identifier: Apache-2.0

// Measures the start-up of its own process; run by the start-up benchmark.
//
//     bench_first_frame WIDTH HEIGHT ENGINE STARTED
//
// ENGINE is "opencl", with the defaults, or "native", with the strength standard. STARTED is when the process was started, in seconds on the monotonic clock. Prints a line
// "part milliseconds" for each part from there to the first output frame.

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench/measure.h"
#include "videostabilizer/videostabilizer.h"

using namespace videostabilizer;

namespace {

double build_seconds = 0;
double first_launch_seconds = 0;  // until the warp stage has the first frame back

double now() {
    return bench::seconds_of(CLOCK_MONOTONIC);
}

}  // namespace

extern "C" {

int __android_log_print(int, const char*, const char*, ...) {
    return 0;
}

// Interposed before the loader's functions: the calls of the library that take time.

cl_int clBuildProgram(cl_program program, cl_uint count, const cl_device_id* devices,
                      const char* options, void(CL_CALLBACK* done)(cl_program, void*), void* user) {
    const auto build =
        reinterpret_cast<decltype(&clBuildProgram)>(dlsym(RTLD_NEXT, "clBuildProgram"));
    const double start = now();
    const cl_int result = build(program, count, devices, options, done, user);
    build_seconds += now() - start;
    return result;
}

cl_int clEnqueueReadBuffer(cl_command_queue queue, cl_mem buffer, cl_bool blocking, size_t offset,
                           size_t bytes, void* to, cl_uint count, const cl_event* waits,
                           cl_event* event) {
    static const auto read =
        reinterpret_cast<decltype(&clEnqueueReadBuffer)>(dlsym(RTLD_NEXT, "clEnqueueReadBuffer"));
    const double start = now();
    const cl_int result = read(queue, buffer, blocking, offset, bytes, to, count, waits, event);
    if (blocking != CL_FALSE && first_launch_seconds == 0) {
        first_launch_seconds = now() - start;
    }
    return result;
}

}  // extern "C"

int main(int argc, char** argv) {
    const double in_main = now();
    if (argc != 5) {
        return 2;
    }
    const int width = std::atoi(argv[1]);
    const int height = std::atoi(argv[2]);
    const bool native = std::strcmp(argv[3], "native") == 0;
    const double started = std::atof(argv[4]);
    if (!native && video_stabilizer_module_init() != 0) {
        return 1;
    }
    const double ready = now();
    VideoStabilizerOptions options;
    video_stabilizer_options_for_strength(&options, STABILIZER_STANDARD);
    options.engine = STABILIZER_ENGINE_NATIVE;
    VideoStabilizer* const s = video_stabilizer_create_with_options(
        width, height, width, width / 2, PIX_FMT_YUV420P, 0, nullptr, native ? &options : nullptr);
    if (s == nullptr || video_stabilizer_start(s) != 0) {
        return 1;
    }
    const double running = now();
    const auto luma = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<unsigned char> picture(luma * 3 / 2, 128);
    for (int i = 0; i < 11; ++i) {
        video_stabilizer_push_frame(
            s, frame_create(width, height, width, width / 2, PIX_FMT_YUV420P, picture.data()));
    }
    Frame* frame = nullptr;
    if (video_stabilizer_pop_frame(s, &frame) != 0) {
        return 1;
    }
    const double out = now();
    std::printf("load_ms %f\nopencl_ms %f\nbuild_ms %f\ncreate_ms %f\nlaunch_ms %f\nrest_ms %f\n",
                1e3 * (in_main - started), 1e3 * (ready - in_main - build_seconds),
                1e3 * build_seconds, 1e3 * (running - ready), 1e3 * first_launch_seconds,
                1e3 * (out - running - first_launch_seconds));
    frame_delete(frame);
    video_stabilizer_stop(s);
    video_stabilizer_delete(s);
    return 0;
}
