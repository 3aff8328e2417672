// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "warp/ocl.h"

namespace videostabilizer {

// OpenCL C source of the kernels in picture_kernels.cl.
extern const char* picture_kernels_source;

// The kernels' program, built by the first call after the process's OpenCL was set up, and kept like
// it until the process ends. A failed build is not retried.
// Threads: thread-safe.
// Returns: null with the reason in the log: OpenCL not set up, the program does not build.
cl_program picture_program();

}  // namespace videostabilizer
