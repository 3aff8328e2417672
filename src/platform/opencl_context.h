#pragma once

#include "videostabilizer/opencl_types.h"

namespace videostabilizer {

// Makes a context on the devices of `platform` that the library may use: its GPUs; where it has
// none, opencl_context_any.cpp takes whatever it has, opencl_context_gpu.cpp gives up. A build
// holds one of the two.
//
// Returns: the context, the caller's to release, if *error is 0. With any other *error, which is
//          OpenCL's, what is returned is no context: not all drivers return null then.
cl_context create_opencl_context(cl_platform_id platform, int* error);

}  // namespace videostabilizer
