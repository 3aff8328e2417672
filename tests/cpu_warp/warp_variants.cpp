#include "tests/cpu_warp/warp_variants.h"

#include <array>

#include "simplela/affine_inverse.h"
#include "videostabilizer/warp_affine.h"

using namespace videostabilizer;

namespace {

// warp_affine_neon as a caller of his own right would use it.
void inner_routine(unsigned char* source, unsigned char* destination, float* matrix, int width,
                   int height) {
    std::array<float, 32> constants{};
    for (std::size_t i = 0; i < 4; ++i) {
        constants[i] = static_cast<float>(i);
        constants[4 + i] = static_cast<float>(4 + i);
        constants[8 + i] = static_cast<float>(width) - 1.0F;
        constants[12 + i] = static_cast<float>(width) - 1.001F;
        constants[16 + i] = static_cast<float>(height) - 1.0F;
        constants[20 + i] = static_cast<float>(height) - 1.001F;
        constants[24 + i] = static_cast<float>(2 * i);
        constants[28 + i] = static_cast<float>(8 + 2 * i);
    }
    float wp[6];
    SimpleLA::invert_affine(matrix, wp);
    warp_affine_neon(source, destination, wp, width, height, constants.data());
}

}  // namespace

const WarpVariant warp_variants[5] = {
    // name              run              layout                 vector any size  plain tolerance
    {"warpAffine", warpAffine, Layout::SEMI_PLANAR, false, true, warpAffine, 0},
    {"warpAffine_420p", warpAffine_420p, Layout::PLANAR, false, true, warpAffine_420p, 0},
    {"warpAffine_rgb", warpAffine_rgb, Layout::FOUR_CHANNELS, false, true, warpAffine_rgb, 0},
    {"warpAffine_neon", warpAffine_neon, Layout::SEMI_PLANAR, true, true, warpAffine, 1},
    {"warp_affine_neon", inner_routine, Layout::SEMI_PLANAR, true, false, warpAffine, 1},
};

bool runs_vector_code(const WarpVariant& variant, int width, int height) {
    return variant.vector && width > 0 && width % 16 == 0 && width <= 32768 && height > 0 &&
           height % 2 == 0 && height <= 32768;
}

std::size_t picture_bytes(Layout layout, int width, int height) {
    if (width < 1 || height < 1) {
        return 0;
    }
    const auto w = static_cast<std::size_t>(width);
    const auto h = static_cast<std::size_t>(height);
    switch (layout) {
        case Layout::SEMI_PLANAR:
            return w * h + w * (h / 2);
        case Layout::PLANAR:
            return w * h + w * h / 4 + (w / 2) * (h / 2);
        case Layout::FOUR_CHANNELS:
            return w * h * 4;
    }
    return 0;
}

std::vector<unsigned char> noise_picture(std::size_t bytes, std::uint32_t seed) {
    std::vector<unsigned char> picture(bytes);
    for (unsigned char& byte : picture) {
        seed = seed * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(seed >> 24U);
    }
    return picture;
}
