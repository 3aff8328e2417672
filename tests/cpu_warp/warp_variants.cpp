// SPDX-License-Identifier: Apache-2.0

#include "tests/cpu_warp/warp_variants.h"

#include <array>

#include "simplela/affine_inverse.h"
#include "videostabilizer/warp_affine.h"

using namespace videostabilizer;

namespace {

// warp_affine_neon as a caller in its own right uses it.
void inner_routine(unsigned char* source, unsigned char* destination, float* matrix, int width,
                   int height) {
    const auto w = static_cast<float>(width);
    const auto h = static_cast<float>(height);
    const float limits[] = {w - 1.0F, w - 1.001F, h - 1.0F, h - 1.001F};
    std::array<float, 32> constants{};
    for (std::size_t i = 0; i < constants.size(); ++i) {
        constants[i] = i < 8    ? static_cast<float>(i)
                       : i < 24 ? limits[(i - 8) / 4]
                                : static_cast<float>(2 * (i - 24));
    }
    float wp[6];
    SimpleLA::invert_affine(matrix, wp);
    warp_affine_neon(source, destination, wp, width, height, constants.data());
}

}  // namespace

const WarpVariant warp_variants[5] = {
    // name              run              layout                 vector any size
    {"warpAffine", warpAffine, Layout::SEMI_PLANAR, false, true},
    {"warpAffine_420p", warpAffine_420p, Layout::PLANAR, false, true},
    {"warpAffine_rgb", warpAffine_rgb, Layout::FOUR_CHANNELS, false, true},
    {"warpAffine_neon", warpAffine_neon, Layout::SEMI_PLANAR, true, true},
    {"warp_affine_neon", inner_routine, Layout::SEMI_PLANAR, true, false},
};

PictureLayout packed_picture(Layout layout, int width, int height) {
    if (width < 1 || height < 1) {
        return {};
    }
    const std::size_t luma = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    if (layout == Layout::FOUR_CHANNELS) {
        return {4 * luma, width, height, width, 4, 4 * width, {}};
    }
    const bool pairs = layout == Layout::SEMI_PLANAR;
    const int row = pairs ? width : width / 2;
    const std::size_t v = luma + (pairs ? 1 : luma / 4);
    const auto chroma = static_cast<std::size_t>(row) * static_cast<std::size_t>(height / 2);
    return {(pairs ? luma : v) + chroma,
            width,
            height,
            width,
            1,
            width,
            {row, pairs ? 2 : 1, width / 2, luma, v}};
}
