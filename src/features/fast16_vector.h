// SPDX-License-Identifier: Apache-2.0

#pragma once

// The segment test on all lanes of a vector at once, for the level that VS_LEVEL names.

#include <cstdint>

#include "features/fast16_variants.h"
#include "platform/vector_bytes.h"

namespace videostabilizer::VS_LEVEL {

// Bounds of the pixels of a run. A run of 9 contains a pixel of each of the 8 opposite pairs. So
//
//   the largest pixel of a darker run is at least `low`, the maximum over the pairs of their
//   smaller pixels,
//   the smallest pixel of a brighter run is at most `high`, the minimum of their larger ones.
struct PairBounds {
    Bytes low;
    Bytes high;
};

inline PairBounds bounds_of_pair(const unsigned char* centre, const std::int32_t* pixel, int k) {
    const Bytes a = load(centre + pixel[k]);
    const Bytes b = load(centre + pixel[k + 8]);
    return {smaller(a, b), larger(a, b)};
}

inline void tighten(PairBounds& bounds, const PairBounds& pair) {
    bounds.low = larger(bounds.low, pair.low);
    bounds.high = smaller(bounds.high, pair.high);
}

// Over the 16 runs of 9: the smallest of their largest pixels for darker runs, with `larger` as
// FARTHEST and `smaller` as BEST; the other way round for brighter ones.
// Runs k and k + 1, k even, share the 8 pixels from k + 1 on.
template <Bytes (*FARTHEST)(Bytes, Bytes), Bytes (*BEST)(Bytes, Bytes)>
inline Bytes best_run(const unsigned char* centre, const std::int32_t* pixel) {
    Bytes two[8];
    for (int n = 0; n < 8; ++n) {
        two[n] = FARTHEST(load(centre + pixel[2 * n + 1]), load(centre + pixel[2 * n + 2]));
    }
    Bytes four[8];
    for (int n = 0; n < 8; ++n) {
        four[n] = FARTHEST(two[n], two[(n + 1) % 8]);
    }
    Bytes best{};
    for (int n = 0; n < 8; ++n) {
        const Bytes eight = FARTHEST(four[n], four[(n + 2) % 8]);
        const Bytes ninth = BEST(load(centre + pixel[2 * n]), load(centre + pixel[2 * n + 9]));
        const Bytes run = FARTHEST(eight, ninth);
        best = n == 0 ? run : BEST(best, run);
    }
    return best;
}

// For each lane, 0 or the score plus one of the corner there.
inline Bytes scores_plus_one(const unsigned char* centre, const std::int32_t* pixel,
                             Bytes threshold) {
    const Bytes v = load(centre);
    const Bytes dark = subtract_saturated(v, threshold);
    const Bytes bright = add_saturated(v, threshold);
    const auto darker = [dark](const PairBounds& b) { return subtract_saturated(dark, b.low); };
    const auto brighter = [bright](const PairBounds& b) {
        return subtract_saturated(b.high, bright);
    };

    PairBounds bounds = bounds_of_pair(centre, pixel, 0);
    if (!any(either(darker(bounds), brighter(bounds)))) {
        return splat(0);
    }
    tighten(bounds, bounds_of_pair(centre, pixel, 2));
    tighten(bounds, bounds_of_pair(centre, pixel, 4));
    tighten(bounds, bounds_of_pair(centre, pixel, 6));
    if (!any(either(darker(bounds), brighter(bounds)))) {
        return splat(0);
    }
    for (int k = 1; k < 8; k += 2) {
        tighten(bounds, bounds_of_pair(centre, pixel, k));
    }

    // The difference between the best run and the centre; the score is one less.
    Bytes difference = splat(0);
    if (any(darker(bounds))) {
        difference = subtract_saturated(v, best_run<larger, smaller>(centre, pixel));
    }
    if (any(brighter(bounds))) {
        const Bytes run = best_run<smaller, larger>(centre, pixel);
        difference = larger(difference, subtract_saturated(run, v));
    }
    return keep(difference, subtract_saturated(difference, threshold));
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
int scan_row(const unsigned char* row, int first, int end, const FastParams& params,
             unsigned char* scores, int* columns) {
    if (end - first < Bytes::LANES || params.threshold < 0 || params.threshold > 255) {
        return scan_row_plain(row, first, end, params, scores, columns);
    }
    const Bytes threshold = splat(params.threshold);
    const bool scored = params.nonmax_suppression != 0;
    int count = 0;
    int next = first;  // the first column not listed yet
    while (next < end) {
        // The last vector ends with the row, so it may begin with columns already listed.
        const int column = next <= end - Bytes::LANES ? next : end - Bytes::LANES;
        const Bytes found = scores_plus_one(row + column, params.pixel, threshold);
        std::uint32_t lanes = nonzero_lanes(found) >> (next - column);
        if (lanes != 0 && scored) {
            store(scores + column, subtract_saturated(found, splat(1)));
        }
        for (; lanes != 0; lanes &= lanes - 1) {
            columns[count++] = next + __builtin_ctz(lanes);
        }
        next = column + Bytes::LANES;
    }
    return count;
}

}  // namespace videostabilizer::VS_LEVEL
