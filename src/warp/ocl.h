// SPDX-License-Identifier: Apache-2.0

#pragma once

// Shared by the files that call OpenCL.

#define CL_TARGET_OPENCL_VERSION 120
#include <CL/cl.h>

#include "videostabilizer/ocl_runtime.h"

namespace videostabilizer {

constexpr char WARP_OCL_TAG[] = "warp_affine_ocl";

// The one OclRuntime of the process.
OclRuntime& ocl_runtime();

// Whether an OpenCL call succeeded. A failure is logged with the call and the error, at info
// priority; the caller logs its own message.
//
//     if (!ocl_succeeded(clFinish(queue), "clFinish")) ...
bool ocl_succeeded(cl_int error, const char* call);

}  // namespace videostabilizer
