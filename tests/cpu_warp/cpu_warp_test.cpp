// SPDX-License-Identifier: Apache-2.0

#include <gtest/gtest.h>

#include <future>
#include <limits>

#include "tests/cpu_warp/expected_warp.h"

namespace {

constexpr Affine IDENTITY = {1, 0, 0, 0, 1, 0};
constexpr Affine SLIGHT_TURN = {0.9998F, -0.0175F, 3.3F, 0.0175F, 0.9998F, -2.6F};
constexpr Affine FAR_RIGHT_AND_BELOW = {1, 0, -1e6F, 0, 1, -1e6F};

constexpr Affine MATRICES[] = {
    IDENTITY,
    SLIGHT_TURN,
    FAR_RIGHT_AND_BELOW,
    {1, 0, -3, 0, 1, 2},
    {1, 0, 0.5F, 0, 1, -0.5F},
    {1.7F, 0, -4.2F, 0, 1.6F, -3.1F},
    {0.3F, 0.01F, 5.1F, -0.02F, 0.4F, 1.7F},
    {1.1F, 0.3F, -6.0F, -0.2F, 0.95F, 2.0F},
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
constexpr float EXTREMES[] = {1e6F,     1e9F,      -1e30F,
                              INFINITE, -INFINITE, std::numeric_limits<float>::quiet_NaN()};

// Around the width of vectors and of blocks, and around everything that is halved. Each differs
// from the one before, for the routine that remembers its first.
constexpr std::pair<int, int> SIZES[] = {
    {0, 4},  {16, 0},  {-16, 4}, {16, -2}, {1, 1},   {1, 6},  {2, 1},  {2, 2},    {3, 5},   {7, 4},
    {8, 8},  {15, 6},  {16, 1},  {16, 2},  {16, 3},  {17, 4}, {18, 2}, {24, 6},   {30, 7},  {31, 5},
    {32, 2}, {32, 18}, {33, 9},  {48, 10}, {50, 12}, {63, 3}, {64, 4}, {80, 130}, {130, 66}};

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
        for (std::size_t i = 0; i < IDENTITY.size(); ++i) {
            for (const float extreme : EXTREMES) {
                Affine matrix = IDENTITY;
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
