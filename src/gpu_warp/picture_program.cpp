// SPDX-License-Identifier: Apache-2.0

#include "gpu_warp/picture_program.h"

#include <cstddef>
#include <cstring>

#include "platform/log.h"

namespace videostabilizer {

namespace {

void log_build_log(cl_program program, cl_device_id device) {
    char text[4096] = {};
    // Longer logs are refused, by some drivers cut.
    if (ocl_succeeded(clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, sizeof(text) - 1,
                                            text, nullptr),
                      "clGetProgramBuildInfo")) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "%s", text);
    }
}

cl_program build() {
    const OclRuntime& runtime = ocl_runtime();
    const std::size_t length = std::strlen(picture_kernels_source);
    cl_int error = CL_SUCCESS;
    cl_program program =
        clCreateProgramWithSource(runtime.context, 1, &picture_kernels_source, &length, &error);
    if (!ocl_succeeded(error, "clCreateProgramWithSource")) {
        return nullptr;
    }
    error = clBuildProgram(program, 1, runtime.devices, "", nullptr, nullptr);
    if (!ocl_succeeded(error, "clBuildProgram")) {
        if (error == CL_BUILD_PROGRAM_FAILURE) {
            log_build_log(program, runtime.devices[0]);
        }
        clReleaseProgram(program);
        return nullptr;
    }
    return program;
}

}  // namespace

cl_program picture_program() {
    if (__atomic_load_n(&ocl_runtime().initialized, __ATOMIC_ACQUIRE) == 0) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG,
                            "OpenCL is not set up: call video_stabilizer_module_init first");
        return nullptr;
    }
    static cl_program program = build();
    if (program == nullptr) {
        __android_log_print(LOG_ERROR, WARP_OCL_TAG, "The kernels for pictures do not build");
    }
    return program;
}

}  // namespace videostabilizer
