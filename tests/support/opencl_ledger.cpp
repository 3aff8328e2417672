#define CL_TARGET_OPENCL_VERSION 120
#define CL_USE_DEPRECATED_OPENCL_1_2_APIS
#include "tests/support/opencl_ledger.h"

#include <CL/cl.h>
#include <dlfcn.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

namespace {

std::atomic<int> live{0};

std::mutex calls_mutex;
std::map<std::string, int> calls;  // under calls_mutex

// The loader's function, whose call is counted.
template <typename Function>
Function* next(const char* name) {
    const std::lock_guard<std::mutex> lock(calls_mutex);
    ++calls[name];
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

int opencl_calls(const char* name) {
    const std::lock_guard<std::mutex> lock(calls_mutex);
    return calls[name];
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

cl_int clBuildProgram(cl_program program, cl_uint count, const cl_device_id* devices,
                      const char* options, void(CL_CALLBACK* done)(cl_program, void*), void* user) {
    return next<decltype(clBuildProgram)>("clBuildProgram")(program, count, devices, options, done,
                                                            user);
}

cl_int clEnqueueWriteBuffer(cl_command_queue queue, cl_mem buffer, cl_bool blocking, size_t offset,
                            size_t bytes, const void* from, cl_uint count, const cl_event* waits,
                            cl_event* event) {
    return next<decltype(clEnqueueWriteBuffer)>("clEnqueueWriteBuffer")(
        queue, buffer, blocking, offset, bytes, from, count, waits, event);
}

cl_int clEnqueueReadBuffer(cl_command_queue queue, cl_mem buffer, cl_bool blocking, size_t offset,
                           size_t bytes, void* to, cl_uint count, const cl_event* waits,
                           cl_event* event) {
    return next<decltype(clEnqueueReadBuffer)>("clEnqueueReadBuffer")(
        queue, buffer, blocking, offset, bytes, to, count, waits, event);
}

cl_int clEnqueueNDRangeKernel(cl_command_queue queue, cl_kernel kernel, cl_uint dimensions,
                              const size_t* offset, const size_t* global, const size_t* local,
                              cl_uint count, const cl_event* waits, cl_event* event) {
    return next<decltype(clEnqueueNDRangeKernel)>("clEnqueueNDRangeKernel")(
        queue, kernel, dimensions, offset, global, local, count, waits, event);
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
