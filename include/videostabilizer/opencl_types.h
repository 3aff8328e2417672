#pragma once

// The OpenCL handle types that appear in the library's records, declared exactly as the OpenCL
// headers declare them, so that a host needs those headers only if it calls OpenCL itself.

typedef struct _cl_platform_id* cl_platform_id;
typedef struct _cl_device_id* cl_device_id;
typedef struct _cl_context* cl_context;
typedef struct _cl_command_queue* cl_command_queue;
typedef struct _cl_mem* cl_mem;
typedef struct _cl_program* cl_program;
typedef struct _cl_kernel* cl_kernel;
