// SPDX-License-Identifier: Apache-2.0

#pragma once

// The OpenCL handle types in the library's records, declared as the OpenCL headers do, so that
// hosts need those headers only if they call OpenCL themselves.

typedef struct _cl_platform_id* cl_platform_id;      // as in <CL/cl.h>
typedef struct _cl_device_id* cl_device_id;          //
typedef struct _cl_context* cl_context;              //
typedef struct _cl_command_queue* cl_command_queue;  //
typedef struct _cl_mem* cl_mem;                      //
typedef struct _cl_program* cl_program;              //
typedef struct _cl_kernel* cl_kernel;                //
