// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <algorithm>

#include "tests/cpu_warp/warp_variants.h"

// Whether the variant warps `picture` as the reference does, reads nothing behind the picture and
// writes nothing else. VECTOR_WARP: whether the library has vector code.
inline bool agrees_with_reference(const WarpVariant& variant, const Bytes& picture, Affine matrix,
                                  int width, int height) {
    constexpr std::size_t BORDER = 65;
    constexpr unsigned char UNTOUCHED = 0xA5;
    constexpr std::size_t LARGEST = 4U << 20U;
    static thread_local unsigned char* const memory = guarded_memory(LARGEST);
    unsigned char* const source = memory + (LARGEST - picture.size());
    std::copy(picture.begin(), picture.end(), source);
    Bytes actual(picture.size() + 2 * BORDER, UNTOUCHED);
    variant.run(source, &actual[BORDER], matrix.data(), width, height);

    Bytes expected(actual.size(), UNTOUCHED);
    const bool whole_vectors = width > 0 && width % 16 == 0 && width <= 32768 && height > 0 &&
                               height % 2 == 0 && height <= 32768;
    const bool vector = variant.vector && whole_vectors;
    if (vector || variant.any_size) {
        const WarpRules rules = {
            vector && VECTOR_WARP ? WarpRules::OFFSET_FIRST : WarpRules::ROW_TERM_FIRST,
            variant.layout == Layout::PLANAR ? 0.0F : 0.5F};
        reference_warp(packed_picture(variant.layout, width, height), rules,
                       reference_inverse(matrix), source, &expected[BORDER]);
    }
    return actual == expected;
}
