// SPDX-License-Identifier: Apache-2.0

// The corner detector: any picture, any parameters, also those for which its header promises no
// corners. All variants find exactly the corners of the definition.

#include <algorithm>
#include <set>
#include <utility>

#include "features/fast16_variants.h"
#include "fuzz/fuzz_input.h"

using namespace videostabilizer;

namespace {

bool is_same(const KeyPoint& a, const KeyPoint& b) {
    return a.x == b.x && a.y == b.y && a.response == b.response && a.reserved == b.reserved;
}

bool are_same(const std::vector<KeyPoint>& a, const std::vector<KeyPoint>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), is_same);
}

// The segment test: whether 9 consecutive pixels of the circle are all darker or all brighter.
bool passes(const unsigned char* centre, int width, int threshold) {
    static constexpr int X[] = {3, 3, 2, 1, 0, -1, -2, -3, -3, -3, -2, -1, 0, 1, 2, 3};
    int darker = 0;
    int brighter = 0;
    for (std::size_t k = 0; k < 24; ++k) {
        const int difference = centre[X[k % 16] + X[(k + 12) % 16] * width] - *centre;
        darker = difference < -threshold ? darker + 1 : 0;
        brighter = difference > threshold ? brighter + 1 : 0;
        if (darker == 9 || brighter == 9) {
            return true;
        }
    }
    return false;
}

// The detector by its definition: score = largest passing threshold, strict 3x3 maxima, first one
// in scan order per cell and band.
std::vector<KeyPoint> corners_by_definition(const std::vector<unsigned char>& picture, int width,
                                            int height, const FastParams& params) {
    std::vector<int> scores(picture.size(), -1);
    std::vector<KeyPoint> corners;
    std::set<std::pair<int, int>> taken;  // band, cell
    const auto for_each_pixel = [&](const auto& visit) {
        for (int y = params.border_y; y < height - params.border_y; ++y) {
            for (int x = params.border_x; x < width - params.border_x; ++x) {
                visit(x, y, y * width + x);
            }
        }
    };
    const auto at = [](auto& values, int index) {
        return &values[static_cast<std::size_t>(index)];
    };
    for_each_pixel([&](int, int, int index) {
        int threshold = params.threshold;
        while (passes(at(picture, index), width, threshold)) {
            *at(scores, index) = threshold++;
        }
        fuzz::require(
            cornerScore16(at(picture, index), params.pixel, params.threshold) == threshold - 1,
            "the score of the definition");
    });
    for_each_pixel([&](int x, int y, int index) {
        const int score = *at(scores, index);
        bool kept = score >= 0;
        for (int n = 0; kept && params.nonmax_suppression != 0 && n < 9; ++n) {
            const int other = *at(scores, index + n % 3 - 1 + (n / 3 - 1) * width);
            kept = n == 4 || score > std::max(other, 0);
        }
        if (kept && taken.emplace((y + 1) / (params.cell_size / 2), x / params.cell_size).second) {
            corners.push_back({static_cast<float>(x), static_cast<float>(y),
                               params.nonmax_suppression != 0 ? static_cast<float>(score) : 0.0F,
                               0});
        }
    });
    return corners;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const int width = input.in_range(0, input.flag() ? 40 : 200);
    const int height = input.in_range(0, 60);
    const int threshold = input.in_range(-5, input.flag() ? 60 : 270);
    const int suppression = input.byte() % 4;
    const int cell_size = input.in_range(0, 40);
    const int border_x = input.in_range(0, 8);
    const int border_y = input.in_range(0, 8);
    FastParams params{};
    if (fast16_init(&params, threshold, suppression, cell_size, 0, border_x, border_y, width,
                    height) != 0) {
        return 0;
    }
    const std::vector<unsigned char> picture =
        input.picture(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));

    std::vector<KeyPoint> corners(1);
    fast16(picture.data(), corners, width, height, &params);
    if (cell_size < 2 || border_x < 3 || border_y < 3) {
        fuzz::require(corners.empty(), "no corners where the call cannot be served");
    } else if (width > 0) {
        const auto expected = corners_by_definition(picture, width, height, params);
        fuzz::require(are_same(corners, expected), "the corners of the definition");
        for (const CornerVariant& variant : corner_variants) {
            std::vector<KeyPoint> found;
            if (cpu_supports(variant.level)) {
                detect_corners(variant, picture.data(), found, width, height, params);
                fuzz::require(are_same(found, expected), variant.name);
            }
        }
    }
    fast16_fini(&params);
    return 0;
}
