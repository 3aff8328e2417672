// Which devices the set-up takes, for both settings: TAKES_ANY_DEVICE says which this build has.

#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "videostabilizer/affine_transformer_ocl.h"
#include "warp/ocl.h"

namespace videostabilizer {

namespace {

TEST(DeviceChoice, is_a_gpu_or_what_the_build_allows_instead) {
    cl_platform_id platform = nullptr;
    cl_uint count = 0;
    ASSERT_EQ(clGetPlatformIDs(1, &platform, nullptr), CL_SUCCESS);
    const bool has_gpu =
        clGetDeviceIDs(platform, CL_DEVICE_TYPE_GPU, 0, nullptr, &count) == CL_SUCCESS;
    const bool ready = has_gpu || TAKES_ANY_DEVICE != 0;

    EXPECT_EQ(affine_transformer_ocl_module_init(), ready ? 1 : 0);
    using test_support::count_log;
    EXPECT_EQ(count_log("The OpenCL platform has no GPU; using its other devices"),
              !has_gpu && ready ? 1 : 0);
    EXPECT_EQ(count_log("Failed to create context!"), ready ? 0 : 1);
    EXPECT_EQ(count_log("clCreateContextFromType: CL_DEVICE_NOT_FOUND (-1)"), ready ? 0 : 1);
    AffineTransformerOcl* const t = affine_transformer_ocl_create(0, nullptr, {}, 1);
    EXPECT_EQ(t != nullptr, ready);
    affine_transformer_ocl_delete(t);
}

}  // namespace

}  // namespace videostabilizer
