// The tracker: any two pictures, any points and parameters, of which only the number of iterations
// is kept small. All variants agree bit for bit, and a point that counts as tracked is one.

#include <cmath>

#include "features/lucas_kanade_variants.h"
#include "fuzz/fuzz_input.h"

using namespace videostabilizer;

namespace {

constexpr int MOST_POINTS = 24;

std::int32_t radius(fuzz::Input& input) {
    const int kind = input.byte();
    return kind >= 250 ? input.take<std::int32_t>() : kind % 10;
}

std::int32_t coarsest_level(fuzz::Input& input) {
    const int kind = input.byte();
    // Negative ones are nobody's.
    return kind >= 250 ? input.take<std::int32_t>() & 0x7FFFFFFF : kind % 6;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const int width = input.in_range(1, 160);
    const int height = input.in_range(1, 100);
    LK_Params params{};
    params.win_radius = radius(input);
    params.max_level = coarsest_level(input);
    params.max_iterations = input.in_range(-1, 8);
    params.epsilon_x = std::fabs(input.number()) / 64.0F;
    params.epsilon_y = std::fabs(input.number()) / 64.0F;
    params.max_disp_x = input.number();
    params.max_disp_y = input.number();
    params.border_x = input.in_range(-4, 40);
    params.border_y = input.in_range(-4, 40);
    std::vector<KeyPoint> points(static_cast<std::size_t>(input.in_range(1, MOST_POINTS)));
    for (KeyPoint& point : points) {
        point.x = input.number();
        point.y = input.number();
    }
    const auto bytes = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    // The later picture repeats the earlier one, somewhat displaced, or is another.
    const bool displaced = input.flag();
    const std::size_t shift = static_cast<std::size_t>(input.byte()) % 16;
    fuzz::Input first = displaced ? input : input.split(input.left() / 2);
    const std::vector<unsigned char> prev = first.picture(bytes);
    std::vector<unsigned char> next = displaced ? prev : input.picture(bytes);
    for (std::size_t i = 0; displaced && i < bytes; ++i) {
        next[i] = prev[(i + shift) % bytes];
    }

    std::vector<KeyPoint> tracked(points.size());
    std::vector<unsigned char> status(points.size(), 7);
    fuzz::require(lk_pyramid_image(prev.data(), next.data(), width, height, &params, points,
                                   tracked, status) == 0,
                  "a call that cannot fail");
    for (std::size_t i = 0; i < points.size(); ++i) {
        const KeyPoint& to = tracked[i];
        fuzz::require(status[i] <= 1, "a status");
        fuzz::require(status[i] == 1 ? to.x >= 0.0F && to.x < static_cast<float>(width) &&
                                           to.y >= 0.0F && to.y < static_cast<float>(height)
                                     : to.y == 0.0F,
                      "a point inside, or lost");
        const KeyPoint start{};
        KeyPoint expected = start;
        unsigned char expected_status = 7;
        for (const TrackVariant& variant : track_variants) {
            KeyPoint found = start;
            unsigned char found_status = 7;
            if (!cpu_supports(variant.level)) {
                continue;
            }
            track_point(variant, {prev.data(), width, height}, {next.data(), width, height}, params,
                        points[i], found, found_status);
            if (&variant == track_variants) {
                expected = found;
                expected_status = found_status;
            }
            fuzz::require(found_status == expected_status, variant.name);
            fuzz::require(found_status == 0 || (found.x == expected.x && found.y == expected.y),
                          variant.name);
        }
        fuzz::require(status[i] == 0 || (to.x == expected.x && to.y == expected.y),
                      "the public function tracks what the variants do");
    }
    return 0;
}
