// SPDX-License-Identifier: Apache-2.0

#include "native_warp/block_tables.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace videostabilizer {

namespace {

constexpr int LOAD_BYTES = 16;

std::size_t index(int i) {
    return static_cast<std::size_t>(i);
}

// The position of a lane's pixel, from the sample at which its block begins.
struct LanePosition {
    int sample;       // floor
    double fraction;  // 0..1
};

LanePosition lane_position(int phase, int pixel, double step) {
    const double position = static_cast<double>(phase) / PHASES + pixel * step;
    int below = static_cast<int>(position);
    below -= position < below ? 1 : 0;  // std::floor is a call
    return {below, position - below};
}

void make_picks(AcrossPhase& phase, const SampleFormat& format) {
    const int lanes = LOAD_BYTES / 2 / format.bytes;  // of a group
    for (int lane = 0; lane < BLOCK; ++lane) {
        const int group = lane / lanes;
        if (lane % lanes == 0) {
            phase.group[group] = phase.first[lane];
        }
        const int sample = phase.first[lane] - phase.group[group];
        for (int byte = 0; byte < 2 * format.bytes; ++byte) {
            const int tap = byte / format.bytes;
            phase.pick[group][lane % lanes * 2 * format.bytes + byte] = static_cast<std::uint8_t>(
                (sample + tap * format.channels) * format.bytes + byte % format.bytes);
        }
    }
}

}  // namespace

void AcrossTable::make(const SampleFormat& format, const ResamplingWeights& kernel, double step) {
    pairs = kernel.taps() / 2;
    begin = end = 0;
    weights.resize(index(PHASES * pairs * PAIR_WEIGHTS));
    slopes.clear();
    std::int16_t* out = weights.data();
    for (int p = 0; p < PHASES; ++p) {
        AcrossPhase& phase = phases[p];
        for (int lane = 0; lane < BLOCK; ++lane) {
            const LanePosition at = lane_position(p, lane / format.channels, step);
            const std::int16_t* const taps = kernel.at(at.fraction);
            if (format.bytes == 1 && pairs == 1) {
                slopes.push_back(static_cast<std::int16_t>(-2 * taps[1]));
            }
            phase.first[lane] =
                (at.sample - (pairs - 1)) * format.channels + lane % format.channels;
            for (int pair = 0; pair < pairs; ++pair) {
                std::int16_t* const slot = out + pair * PAIR_WEIGHTS + 2 * lane_slot(lane);
                slot[0] = taps[2 * pair];
                slot[1] = taps[2 * pair + 1];
            }
        }
        make_picks(phase, format);
        out += pairs * PAIR_WEIGHTS;
        begin = std::min(begin, phase.group[0]);
        const int groups = BLOCK * 2 * format.bytes / LOAD_BYTES;
        end = std::max(end, phase.group[groups - 1] + 2 * (pairs - 1) * format.channels +
                                LOAD_BYTES / format.bytes);
    }
}

void DownTable::add_slopes(DownPhase& phase) {
    const std::int16_t* const pairs = weights.data() + phase.weights;
    const auto first = static_cast<std::int32_t>(slopes.size());
    bool below_one = true;
    for (int lane = 0; lane < BLOCK; ++lane) {
        const int second = pairs[2 * lane_slot(lane) + 1];
        below_one = below_one && second < 1 << WEIGHT_BITS;
        slopes.push_back(static_cast<std::uint16_t>(4 * second));
    }
    phase.slopes = below_one ? first : -1;
}

void DownTable::make(const SampleFormat& format, const ResamplingWeights& kernel, double slope) {
    const int taps = kernel.taps();
    begin = end = 0;
    weights.clear();
    slopes.clear();
    for (int p = 0; p < PHASES; ++p) {
        const int last_pixel = (BLOCK - 1) / format.channels;
        const double end_of_block = slope * last_pixel;
        const double position = static_cast<double>(p) / PHASES;
        const int lowest = static_cast<int>(std::floor(position + std::min(0.0, end_of_block)));
        const int highest = static_cast<int>(std::floor(position + std::max(0.0, end_of_block)));
        DownPhase& phase = phases[p];
        phase.first = lowest - (taps / 2 - 1);
        phase.pairs = (highest - lowest + taps + 1) / 2;
        phase.weights = static_cast<std::int32_t>(weights.size());
        weights.resize(weights.size() + index(phase.pairs * PAIR_WEIGHTS));  // zeros
        for (int lane = 0; lane < BLOCK; ++lane) {
            const LanePosition at = lane_position(p, lane / format.channels, slope);
            const std::int16_t* const lane_weights = kernel.at(at.fraction);
            for (int t = 0; t < taps; ++t) {
                const int row = at.sample - lowest + t;
                weights[index(phase.weights + row / 2 * PAIR_WEIGHTS + 2 * lane_slot(lane) +
                              row % 2)] = lane_weights[t];
            }
        }
        phase.slopes = -1;
        if (format.bytes == 1 && taps == 2 && phase.pairs == 1) {
            add_slopes(phase);
        }
        begin = std::min(begin, phase.first);
        end = std::max(end, phase.first + 2 * phase.pairs);
    }
}

}  // namespace videostabilizer
