// SPDX-License-Identifier: Apache-2.0

#include <gtest/gtest.h>

#include <future>
#include <limits>

#include "tests/cpu_warp/expected_warp.h"

namespace {

constexpr Affine SLIGHT_TURN = {0.9998F, -0.0175F, 3.3F, 0.0175F, 0.9998F, -2.6F};
constexpr Affine FAR_RIGHT_AND_BELOW = {1, 0, -1e6F, 0, 1, -1e6F};

// Any matrix and size are tried by fuzz/warp_fuzz.cpp; these are what it hardly meets.
constexpr Affine MATRICES[] = {
    SLIGHT_TURN,
    FAR_RIGHT_AND_BELOW,
    {0.3F, 0.01F, 5.1F, -0.02F, 0.4F, 1.7F},
    {-1, 0, 30, 0, -1, 20},
    // Singular; elements, determinants and inverses that overflow or are denormal; offsets that cancel.
    {1, 2, 3, 2, 4, 5},
    {1e30F, 0, 1, 0, 1e30F, 1},
    {1e-30F, 0, 1, 0, 1, 1},
    {3e20F, 0, 1e-3F, 0, 3e17F, 1e-3F},
    {1e-39F, 1e-40F, 1, 1, 1e-39F, 1e-41F},
    {1, 0.001F, 3e7F, -0.001F, 1, 3e7F},
};

// Each in place of each element of the identity.
constexpr float INFINITE = std::numeric_limits<float>::infinity();
constexpr float EXTREMES[] = {1e9F, -1e30F, INFINITE, -INFINITE,
                              std::numeric_limits<float>::quiet_NaN()};

// Each differs from the one before, for the routine that remembers its first.
constexpr std::pair<int, int> SIZES[] = {{2, 2}, {15, 6}, {32, 18}, {80, 130}, {130, 66}};

void expect_reference(const Affine& matrix, int width, int height) {
    for (const WarpVariant& variant : warp_variants) {
        const Bytes picture = noise_picture(packed_picture(variant.layout, width, height).bytes, 7);
        EXPECT_TRUE(agrees_with_reference(variant, picture, matrix, width, height))
            << variant.name << ", " << testing::PrintToString(matrix) << ", " << width << " x "
            << height;
    }
}

TEST(CpuWarp, ComputesTheDefinedBytesForEverySizeAndMatrix) {
    for (const auto& [width, height] : SIZES) {
        for (const Affine& matrix : MATRICES) {
            expect_reference(matrix, width, height);
        }
        for (std::size_t i = 0; i < 6; ++i) {
            for (const float extreme : EXTREMES) {
                Affine matrix = {1, 0, 0, 0, 1, 0};
                matrix[i] = extreme;
                expect_reference(matrix, width, height);
            }
        }
    }
    // From here on size - 1.001 rounds to size - 1, and the last cell would end outside.
    for (const int size : {32768, 32784}) {
        expect_reference(FAR_RIGHT_AND_BELOW, size, 2);
        expect_reference(FAR_RIGHT_AND_BELOW, 16, size);
    }
}

// In a process of its own these are the first calls of all, at once and of four sizes.
TEST(CpuWarp, FirstCallsMayComeAtOnce) {
    std::vector<std::future<void>> calls;
    for (const int width : {48, 64, 80, 96}) {
        calls.push_back(std::async(std::launch::async, expect_reference, SLIGHT_TURN, width, 8));
    }
}

}  // namespace
