// SPDX-License-Identifier: Apache-2.0

#include "pipeline/decimate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "tests/features/picture.h"

namespace {

using namespace videostabilizer;

// Odd widths give steps above the scale (7 / 4 = 1 column, so that the step is 7), and rests.
TEST(Decimate, TakesEveryStepthPixelOfEveryStepthRow) {
    std::mt19937 random(3);
    for (int scale : {1, 2, 3, 4}) {
        for (int width = scale; width < 150; ++width) {
            const int height = scale + width % 7;
            const Picture luma(width, height,
                               [&](int, int) { return static_cast<int>(random() % 256); });
            const int columns = width / scale;
            const int rows = height / scale;
            const Picture expected(columns, rows, [&](int x, int y) {
                return luma.at(x * (width / columns), y * (height / rows));
            });
            std::vector<unsigned char> image(expected.pixels.size());
            decimate_luma(luma.pixels.data(), width, height, scale, image.data());
            ASSERT_EQ(expected.pixels, image) << width << " x " << height << " by " << scale;

            std::vector<unsigned char> row(static_cast<std::size_t>(columns));
            decimate_row(luma.pixels.data(), width / columns, row.data(), columns);
            ASSERT_TRUE(std::equal(row.begin(), row.end(), expected.pixels.begin()));
        }
    }
}

}  // namespace
