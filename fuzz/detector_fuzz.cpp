// The corner detector: any picture, any parameters, also those that its header answers with no
// corners. All variants find the corners of the plain one, where and as thinned as stated.

#include <algorithm>
#include <map>
#include <utility>

#include "features/fast16_variants.h"
#include "fuzz/fuzz_input.h"

using namespace videostabilizer;

namespace {

bool is_same(const KeyPoint& a, const KeyPoint& b) {
    return a.x == b.x && a.y == b.y && a.response == b.response && a.reserved == b.reserved;
}

void check_corners(const std::vector<KeyPoint>& corners, int width, int height,
                   const FastParams& params) {
    std::map<std::pair<int, int>, int> taken;  // by band and column cell
    std::pair<int, int> last(-1, -1);
    for (const KeyPoint& corner : corners) {
        const int x = static_cast<int>(corner.x);
        const int y = static_cast<int>(corner.y);
        fuzz::require(x >= params.border_x && x < width - params.border_x && y >= params.border_y &&
                          y < height - params.border_y,
                      "corners keep to the borders");
        fuzz::require(last < std::make_pair(y, x), "corners in the order of rows, then columns");
        last = {y, x};
        const bool scored = params.nonmax_suppression != 0;
        fuzz::require(scored ? corner.response >= static_cast<float>(params.threshold) &&
                                   corner.response <= 254.0F
                             : corner.response == 0.0F,
                      "scores in their range");
        const int cell = x / params.cell_size;
        fuzz::require(++taken[{(y + 1) / (params.cell_size / 2), cell}] == 1, "one corner a cell");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    const int width = input.in_range(0, 200);
    const int height = input.in_range(0, 60);
    const int threshold = input.in_range(-5, 270);
    const bool suppression = input.flag();
    const int cell_size = input.in_range(0, 70);
    const int border_x = input.in_range(0, 40);
    const int border_y = input.in_range(0, 20);
    FastParams params{};
    if (fast16_init(&params, threshold, suppression ? 1 : 0, cell_size, 0, border_x, border_y,
                    width, height) != 0) {
        return 0;
    }
    const std::vector<unsigned char> picture =
        input.picture(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));

    std::vector<KeyPoint> corners(1);
    fast16(picture.data(), corners, width, height, &params);
    if (cell_size < 2 || border_x < 3 || border_y < 3) {
        fuzz::require(corners.empty(), "no corners where the call cannot be served");
    } else if (width > 0) {
        check_corners(corners, width, height, params);
        for (const CornerVariant& variant : corner_variants) {
            std::vector<KeyPoint> same;
            if (cpu_supports(variant.level)) {
                detect_corners(variant, picture.data(), same, width, height, params);
                fuzz::require(same.size() == corners.size() &&
                                  std::equal(same.begin(), same.end(), corners.begin(), is_same),
                              variant.name);
            }
        }
    }
    fast16_fini(&params);
    return 0;
}
