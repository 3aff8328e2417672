// SPDX-License-Identifier: Apache-2.0

#pragma once

// Fit of several samples and count of several pairs at once, for the level that VS_LEVEL names.

#include <cstddef>

#include "motion/affine_fit_lanes.h"
#include "motion/ransac_variants.h"
#include "platform/vector_floats.h"

namespace videostabilizer::VS_LEVEL {

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
void fit_samples(const PairLanes& pairs, float* models) {
    fit_affine_lanes<Floats>(pairs, models);
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
int count_inliers(const PairArrays& pairs, const float model[6], Tolerance tolerance, int wanted) {
    const Floats m00 = Floats::splat(model[0]);
    const Floats m01 = Floats::splat(model[1]);
    const Floats m02 = Floats::splat(model[2]);
    const Floats m10 = Floats::splat(model[3]);
    const Floats m11 = Floats::splat(model[4]);
    const Floats m12 = Floats::splat(model[5]);
    const Floats limit_x = Floats::splat(tolerance.x);
    const Floats limit_y = Floats::splat(tolerance.y);
    int count = 0;
    for (int i = 0; i < pairs.n;) {
        // Most models are bad, which shows after a part of the pairs: a multiple of the lanes, and
        // large enough for the check not to matter.
        constexpr int PART = 64;
        const int end = pairs.n - i > PART ? i + PART : pairs.n;
        Tally inliers;
        for (; i < end; i += Floats::LANES) {
            const Floats x = Floats::load(pairs.src_x + i);
            const Floats y = Floats::load(pairs.src_y + i);
            const Floats ex = ((m01 * y + m00 * x) + m02) - Floats::load(pairs.dst_x + i);
            const Floats ey = ((m11 * y + m10 * x) + m12) - Floats::load(pairs.dst_y + i);
            inliers.add_both(less(ex * ex, limit_x), less(ey * ey, limit_y));
        }
        count += inliers.total();
        if (count + (pairs.n - i) < wanted) {
            break;
        }
    }
    return count;
}

}  // namespace videostabilizer::VS_LEVEL
