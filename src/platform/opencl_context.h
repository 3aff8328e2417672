// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/opencl_types.h"

namespace videostabilizer {

// Creates a context on the GPUs of `platform`. Without a GPU, opencl_context_any.cpp uses the other
// devices and opencl_context_gpu.cpp fails; a build contains one of the two.
//
// Returns: the context, to be released by the caller, if *error is 0. Otherwise *error is an OpenCL
//          error and the result is undefined: not all drivers return null.
cl_context create_opencl_context(cl_platform_id platform, int* error);

}  // namespace videostabilizer
