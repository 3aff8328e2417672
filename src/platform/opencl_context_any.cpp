// SPDX-License-Identifier: Apache-2.0

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>

#include "platform/log.h"
#include "platform/opencl_context.h"

namespace videostabilizer {

cl_context create_opencl_context(cl_platform_id platform, int* error) {
    const cl_context_properties properties[] = {
        CL_CONTEXT_PLATFORM, reinterpret_cast<cl_context_properties>(platform), 0};
    cl_context context =
        clCreateContextFromType(properties, CL_DEVICE_TYPE_GPU, nullptr, nullptr, error);
    if (*error == CL_DEVICE_NOT_FOUND) {
        __android_log_print(LOG_INFO, "warp_affine_ocl",
                            "The OpenCL platform has no GPU; using its other devices");
        context = clCreateContextFromType(properties, CL_DEVICE_TYPE_ALL, nullptr, nullptr, error);
    }
    return context;
}

}  // namespace videostabilizer
