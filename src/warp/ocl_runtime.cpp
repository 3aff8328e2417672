// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/ocl_runtime.h"

#include <pthread.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/log.h"
#include "platform/opencl_context.h"
#include "warp/ocl.h"
#include "warp/picture_limits.h"

namespace videostabilizer {

namespace {

OclRuntime runtime;

// Guards both set-up and release: only the first of the two that is called ever runs.
pthread_once_t ocl_runtime_once = PTHREAD_ONCE_INIT;

#if VIDEOSTABILIZER_PLAIN
#define VS_BUILD_OPTIONS "-cl-mad-enable -cl-fast-relaxed-math -D PLAIN_WARP"
#else
#define VS_BUILD_OPTIONS "-cl-mad-enable -cl-fast-relaxed-math"
#endif
constexpr char BUILD_OPTIONS[] = VS_BUILD_OPTIONS;
// For devices whose constant buffers are too small for the source planes.
constexpr char GLOBAL_PLANES_BUILD_OPTIONS[] = VS_BUILD_OPTIONS " -D SOURCE_PLANES_GLOBAL";

struct Free {
    void operator()(void* block) const { std::free(block); }
};
template <typename Element>
using HeapArray = std::unique_ptr<Element[], Free>;

// `count` zeroed elements, or null with an error in the log.
template <typename Element>
HeapArray<Element> allocate(std::size_t count) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): OpenCL's handles are pointers
    HeapArray<Element> block(static_cast<Element*>(std::calloc(count, sizeof(Element))));
    if (block == nullptr) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, OUT_OF_MEMORY_TEXT);
    }
    return block;
}

void log_error(const char* text) {
    __android_log_print(LOG_ERROR, WARP_OCL_TAG, "%s", text);
}

HeapArray<cl_platform_id> get_platforms() {
    cl_uint count = 0;
    if (!ocl_succeeded(clGetPlatformIDs(0, nullptr, &count), "clGetPlatformIDs")) {
        log_error("Failed to get num of platforms.");
        return nullptr;
    }
    if (count == 0) {
        log_error("There is no OpenCL platforms!");
        return nullptr;
    }
    HeapArray<cl_platform_id> platforms = allocate<cl_platform_id>(count);
    if (platforms == nullptr) {
        return nullptr;
    }
    if (!ocl_succeeded(clGetPlatformIDs(count, platforms.get(), nullptr), "clGetPlatformIDs")) {
        log_error("Failed to get platforms!");
        return nullptr;
    }
    return platforms;
}

HeapArray<cl_device_id> get_devices(cl_context context) {
    std::size_t bytes = 0;
    if (!ocl_succeeded(clGetContextInfo(context, CL_CONTEXT_DEVICES, 0, nullptr, &bytes),
                       "clGetContextInfo") ||
        bytes < sizeof(cl_device_id)) {
        log_error("Failed to get devices!");
        return nullptr;
    }
    HeapArray<cl_device_id> devices = allocate<cl_device_id>(bytes / sizeof(cl_device_id));
    if (devices == nullptr) {
        return nullptr;
    }
    if (!ocl_succeeded(clGetContextInfo(context, CL_CONTEXT_DEVICES, bytes, devices.get(), nullptr),
                       "clGetContextInfo")) {
        log_error("Failed to get devices!");
        return nullptr;
    }
    return devices;
}

const char* build_options(cl_device_id device) {
    cl_ulong constant_bytes = 0;  // assumed if the query fails
    ocl_succeeded(clGetDeviceInfo(device, CL_DEVICE_MAX_CONSTANT_BUFFER_SIZE,
                                  sizeof(constant_bytes), &constant_bytes, nullptr),
                  "clGetDeviceInfo");
    const bool constant = constant_bytes >= static_cast<cl_ulong>(LARGEST_PLANE_BYTES);
    __android_log_print(LOG_INFO, WARP_OCL_TAG,
                        "Constant buffers of up to %llu bytes: source planes are %s",
                        static_cast<unsigned long long>(constant_bytes),
                        constant ? "__constant" : "__global const");
    return constant ? BUILD_OPTIONS : GLOBAL_PLANES_BUILD_OPTIONS;
}

void log_build_log(cl_program program, cl_device_id device) {
    std::size_t bytes = 0;
    if (!ocl_succeeded(
            clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, 0, nullptr, &bytes),
            "clGetProgramBuildInfo")) {
        log_error("get buildlog failed.\n");
        return;
    }
    const HeapArray<char> text = allocate<char>(bytes + 1);  // NUL-terminated
    if (text == nullptr) {
        return;
    }
    if (!ocl_succeeded(clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, bytes,
                                             text.get(), nullptr),
                       "clGetProgramBuildInfo")) {
        log_error("get buildlog failed.\n");
        return;
    }
    constexpr char RULE[] = " ************************************************\n";
    log_error(" \n\t\t\tOpenCL BUILD LOG\n");
    log_error(RULE);
    __android_log_print(LOG_ERROR, WARP_OCL_TAG, "%s\n", text.get());
    log_error(RULE);
}

bool build_program(cl_program program, cl_device_id device) {
    const char* const options = build_options(device);
    const cl_int error = clBuildProgram(program, 1, &device, options, nullptr, nullptr);
    if (ocl_succeeded(error, "clBuildProgram")) {
        return true;
    }
    __android_log_print(LOG_ERROR, WARP_OCL_TAG, "There is some error in buliding program: %d\n",
                        error);
    if (error == CL_BUILD_PROGRAM_FAILURE) {
        log_build_log(program, device);
    }
    return false;
}

// A failure leaves context and program unreleased: this runs once per process, and releasing after
// an error is where drivers are unreliable.
void ocl_runtime_setup() {
    const HeapArray<cl_platform_id> platforms = get_platforms();
    if (platforms == nullptr) {
        return;
    }
    char vendor[100] = {};  // terminated even if the query fails
    clGetPlatformInfo(platforms[0], CL_PLATFORM_VENDOR, sizeof(vendor), vendor, nullptr);
    vendor[sizeof(vendor) - 1] = '\0';
    __android_log_print(LOG_INFO, WARP_OCL_TAG, "OpenCL platform info: %s", vendor);

    cl_int error = CL_SUCCESS;
    runtime.platform = platforms[0];
    cl_context context = create_opencl_context(runtime.platform, &error);
    if (!ocl_succeeded(error, "clCreateContextFromType")) {
        log_error("Failed to create context!");
        return;
    }
    runtime.context = context;
    HeapArray<cl_device_id> devices = get_devices(runtime.context);
    if (devices == nullptr) {
        return;
    }
    const std::size_t length = std::strlen(kernel_source_code);
    runtime.program =
        clCreateProgramWithSource(runtime.context, 1, &kernel_source_code, &length, &error);
    if (!ocl_succeeded(error, "clCreateProgramWithSource")) {
        log_error("Failed to create program!");
        return;
    }
    if (!build_program(runtime.program, devices[0])) {
        return;
    }
    log_error("OpenCL built program successfully.");  // not an error despite its priority
    runtime.devices = devices.release();
    // Stored last, because other threads read it without a lock.
    __atomic_store_n(&runtime.initialized, 1, __ATOMIC_RELEASE);
}

void ocl_runtime_release() {
    if (runtime.initialized == 0) {
        return;
    }
    std::free(runtime.devices);
    clReleaseProgram(runtime.program);
    clReleaseContext(runtime.context);
    runtime = OclRuntime{};
}

}  // namespace

OclRuntime& ocl_runtime() {
    return runtime;
}

int affine_transformer_ocl_module_init() {
    pthread_once(&ocl_runtime_once, ocl_runtime_setup);
    return runtime.initialized;
}

int affine_transformer_ocl_module_fini() {
    pthread_once(&ocl_runtime_once, ocl_runtime_release);
    return 0;
}

}  // namespace videostabilizer
