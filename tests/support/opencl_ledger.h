#pragma once

// A test program that links opencl_ledger.cpp counts the per-stream OpenCL objects, and the calls
// that cost time: its functions of these names stand before the loader's and call them on.

namespace test_support {

int live_opencl_objects();  // kernels, command queues and buffers made and not yet released

// Calls so far of clBuildProgram, clCreateKernel, clCreateCommandQueue, clCreateBuffer,
// clEnqueueWriteBuffer, clEnqueueReadBuffer or clEnqueueNDRangeKernel.
int opencl_calls(const char* name);

}  // namespace test_support
