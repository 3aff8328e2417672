#pragma once

#include "videostabilizer/export.h"
#include "videostabilizer/opencl_types.h"

namespace videostabilizer {

// The OpenCL state that all warp stages of the process share. There is one, set up once by
// affine_transformer_ocl_module_init and constant from then on, so stages read it without a lock.
// What is logged about it carries the tag "warp_affine_ocl".
struct OclRuntime {
    int initialized;  // 1 once the program is built; 0 before that and after a failed set-up
    cl_platform_id platform;  // the first platform that the OpenCL loader reports
    cl_context context;       // on the platform's GPUs, or what stands in for them (see init)
    cl_device_id* devices;    // the context's devices; everything uses devices[0]
    cl_program program;       // built from kernel_source_code
};

// The OpenCL C text of the warp kernels. Read once, when the runtime is set up.
extern VIDEOSTABILIZER_API const char* kernel_source_code;

// Sets up the OpenCL runtime of the process: platform, context, devices, program.
// The first call does the work (which compiles the kernels: up to seconds), the others wait for it
// and give its result. A set-up that failed, or that came after the fini below, is not tried again.
// Devices: the platform's GPUs. A library built with the option VIDEOSTABILIZER_ANY_OPENCL_DEVICE
//          takes the platform's other devices where it has none.
// Threads: thread-safe.
// Returns: 1 ready, 0 not ready (the reason is in the log).
VIDEOSTABILIZER_API int affine_transformer_ocl_module_init();

// The counterpart of the init. A runtime that has been set up lives until the process ends, so that
// pairs of init and fini can be repeated; a fini before the first init rules out every later one.
// Threads: thread-safe.
// Returns: 0.
VIDEOSTABILIZER_API int affine_transformer_ocl_module_fini();

// Reads a whole file, such as the text of a kernel, and appends a NUL.
// path:   the file
// source: receives the text, which the caller releases with free()
// length: receives its length in bytes, without the NUL
// Returns: 0, or -1 with the reason in the log and nothing for the caller to release. `*source` is
//          then null, or untouched if the file could not be opened or measured.
// Threads: reentrant.
VIDEOSTABILIZER_API int openKernel(const char* path, char** source, unsigned int* length);

}  // namespace videostabilizer
