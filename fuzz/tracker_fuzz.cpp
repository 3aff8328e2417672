// SPDX-License-Identifier: Apache-2.0

// The tracker: any two pictures, any points and parameters, of which only the number of iterations
// is kept small. The sums over a window are those of the definition, all variants agree bit for
// bit, and the point of a track is in the picture.

#include <algorithm>
#include <cmath>

#include "features/lucas_kanade_variants.h"
#include "fuzz/fuzz_input.h"
#include "tests/features/picture.h"

using namespace videostabilizer;

namespace {

constexpr int MOST_POINTS = 24;

// Waves that have moved, or what is left of the input.
Picture draw(fuzz::Input& input, int width, int height, bool moved) {
    if (input.byte() < 180) {
        const double dx = moved ? input.in_range(-60, 60) / 10.0 : 0.0;
        const double dy = moved ? input.in_range(-60, 60) / 10.0 : 0.0;
        return waves(width, height, dx, dy);
    }
    Picture picture(width, height, [](int, int) { return 0; });
    picture.pixels = fuzz::Input(input).picture(picture.pixels.size());
    return picture;
}

// Compares the exported sums over one window with those made sample by sample, each with checks of
// its own.
void check_sums(const Picture& prev, const Picture& next, int win_radius, int level, KeyPoint pt,
                const float (&shift)[2]) {
    const int s = 1 << level;
    const int side = 2 * win_radius + 1;
    struct {
        int xx, xy, yy, bx, by, sad;
    } sum{};
    for (int n = 0; n < side * side; ++n) {
        const int x = static_cast<int>(pt.x) + (n % side - win_radius) * s;
        const int y = static_cast<int>(pt.y) + (n / side - win_radius) * s;
        if (y - s < 0 || y + s >= prev.height || x - s < 0 || x + s >= prev.width) {
            continue;
        }
        const int ix = prev.at(x + s, y) - prev.at(x - s, y);
        const int iy = prev.at(x, y + s) - prev.at(x, y - s);
        sum.xx += ix * ix;
        sum.xy += ix * iy;
        sum.yy += iy * iy;
        const float to_x = static_cast<float>(x) + static_cast<float>(s) * shift[0];
        const float to_y = static_cast<float>(y) + static_cast<float>(s) * shift[1];
        if (!(to_x >= 0 && to_x < static_cast<float>(next.width) && to_y >= 0 &&
              to_y < static_cast<float>(next.height))) {
            sum.sad = -1;
        }
        if (sum.sad >= 0) {
            const int column = std::min(static_cast<int>(std::floor(to_x + 0.5F)), next.width - 1);
            const int row = std::min(static_cast<int>(std::floor(to_y + 0.5F)), next.height - 1);
            const int difference = prev.at(x, y) - next.at(column, row);
            sum.sad += std::abs(difference);
            sum.bx += ix * difference;
            sum.by += iy * difference;
        }
    }
    const auto is = [](float x, float factor, int of) {
        return x == factor * static_cast<float>(of);
    };
    float g[2][2];
    getSpatialGradientMatrix(prev.pixels.data(), prev.width, prev.height, win_radius, level, pt, g);
    fuzz::require(is(g[0][0], 0.25F, sum.xx) && is(g[0][1], 0.25F, sum.xy) &&
                      is(g[1][0], 0.25F, sum.xy) && is(g[1][1], 0.25F, sum.yy),
                  "the gradient matrix of the definition");
    float guess[2] = {shift[0], 0.0F};
    float found[2] = {0.0F, shift[1]};
    float b[2] = {12345.0F, 54321.0F};
    const int sad = getMismatchVector(prev.pixels.data(), next.pixels.data(), prev.width,
                                      prev.height, win_radius, level, pt, guess, found, b);
    fuzz::require(sad == sum.sad, "the residual of the definition");
    fuzz::require(sad < 0 ? b[0] == 12345.0F && b[1] == 54321.0F
                          : is(b[0], 0.5F, sum.bx) && is(b[1], 0.5F, sum.by),
                  "the mismatch vector of the definition");
}

struct Track {
    KeyPoint point{};
    unsigned char status = 7;

    bool operator==(const Track& other) const {
        return status == other.status && point.y == other.point.y &&
               (status == 0 || point.x == other.point.x);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const int width = input.in_range(1, 160);
    const int height = input.in_range(1, 100);
    LK_Params params{};
    params.win_radius = input.mostly(9);
    params.max_level = std::max(0, input.mostly(4));
    params.max_iterations = input.in_range(-1, 8);
    params.epsilon_x = std::fabs(input.between(0, 8)) / 64.0F;
    params.epsilon_y = std::fabs(input.between(0, 8)) / 64.0F;
    params.max_disp_x = input.between(-1, 80);
    params.max_disp_y = input.between(-1, 80);
    params.border_x = input.in_range(-4, 20);
    params.border_y = input.in_range(-4, 20);
    const KeyPoint first = {input.between(-9, width + 9), input.between(-9, height + 9), 0, 0};
    const KeyPoint step = {input.between(0, width), input.between(0, height), 0, 0};
    const float shift[2] = {input.between(-8, 8), input.between(-2, 2)};
    const int count = input.in_range(1, MOST_POINTS);
    const Picture prev = draw(input, width, height, false);
    const Picture next = draw(input, width, height, true);
    if (params.win_radius >= 0 && params.win_radius < 10 && std::fabs(first.x) < 1e6F &&
        std::fabs(first.y) < 1e6F) {
        check_sums(prev, next, params.win_radius, params.max_level % 6, first, shift);
    }

    std::vector<KeyPoint> points(1, first);
    for (int i = 1; i < count; ++i) {
        points.push_back({std::fmod(points.back().x + step.x, static_cast<float>(width)),
                          std::fmod(points.back().y + step.y, static_cast<float>(height)), 0, 0});
    }
    std::vector<KeyPoint> tracked(points.size());
    std::vector<unsigned char> status(points.size(), 7);
    fuzz::require(lk_pyramid_image(prev.pixels.data(), next.pixels.data(), width, height, &params,
                                   points, tracked, status) == 0,
                  "a call that cannot fail");
    for (std::size_t i = 0; i < points.size(); ++i) {
        const KeyPoint& to = tracked[i];
        const bool inside = to.x >= 0.0F && to.x < static_cast<float>(width) && to.y >= 0.0F &&
                            to.y < static_cast<float>(height);
        fuzz::require(status[i] == 1 ? inside : status[i] == 0 && to.y == 0.0F, "an outcome");
        Track expected;
        for (const TrackVariant& variant : track_variants) {
            Track track;
            if (cpu_supports(variant.level)) {
                track_point(variant, {prev.pixels.data(), width, height},
                            {next.pixels.data(), width, height}, params, points[i], track.point,
                            track.status);
                expected = &variant == track_variants ? track : expected;
                fuzz::require(track == expected, variant.name);
            }
        }
        fuzz::require(status[i] == 0 || Track{to, status[i]} == expected, "the public function");
    }
    return 0;
}
