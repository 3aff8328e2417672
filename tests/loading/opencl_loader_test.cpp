// SPDX-License-Identifier: Apache-2.0

// OpenCL resolved at run time. This program defines the OpenCL functions by opencl_loader.cpp.

#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/opencl_loader.h"
#include "tests/support/log_capture.h"
#include "videostabilizer/ocl_runtime.h"
#include "warp/ocl.h"

using namespace videostabilizer;
using test_support::count_log;

namespace {

// In a process of its own, since a library is looked for once.
TEST(OpenclLoaderDeathTest, WithoutALibrarySetUpFailsWithTheReasonInTheLog) {
    const auto without_library = [] {
        static constexpr const char* NONE[] = {"/nonexistent/libOpenCL.so", nullptr};
        opencl_libraries = NONE;
        cl_int error = CL_SUCCESS;
        const bool as_expected =
            affine_transformer_ocl_module_init() == 0 &&
            count_log("There is no OpenCL library") == 1 &&
            count_log("clGetPlatformIDs: CL_PLATFORM_NOT_FOUND_KHR (-1001)") == 1 &&
            clFinish(nullptr) == -1001 &&
            clCreateBuffer(nullptr, 0, 1, nullptr, &error) == nullptr && error == -1001;
        std::_Exit(as_expected ? 0 : 1);
    };
    EXPECT_EXIT(without_library(), testing::ExitedWithCode(0), "");
}

TEST(OpenclLoader, ServesTheLibraryThatThereIs) {
    EXPECT_EQ(affine_transformer_ocl_module_init(), 1);
    EXPECT_EQ(count_log("There is no OpenCL library"), 0);
}

}  // namespace
