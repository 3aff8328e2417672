// The CPU warps: any matrix, any size, exact buffers. They have to give the bytes of the reference,
// which reads every sample through a check, and to leave alone what they do not write.

#include "fuzz/fuzz_input.h"
#include "tests/cpu_warp/reference_warp.h"
#include "tests/cpu_warp/warp_variants.h"

namespace {

constexpr int LARGEST_SIDE = 72;  // pixels: more than four runs of 16, and sizes between

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const WarpVariant& variant = warp_variants[input.in_range(0, 4)];
    int width = input.in_range(-1, LARGEST_SIDE);
    int height = input.in_range(-1, LARGEST_SIDE);
    if (variant.vector && input.flag()) {  // what its vector code takes
        width = (width + 16) / 16 * 16;
        height = (height + 2) / 2 * 2;
    }
    float matrix[6];
    for (float& element : matrix) {
        element = input.number();
    }
    std::vector<unsigned char> source = input.picture(picture_bytes(variant.layout, width, height));
    std::vector<unsigned char> destination(source.size(), 0x5A);
    std::vector<unsigned char> expected = destination;

    variant.run(source.data(), destination.data(), matrix, width, height);
    const bool by_vectors = VECTOR_WARP && runs_vector_code(variant, width, height);
    if (by_vectors || variant.any_size) {
        reference_warp(variant.layout, by_vectors ? Order::OFFSET_FIRST : Order::ROW_FIRST, source,
                       expected, matrix, width, height);
    }
    fuzz::require(destination == expected, "the bytes of the reference");
    return 0;
}
