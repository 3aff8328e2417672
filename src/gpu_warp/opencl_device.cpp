// SPDX-License-Identifier: Apache-2.0

#include "gpu_warp/opencl_device.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "warp/ocl.h"

namespace videostabilizer {

namespace {

// Drivers that compute on the processor, and report a GPU where they are told to.
constexpr const char* SOFTWARE[] = {"llvmpipe", "swrast", "softpipe", "software"};

}  // namespace

bool opencl_device_is_gpu() {
    const OclRuntime& runtime = ocl_runtime();
    if (__atomic_load_n(&runtime.initialized, __ATOMIC_ACQUIRE) == 0) {
        return false;
    }
    cl_device_id device = runtime.devices[0];
    cl_device_type type = 0;
    char text[256] = {};
    if (!ocl_succeeded(clGetDeviceInfo(device, CL_DEVICE_TYPE, sizeof(type), &type, nullptr),
                       "clGetDeviceInfo") ||
        (type & CL_DEVICE_TYPE_GPU) == 0 ||
        !ocl_succeeded(clGetDeviceInfo(device, CL_DEVICE_NAME, sizeof(text), text, nullptr),
                       "clGetDeviceInfo")) {
        return false;
    }
    text[sizeof(text) - 1] = '\0';
    return std::none_of(std::begin(SOFTWARE), std::end(SOFTWARE),
                        [&](const char* word) { return strcasestr(text, word) != nullptr; });
}

}  // namespace videostabilizer
