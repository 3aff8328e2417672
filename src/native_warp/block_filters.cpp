// SPDX-License-Identifier: Apache-2.0

// The plain filters, which define the result.

#include "native_warp/block_filters.h"

#include <algorithm>

#include "native_warp/sample.h"

namespace videostabilizer {

namespace {

constexpr int BIAS = 1 << 15;  // makes two-byte samples signed

std::int16_t saturate(int value) {
    return static_cast<std::int16_t>(std::clamp(value, -BIAS, BIAS - 1));
}

}  // namespace

void across_plain(const AcrossRun& run) {
    const SampleFormat format = run.format;
    const Rounding rounding = across_rounding(format);
    const int bias = format.bytes == 2 ? BIAS : 0;
    for (int block = 0; block < run.blocks; ++block) {
        const BlockPosition at = block_position(run.positions[block]);
        const AcrossPhase& phase = run.phases[at.phase];
        const std::int16_t* const weights = run.weights + at.phase * run.pairs * PAIR_WEIGHTS;
        for (int lane = 0; lane < BLOCK; ++lane) {
            const int first = at.sample * format.channels + phase.first[lane];
            int sum = rounding.add;
            for (int tap = 0; tap < 2 * run.pairs; ++tap) {
                const int weight = weights[tap / 2 * PAIR_WEIGHTS + 2 * lane_slot(lane) + tap % 2];
                sum +=
                    weight * (load_sample(run.row, first + tap * format.channels, format) - bias);
            }
            run.out[block * BLOCK + lane] = saturate(sum >> rounding.shift);
        }
    }
}

void down_plain(const DownRun& run) {
    const SampleFormat format = run.format;
    const Rounding rounding = down_rounding(format);
    std::int64_t position = run.position;
    for (int block = 0; block < run.blocks; ++block, position += run.step) {
        const BlockPosition at = block_position(position);
        const DownPhase& phase = run.phases[at.phase];
        const std::int16_t* const weights = run.weights + phase.weights;
        for (int lane = 0; lane < BLOCK; ++lane) {
            int sum = rounding.add;
            for (int tap = 0; tap < 2 * phase.pairs; ++tap) {
                const int row = at.sample + phase.first + tap;
                sum += weights[tap / 2 * PAIR_WEIGHTS + 2 * lane_slot(lane) + tap % 2] *
                       run.rows[(row & run.row_mask) * run.row_pitch + block * BLOCK + lane];
            }
            store_sample(run.out, block * BLOCK + lane, sum >> rounding.shift, format);
        }
    }
}

}  // namespace videostabilizer
