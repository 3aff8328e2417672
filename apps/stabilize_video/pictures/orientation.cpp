// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/pictures/orientation.h"

extern "C" {
#include <libavutil/display.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>

namespace apps {

Orientation orientation_of(const AVStream& stream) {
    Orientation result;
    std::array<std::int32_t, 9> matrix{};
    std::size_t size = 0;
    const std::uint8_t* data = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (data == nullptr || size < sizeof matrix) {
        return result;
    }
    std::memcpy(matrix.data(), data, sizeof matrix);
    const auto product = [&](std::size_t i, std::size_t j) {
        return static_cast<double>(matrix[i]) * static_cast<double>(matrix[j]);
    };
    result.mirrored = product(0, 4) < product(1, 3);
    if (result.mirrored) {
        av_display_matrix_flip(matrix.data(), 1, 0);
    }
    const double counterclockwise = av_display_rotation_get(matrix.data());
    if (!std::isnan(counterclockwise)) {
        result.quarter_turns =
            ((-static_cast<int>(std::lround(counterclockwise / 90)) % 4) + 4) % 4;
    }
    return result;
}

std::vector<std::pair<const char*, const char*>> upright_filters(const Orientation& orientation) {
    std::vector<std::pair<const char*, const char*>> filters;
    switch (orientation.quarter_turns) {
        case 1:
            filters.emplace_back("transpose", "dir=clock");
            break;
        case 2:
            filters.emplace_back("vflip", "");
            filters.emplace_back("hflip", "");
            break;
        case 3:
            filters.emplace_back("transpose", "dir=cclock");
            break;
        default:
            break;
    }
    if (orientation.mirrored) {
        filters.emplace_back("hflip", "");
    }
    return filters;
}

AVChromaLocation turned(AVChromaLocation location, const Orientation& orientation) {
    // Each is the one before, turned clockwise. On the right nothing has a name.
    constexpr AVChromaLocation SIDES[] = {AVCHROMA_LOC_LEFT, AVCHROMA_LOC_TOP,
                                          AVCHROMA_LOC_UNSPECIFIED, AVCHROMA_LOC_BOTTOM};
    constexpr AVChromaLocation CORNERS[] = {AVCHROMA_LOC_BOTTOMLEFT, AVCHROMA_LOC_TOPLEFT,
                                            AVCHROMA_LOC_UNSPECIFIED, AVCHROMA_LOC_UNSPECIFIED};
    if (location == AVCHROMA_LOC_UNSPECIFIED && orientation.quarter_turns != 0) {
        location = AVCHROMA_LOC_LEFT;
    }
    for (const auto& ring : {SIDES, CORNERS}) {
        const auto* const at = std::find(ring, ring + 4, location);
        if (location != AVCHROMA_LOC_UNSPECIFIED && at != ring + 4) {
            location = ring[(at - ring + orientation.quarter_turns) % 4];
            break;
        }
    }
    const bool centred = location == AVCHROMA_LOC_CENTER || location == AVCHROMA_LOC_TOP ||
                         location == AVCHROMA_LOC_BOTTOM;
    return orientation.mirrored && !centred ? AVCHROMA_LOC_UNSPECIFIED : location;
}

}  // namespace apps
