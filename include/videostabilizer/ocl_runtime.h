// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/export.h"
#include "videostabilizer/opencl_types.h"

namespace videostabilizer {

// The OpenCL state shared by all warp stages of the process. Set up once by
// affine_transformer_ocl_module_init and constant afterwards, so it is read without a lock.
// Log tag: "warp_affine_ocl".
struct OclRuntime {
    int initialized;          // 1 once the program is built; 0 before, and after a failed set-up
    cl_platform_id platform;  // the first platform that the OpenCL loader reports
    cl_context context;       // on the platform's GPUs, or its other devices (see init)
    cl_device_id* devices;    // of the context; devices[0] is used
    cl_program program;       // built from kernel_source_code
};

// OpenCL C source of the warp kernels. Read once, by module_init.
extern VIDEOSTABILIZER_API const char* kernel_source_code;

// Sets up the OpenCL runtime of the process: platform, context, devices, program.
// The first call does the work (it compiles the kernels, which may take seconds); other calls wait
// for it and return its result. A failed set-up is not retried.
// Devices: the platform's GPUs. A library built with the option VIDEOSTABILIZER_ANY_OPENCL_DEVICE
//          uses the platform's other devices if it has no GPU.
// Threads: thread-safe.
// Returns: 1 ready, 0 not ready (the reason is in the log).
VIDEOSTABILIZER_API int affine_transformer_ocl_module_init();

// Counterpart of init. The runtime lives until the process ends, so pairs of init and fini may be
// repeated. A fini before the first init prevents every later init from succeeding.
// Threads: thread-safe. Returns 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_module_fini();

// Reads a whole file, for example kernel source, and appends a NUL.
// source: receives the text, to be released with free()
// length: receives its length in bytes, without the NUL
// Threads: thread-safe.
// Returns: 0, or -1 with the reason in the log and nothing to release: *source is then null, or
//          untouched if the file could not be opened or its length not be determined. *length is
//          untouched in these cases, except when only seeking back to the start failed.
VIDEOSTABILIZER_API int openKernel(const char* path, char** source, unsigned int* length);

}  // namespace videostabilizer
