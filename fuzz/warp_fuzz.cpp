// SPDX-License-Identifier: Apache-2.0

// The CPU warps: any matrix, any size. They give the bytes of the reference, which clamps the
// coordinates of every sample, and touch nothing else.

#include "fuzz/fuzz_input.h"
#include "tests/cpu_warp/expected_warp.h"

namespace {

constexpr int LARGEST_SIDE = 72;  // pixels: more than four runs of 16, and sizes between

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const int choice = input.byte();
    const WarpVariant& variant = warp_variants[choice % 5];
    const bool camera = (choice & 16) != 0;  // a matrix as a shaking camera has it; else any
    int width = input.in_range(-1, LARGEST_SIDE);
    int height = input.in_range(-1, LARGEST_SIDE);
    if (variant.vector && input.flag()) {  // what its vector code takes
        width = (width + 16) / 16 * 16;
        height = (height + 2) / 2 * 2;
    }
    Affine matrix = {1, 0, 0, 0, 1, 0};
    for (std::size_t i = 0; i < matrix.size(); ++i) {
        const float number = input.number();
        matrix[i] = camera ? matrix[i] + number / (i % 3 == 2 ? 64.0F : 4096.0F) : number;
    }
    const Bytes source = input.picture(packed_picture(variant.layout, width, height).bytes);
    fuzz::require(agrees_with_reference(variant, source, matrix, width, height),
                  "the bytes of the reference");
    return 0;
}
