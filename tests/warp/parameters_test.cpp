// What the stage computes before it calls OpenCL.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "warp/picture_limits.h"
#include "warp/warp_parameters.h"

namespace videostabilizer {

namespace {

using testing::FloatNear;
using testing::Pointwise;

TEST(WarpParameters, are_the_inverse_of_the_transform_with_the_crop_folded_in) {
    const AffineSix identity = IDENTITY_TRANSFORM;
    const AffineSix singular = {2.0F, 4.0F, 11.0F, 1.0F, 2.0F, -7.0F};
    EXPECT_THAT(warp_parameters(identity, 0.9F, 1280, 720),
                Pointwise(FloatNear(1e-4F), AffineSix{0.9F, 0.0F, 64.0F, 0.0F, 0.9F, 36.0F}));
    EXPECT_THAT(warp_parameters(identity, 1.0F, 1280, 720), testing::ElementsAreArray(identity));
    EXPECT_THAT(warp_parameters(singular, 0.9F, 1280, 720),
                Pointwise(FloatNear(1e-4F), AffineSix{0.0F, 0.0F, 64.0F, 0.0F, 0.0F, 36.0F}));

    // Through the inverse and the crop, an output position comes from where the text book says.
    const AffineSix transform = {1.1F, -0.2F, 13.0F, 0.25F, 0.95F, -8.0F};
    const AffineSix wp = warp_parameters(transform, 0.5F, 400, 200);
    const float x = wp[0] * 100.0F + wp[1] * 60.0F + wp[2];
    const float y = wp[3] * 100.0F + wp[4] * 60.0F + wp[5];
    const float uncropped_x = (x - 400.0F * 0.25F) / 0.5F;
    const float uncropped_y = (y - 200.0F * 0.25F) / 0.5F;
    EXPECT_NEAR(1.1F * uncropped_x - 0.2F * uncropped_y + 13.0F, 100.0F, 1e-3F);
    EXPECT_NEAR(0.25F * uncropped_x + 0.95F * uncropped_y - 8.0F, 60.0F, 1e-3F);
}

TEST(PictureLimits, let_pass_what_lies_within_its_planes) {
    struct Case {
        PictureGeometry picture;
        bool planar;
        bool packed;
        bool fits;
    };
    const Case cases[] = {
        {{1280, 720, 1280, 640}, false, true, true},
        {{1280, 720, 1280, 640}, true, true, true},
        {{1280, 720, 1312, 640}, false, true, true},    // packed rows leave the strides alone
        {{1080, 720, 1088, 544}, false, false, true},   //
        {{1080, 720, 1088, 540}, false, false, false},  // chroma rows are stride_y apart
        {{1080, 720, 1088, 540}, true, false, true},
        {{1080, 720, 1088, 539}, true, false, false},
        {{1080, 720, 1079, 640}, true, false, false},
        {{101, 33, 101, 51}, false, false, true},
        {{101, 33, 101, 50}, true, false, true},
        {{1080, 1, 1088, 544}, false, false, false},
        {{0, 720, 0, 0}, false, true, false},
        {{-48, 720, 48, 24}, false, false, false},
        {{16384, 8192, 16384, 8192}, false, true, true},  // 128 MiB
        {{16384, 8193, 16384, 8192}, false, true, false},
        {{1 << 20, 1 << 20, 1 << 20, 1 << 20}, false, true, false},
    };
    for (const Case& entry : cases) {
        const PictureGeometry& picture = entry.picture;
        EXPECT_EQ(warp_stays_in_planes(picture, entry.planar, entry.packed), entry.fits)
            << picture.width << " x " << picture.height << ", strides " << picture.stride_y << ", "
            << picture.stride_uv;
    }
}

}  // namespace

}  // namespace videostabilizer
