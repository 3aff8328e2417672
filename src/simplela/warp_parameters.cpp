// SPDX-License-Identifier: Apache-2.0

#include "simplela/warp_parameters.h"

#include "simplela/affine_inverse.h"

namespace videostabilizer {

AffineSix warp_parameters(const AffineSix& transform, float crop_ratio, int width, int height) {
    AffineSix wp{};
    SimpleLA::invert_affine(transform.data(), wp.data());
    if (crop_ratio != 1.0F) {
        const float margin = (1.0F - crop_ratio) * 0.5F;  // on each side, relative to the size
        wp[0] *= crop_ratio;
        wp[1] *= crop_ratio;
        wp[2] = static_cast<float>(width) * margin + wp[2] * crop_ratio;
        wp[3] *= crop_ratio;
        wp[4] *= crop_ratio;
        wp[5] = static_cast<float>(height) * margin + wp[5] * crop_ratio;
    }
    return wp;
}

}  // namespace videostabilizer
