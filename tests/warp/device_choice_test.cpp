// SPDX-License-Identifier: Apache-2.0

// Which devices the set-up takes, for both settings: TAKES_ANY_DEVICE says which this build has.

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "videostabilizer/affine_transformer_ocl.h"
#include "warp/ocl.h"

using namespace videostabilizer;
using test_support::count_log;

TEST(DeviceChoice, IsAGpuOrWhatTheBuildAllowsInstead) {
    cl_platform_id platform = nullptr;
    cl_uint count = 0;
    ASSERT_EQ(clGetPlatformIDs(1, &platform, nullptr), CL_SUCCESS);
    const bool has_gpu =
        clGetDeviceIDs(platform, CL_DEVICE_TYPE_GPU, 0, nullptr, &count) == CL_SUCCESS;
    const int ready = has_gpu || TAKES_ANY_DEVICE != 0 ? 1 : 0;

    EXPECT_EQ(affine_transformer_ocl_module_init(), ready);
    EXPECT_EQ(count_log("The OpenCL platform has no GPU; using its other devices"),
              has_gpu ? 0 : ready);
    EXPECT_EQ(count_log("Failed to create context!"), 1 - ready);
    EXPECT_EQ(count_log("clCreateContextFromType: CL_DEVICE_NOT_FOUND (-1)"), 1 - ready);
}
