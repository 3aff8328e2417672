#include "tests/faults/opencl_faults.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <tuple>
#include <type_traits>

#include "tests/faults/library_calls.h"
#include "tests/faults/memory_faults.h"

namespace fault_support {

namespace {

std::mutex mutex;
OpenclFault current;               // these, under it
std::map<std::string, int> calls;  // since the fault was set
bool failed = false;
int live = 0;

// CL_SUCCESS, or the error with which this call is to fail.
cl_int next_call(const char* name) {
    const std::lock_guard<std::mutex> lock(mutex);
    const int number = ++calls[name];
    const bool lost = current.device_lost && failed;
    const bool chosen = std::strcmp(current.call, name) == 0 && number >= current.first &&
                        (number <= current.last || current.device_lost);
    if (!lost && !chosen) {
        return CL_SUCCESS;
    }
    failed = true;
    return current.error;
}

void count_object(int change) {
    const std::lock_guard<std::mutex> lock(mutex);
    live += change;
    EXPECT_GE(live, 0) << "released twice";
}

// One function of OpenCL. Those that make an object return it, and their error through their last
// argument; the others return their error.
template <auto FUNCTION>
struct Watched;

template <typename Result, typename... Arguments, Result (*FUNCTION)(Arguments...)>
struct Watched<FUNCTION> {
    static inline const char* name = nullptr;
    static inline bool releases = false;
    static inline bool ends = false;

    static Result call(Arguments... arguments) {
        const cl_int error = next_call(name);
        if constexpr (std::is_pointer_v<Result>) {
            cl_int* const code = std::get<sizeof...(Arguments) - 1>(std::tie(arguments...));
            if (error != CL_SUCCESS) {
                *code = error;
                // NOLINTNEXTLINE(performance-no-int-to-ptr): to nothing, but not null
                return reinterpret_cast<Result>(std::uintptr_t{0x10});
            }
            Result object = FUNCTION(arguments...);
            count_object(*code == CL_SUCCESS ? 1 : 0);
            return object;
        } else {
            count_object(releases ? -1 : 0);
            const cl_int result = ends || error == CL_SUCCESS ? FUNCTION(arguments...) : CL_SUCCESS;
            return error != CL_SUCCESS ? error : result;
        }
    }
};

template <auto FUNCTION>
void watch(const char* name) {
    Watched<FUNCTION>::name = name;
    Watched<FUNCTION>::releases = std::string(name).rfind("clRelease", 0) == 0;
    Watched<FUNCTION>::ends = Watched<FUNCTION>::releases || std::strcmp(name, "clFinish") == 0;
    EXPECT_GT(redirect_calls(LIBRARY, name, reinterpret_cast<void*>(&Watched<FUNCTION>::call)), 0)
        << name;
}

cl_int no_platforms(cl_uint /*entries*/, cl_platform_id* /*platforms*/, cl_uint* count) {
    if (count != nullptr) {
        *count = 0;
    }
    return CL_SUCCESS;
}

}  // namespace

void watch_opencl() {
    static const bool done = [] {
#define WATCH(function) watch<&(function)>(#function)
        WATCH(clBuildProgram);
        WATCH(clCreateBuffer);
        WATCH(clCreateCommandQueue);
        WATCH(clCreateContextFromType);
        WATCH(clCreateKernel);
        WATCH(clCreateProgramWithSource);
        WATCH(clEnqueueNDRangeKernel);
        WATCH(clEnqueueReadBuffer);
        WATCH(clEnqueueWriteBuffer);
        WATCH(clFinish);
        WATCH(clGetContextInfo);
        WATCH(clGetDeviceInfo);
        WATCH(clGetPlatformIDs);
        WATCH(clGetPlatformInfo);
        WATCH(clGetProgramBuildInfo);
        WATCH(clReleaseCommandQueue);
        WATCH(clReleaseContext);
        WATCH(clReleaseKernel);
        WATCH(clReleaseMemObject);
        WATCH(clReleaseProgram);
        WATCH(clSetKernelArg);
#undef WATCH
        return true;
    }();
    static_cast<void>(done);
}

void fail_opencl(const OpenclFault& fault) {
    const std::lock_guard<std::mutex> lock(mutex);
    current = fault;
    calls.clear();
    failed = false;
}

void hide_platforms() {
    redirect_calls(LIBRARY, "clGetPlatformIDs", reinterpret_cast<void*>(no_platforms));
}

int opencl_calls(const std::string& call) {
    const std::lock_guard<std::mutex> lock(mutex);
    return calls[call];
}

bool opencl_has_failed() {
    const std::lock_guard<std::mutex> lock(mutex);
    return failed;
}

int live_opencl_objects() {
    const std::lock_guard<std::mutex> lock(mutex);
    return live;
}

}  // namespace fault_support
