// What the stage computes before it calls OpenCL.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "warp/picture_limits.h"
#include "warp/warp_parameters.h"

namespace videostabilizer {

namespace {

TEST(WarpParameters, are_the_inverse_of_the_transform_with_the_crop_folded_in) {
    const struct {
        AffineSix transform;
        float crop_ratio;
        AffineSix wp;
    } cases[] = {
        {IDENTITY_TRANSFORM, 0.9F, {0.9F, 0.0F, 64.0F, 0.0F, 0.9F, 36.0F}},
        {IDENTITY_TRANSFORM, 1.0F, IDENTITY_TRANSFORM},
        {{2.0F, 4.0F, 11.0F, 1.0F, 2.0F, -7.0F}, 0.9F, {0.0F, 0.0F, 64.0F, 0.0F, 0.0F, 36.0F}},
        // Shift after turning by 90 degrees and doubling; the inverse is {0 .5 -2.5 -.5 0 2}.
        {{0.0F, -2.0F, 4.0F, 2.0F, 0.0F, 5.0F}, 0.5F, {0.0F, 0.25F, 318.75F, -0.25F, 0.0F, 181.0F}},
    };
    for (const auto& c : cases) {
        EXPECT_THAT(warp_parameters(c.transform, c.crop_ratio, 1280, 720),
                    testing::Pointwise(testing::FloatNear(1e-4F), c.wp));
    }
}

TEST(PictureLimits, let_pass_what_lies_within_its_planes) {
    const struct {
        PictureGeometry picture;
        bool planar;
        bool packed;
        bool fits;
    } cases[] = {
        {{1280, 720, 1280, 640}, false, true, true},
        {{1280, 720, 1280, 640}, true, true, true},
        {{1280, 720, 1312, 640}, false, true, true},    // packed rows leave the strides alone
        {{1080, 720, 1088, 544}, false, false, true},   //
        {{1080, 720, 1088, 540}, false, false, false},  // chroma rows are stride_y apart
        {{1080, 720, 1088, 540}, true, false, true},
        {{1080, 720, 1088, 539}, true, false, false},
        {{1080, 720, 1079, 640}, true, false, false},
        {{101, 33, 101, 50}, true, false, true},
        {{1080, 1, 1088, 544}, false, false, false},
        {{-48, 720, 48, 24}, false, false, false},
        {{16384, 8192, 16384, 8192}, false, true, true},  // 128 MiB
        {{16384, 8193, 16384, 8192}, false, true, false},
        {{1 << 20, 1 << 20, 1 << 20, 1 << 20}, false, true, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(warp_stays_in_planes(c.picture, c.planar, c.packed), c.fits)
            << c.picture.width << " x " << c.picture.height << ", strides " << c.picture.stride_y
            << ", " << c.picture.stride_uv;
    }
}

}  // namespace

}  // namespace videostabilizer
