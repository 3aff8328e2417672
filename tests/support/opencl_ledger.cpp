#define CL_TARGET_OPENCL_VERSION 120
#define CL_USE_DEPRECATED_OPENCL_1_2_APIS
#include "tests/support/opencl_ledger.h"

#include <CL/cl.h>
#include <dlfcn.h>

#include <atomic>

namespace {

std::atomic<int> live{0};

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

template <typename Object>
Object counted(Object object) {
    live += object != nullptr ? 1 : 0;
    return object;
}

cl_int uncounted(cl_int code) {
    live -= code == CL_SUCCESS ? 1 : 0;
    return code;
}

}  // namespace

namespace test_support {

int live_opencl_objects() {
    return live.load();
}

}  // namespace test_support

extern "C" {

cl_kernel clCreateKernel(cl_program program, const char* name, cl_int* code) {
    return counted(next<decltype(clCreateKernel)>("clCreateKernel")(program, name, code));
}

cl_command_queue clCreateCommandQueue(cl_context context, cl_device_id device,
                                      cl_command_queue_properties properties, cl_int* code) {
    return counted(next<decltype(clCreateCommandQueue)>("clCreateCommandQueue")(context, device,
                                                                                properties, code));
}

cl_mem clCreateBuffer(cl_context context, cl_mem_flags flags, size_t size, void* host,
                      cl_int* code) {
    return counted(
        next<decltype(clCreateBuffer)>("clCreateBuffer")(context, flags, size, host, code));
}

cl_int clReleaseKernel(cl_kernel kernel) {
    return uncounted(next<decltype(clReleaseKernel)>("clReleaseKernel")(kernel));
}

cl_int clReleaseCommandQueue(cl_command_queue queue) {
    return uncounted(next<decltype(clReleaseCommandQueue)>("clReleaseCommandQueue")(queue));
}

cl_int clReleaseMemObject(cl_mem buffer) {
    return uncounted(next<decltype(clReleaseMemObject)>("clReleaseMemObject")(buffer));
}

}  // extern "C"
