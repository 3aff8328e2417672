#pragma once

// A test program that links opencl_ledger.cpp counts the per-stream OpenCL objects: its functions
// of these names stand before the loader's and call them on.

namespace test_support {

int live_opencl_objects();  // kernels, command queues and buffers made and not yet released

}  // namespace test_support
