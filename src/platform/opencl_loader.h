// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace videostabilizer {

// The file names under which opencl_loader.cpp looks for an OpenCL library, ending with null; the
// first that can be opened is used. Read by the first OpenCL call of the process.
extern const char* const* opencl_libraries;

}  // namespace videostabilizer
