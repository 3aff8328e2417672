#pragma once

// What the files of this folder that call OpenCL have in common.

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>

#include "videostabilizer/ocl_runtime.h"

namespace videostabilizer {

constexpr char WARP_OCL_TAG[] = "warp_affine_ocl";

// The one OclRuntime of the process.
OclRuntime& ocl_runtime();

// Wraps every OpenCL call whose result matters: a failed one is logged with its name and its error,
// at info priority, so that the caller's own message can follow.
//
//     if (!ocl_succeeded(clFinish(queue), "clFinish")) ...
bool ocl_succeeded(cl_int error, const char* call);

}  // namespace videostabilizer
