// SPDX-License-Identifier: Apache-2.0

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>

#include "platform/opencl_context.h"

namespace videostabilizer {

cl_context create_opencl_context(cl_platform_id platform, int* error) {
    const cl_context_properties properties[] = {
        CL_CONTEXT_PLATFORM, reinterpret_cast<cl_context_properties>(platform), 0};
    return clCreateContextFromType(properties, CL_DEVICE_TYPE_GPU, nullptr, nullptr, error);
}

}  // namespace videostabilizer
