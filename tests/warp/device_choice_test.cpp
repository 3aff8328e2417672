// Which devices the set-up takes, for both settings: TAKES_ANY_DEVICE says which this build has.

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/warp/warp_log.h"
#include "videostabilizer/affine_transformer_ocl.h"
#include "warp/ocl.h"

namespace videostabilizer {

namespace {

bool first_platform_has_gpu() {
    cl_platform_id platform = nullptr;
    cl_uint count = 0;
    EXPECT_EQ(clGetPlatformIDs(1, &platform, nullptr), CL_SUCCESS);
    return clGetDeviceIDs(platform, CL_DEVICE_TYPE_GPU, 0, nullptr, &count) == CL_SUCCESS;
}

bool was_logged(const LogEntry& wanted) {
    const std::vector<LogEntry> lines = warp_log(4);
    return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

TEST(DeviceChoice, is_a_gpu_or_what_the_build_allows_instead) {
    const bool has_gpu = first_platform_has_gpu();
    const bool ready = has_gpu || TAKES_ANY_DEVICE != 0;

    EXPECT_EQ(affine_transformer_ocl_module_init(), ready ? 1 : 0);
    EXPECT_EQ(was_logged({4, "The OpenCL platform has no GPU; using its other devices"}),
              !has_gpu && TAKES_ANY_DEVICE != 0);
    EXPECT_EQ(was_logged({6, "Failed to create context!"}), !ready);
    EXPECT_EQ(was_logged({4, "clCreateContextFromType: CL_DEVICE_NOT_FOUND (-1)"}), !ready);

    AffineTransformerOcl* const t = affine_transformer_ocl_create(0, nullptr, {}, 1);
    EXPECT_EQ(t != nullptr, ready);
    affine_transformer_ocl_delete(t);
}

}  // namespace

}  // namespace videostabilizer
