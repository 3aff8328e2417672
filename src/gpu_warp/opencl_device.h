// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace videostabilizer {

// Whether the process's OpenCL is set up, on a GPU: neither a processor nor a GPU in software.
// Threads: thread-safe.
bool opencl_device_is_gpu();

}  // namespace videostabilizer
