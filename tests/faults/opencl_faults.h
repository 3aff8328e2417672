#pragma once

#define CL_TARGET_OPENCL_VERSION 120
#define CL_USE_DEPRECATED_OPENCL_1_2_APIS
#include <CL/cl.h>

#include <string>

// Every OpenCL call of the library: counted, made to fail, and its objects kept account of.

namespace fault_support {

// Leads the library's calls through here; once per process, before its threads run.
void watch_opencl();

// What becomes of calls. A call that fails is not made, except for those that end something, which
// are made and say that they failed: a lost device works no more either. Where a failed call should
// give an object, it gives an address that must not be used, as some drivers do.
struct OpenclFault {
    const char* call = "";  // "": none fails
    int first = 1;          // of the calls of this name, counted from 1 ...
    int last = 1;           // ... the first and last one that fails
    cl_int error = CL_OUT_OF_RESOURCES;
    bool device_lost = false;  // from the first on, every call of whatever name fails
};

// Counts from now on.
void fail_opencl(const OpenclFault& fault);

// The library finds no platform from now on, without an error.
void hide_platforms();

// Calls of that name since fail_opencl, and whether one has failed.
int opencl_calls(const std::string& call);
bool opencl_has_failed();

// Contexts, programs, kernels, queues and buffers made and not yet released. A release that is made
// to fail counts as one: there is nothing more that anybody could do.
int live_opencl_objects();

}  // namespace fault_support
