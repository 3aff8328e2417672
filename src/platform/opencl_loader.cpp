// SPDX-License-Identifier: Apache-2.0

// The OpenCL functions that the library calls, for builds that are not linked with an OpenCL library
// but look for one at run time. They are hidden: a host may have its own. Without a library all
// fail, as those of an OpenCL loader do that finds no driver.

#include "platform/opencl_loader.h"

#define CL_TARGET_OPENCL_VERSION 120
#define CL_USE_DEPRECATED_OPENCL_1_1_APIS
#include <CL/cl.h>
#include <dlfcn.h>

#include "platform/log.h"

namespace videostabilizer {

namespace {

constexpr cl_int NO_LIBRARY = -1001;  // CL_PLATFORM_NOT_FOUND_KHR

#if defined(__LP64__)
#define VS_LIBRARIES "lib64"
#else
#define VS_LIBRARIES "lib"
#endif
// By name first, since apps may open by path only what the system shares with them.
constexpr const char* USUAL_LIBRARIES[] = {"libOpenCL.so",
                                           "libOpenCL.so.1",
                                           "/vendor/" VS_LIBRARIES "/libOpenCL.so",
                                           "/system/vendor/" VS_LIBRARIES "/libOpenCL.so",
                                           "/system/" VS_LIBRARIES "/libOpenCL.so",
                                           nullptr};

// Stays open until the process ends, like the state of OpenCL.
void* open_library() {
    for (const char* const* name = opencl_libraries; *name != nullptr; ++name) {
        void* const library = dlopen(*name, RTLD_NOW | RTLD_LOCAL);
        if (library != nullptr) {
            __android_log_print(LOG_INFO, "warp_affine_ocl", "OpenCL library: %s", *name);
            return library;
        }
        // Why a library that exists cannot be used is worth knowing.
        // NOLINTNEXTLINE(concurrency-mt-unsafe): glibc and Bionic have one for each thread
        __android_log_print(LOG_INFO, "warp_affine_ocl", "%s", dlerror());
    }
    __android_log_print(LOG_WARN, "warp_affine_ocl", "There is no OpenCL library");
    return nullptr;
}

void* library() {
    static void* const opened = open_library();
    return opened;
}

template <typename Function>
Function* find(const char* name) {
    void* const from = library();
    return from != nullptr ? reinterpret_cast<Function*>(dlsym(from, name)) : nullptr;
}

cl_int missing() {
    return library() == nullptr ? NO_LIBRARY : CL_INVALID_OPERATION;
}

// The result of functions that return an object.
template <typename Object>
Object none(cl_int* error) {
    if (error != nullptr) {
        *error = missing();
    }
    return nullptr;
}

}  // namespace

const char* const* opencl_libraries = USUAL_LIBRARIES;

}  // namespace videostabilizer

using videostabilizer::find;
using videostabilizer::missing;
using videostabilizer::none;

// NOLINTBEGIN(bugprone-macro-parentheses): parameters and arguments are lists in parentheses

#define VS_FORWARD(name, parameters, arguments)                 \
    cl_int CL_API_CALL name parameters {                        \
        static auto* const found = find<decltype(name)>(#name); \
        return found != nullptr ? found arguments : missing();  \
    }
#define VS_FORWARD_OBJECT(type, name, parameters, arguments)           \
    type CL_API_CALL name parameters {                                 \
        static auto* const found = find<decltype(name)>(#name);        \
        return found != nullptr ? found arguments : none<type>(error); \
    }

extern "C" {

VS_FORWARD(clGetPlatformIDs, (cl_uint entries, cl_platform_id* platforms, cl_uint* count),
           (entries, platforms, count))
VS_FORWARD(clGetPlatformInfo,
           (cl_platform_id platform, cl_platform_info what, size_t size, void* value,
            size_t* value_size),
           (platform, what, size, value, value_size))
VS_FORWARD(clGetDeviceInfo,
           (cl_device_id device, cl_device_info what, size_t size, void* value, size_t* value_size),
           (device, what, size, value, value_size))

VS_FORWARD_OBJECT(cl_context, clCreateContextFromType,
                  (const cl_context_properties* properties, cl_device_type type,
                   void(CL_CALLBACK* notify)(const char*, const void*, size_t, void*), void* user,
                   cl_int* error),
                  (properties, type, notify, user, error))
VS_FORWARD(clGetContextInfo,
           (cl_context context, cl_context_info what, size_t size, void* value, size_t* value_size),
           (context, what, size, value, value_size))
VS_FORWARD(clReleaseContext, (cl_context context), (context))

VS_FORWARD_OBJECT(cl_program, clCreateProgramWithSource,
                  (cl_context context, cl_uint count, const char** texts, const size_t* lengths,
                   cl_int* error),
                  (context, count, texts, lengths, error))
VS_FORWARD(clBuildProgram,
           (cl_program program, cl_uint count, const cl_device_id* devices, const char* options,
            void(CL_CALLBACK* notify)(cl_program, void*), void* user),
           (program, count, devices, options, notify, user))
VS_FORWARD(clGetProgramBuildInfo,
           (cl_program program, cl_device_id device, cl_program_build_info what, size_t size,
            void* value, size_t* value_size),
           (program, device, what, size, value, value_size))
VS_FORWARD(clReleaseProgram, (cl_program program), (program))

VS_FORWARD_OBJECT(cl_kernel, clCreateKernel,
                  (cl_program program, const char* kernel_name, cl_int* error),
                  (program, kernel_name, error))
VS_FORWARD(clGetKernelWorkGroupInfo,
           (cl_kernel kernel, cl_device_id device, cl_kernel_work_group_info what, size_t size,
            void* value, size_t* value_size),
           (kernel, device, what, size, value, value_size))
VS_FORWARD(clSetKernelArg, (cl_kernel kernel, cl_uint index, size_t size, const void* value),
           (kernel, index, size, value))
VS_FORWARD(clReleaseKernel, (cl_kernel kernel), (kernel))

VS_FORWARD_OBJECT(cl_mem, clCreateBuffer,
                  (cl_context context, cl_mem_flags flags, size_t size, void* host, cl_int* error),
                  (context, flags, size, host, error))
VS_FORWARD(clReleaseMemObject, (cl_mem memory), (memory))

VS_FORWARD_OBJECT(cl_command_queue, clCreateCommandQueue,
                  (cl_context context, cl_device_id device, cl_command_queue_properties properties,
                   cl_int* error),
                  (context, device, properties, error))
VS_FORWARD(clFlush, (cl_command_queue queue), (queue))
VS_FORWARD(clFinish, (cl_command_queue queue), (queue))
VS_FORWARD(clReleaseCommandQueue, (cl_command_queue queue), (queue))

VS_FORWARD(clWaitForEvents, (cl_uint count, const cl_event* events), (count, events))
VS_FORWARD(clReleaseEvent, (cl_event event), (event))

VS_FORWARD(clEnqueueWriteBuffer,
           (cl_command_queue queue, cl_mem buffer, cl_bool blocking, size_t offset, size_t size,
            const void* from, cl_uint count, const cl_event* events, cl_event* event),
           (queue, buffer, blocking, offset, size, from, count, events, event))
VS_FORWARD(clEnqueueReadBuffer,
           (cl_command_queue queue, cl_mem buffer, cl_bool blocking, size_t offset, size_t size,
            void* to, cl_uint count, const cl_event* events, cl_event* event),
           (queue, buffer, blocking, offset, size, to, count, events, event))
VS_FORWARD(clEnqueueWriteBufferRect,
           (cl_command_queue queue, cl_mem buffer, cl_bool blocking, const size_t* buffer_origin,
            const size_t* host_origin, const size_t* region, size_t buffer_row, size_t buffer_slice,
            size_t host_row, size_t host_slice, const void* from, cl_uint count,
            const cl_event* events, cl_event* event),
           (queue, buffer, blocking, buffer_origin, host_origin, region, buffer_row, buffer_slice,
            host_row, host_slice, from, count, events, event))
VS_FORWARD(clEnqueueReadBufferRect,
           (cl_command_queue queue, cl_mem buffer, cl_bool blocking, const size_t* buffer_origin,
            const size_t* host_origin, const size_t* region, size_t buffer_row, size_t buffer_slice,
            size_t host_row, size_t host_slice, void* to, cl_uint count, const cl_event* events,
            cl_event* event),
           (queue, buffer, blocking, buffer_origin, host_origin, region, buffer_row, buffer_slice,
            host_row, host_slice, to, count, events, event))
VS_FORWARD(clEnqueueNDRangeKernel,
           (cl_command_queue queue, cl_kernel kernel, cl_uint dimensions, const size_t* first,
            const size_t* items, const size_t* group, cl_uint count, const cl_event* events,
            cl_event* event),
           (queue, kernel, dimensions, first, items, group, count, events, event))

}  // extern "C"

// NOLINTEND(bugprone-macro-parentheses)
