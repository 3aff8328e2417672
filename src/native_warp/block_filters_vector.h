// SPDX-License-Identifier: Apache-2.0

#pragma once

// The filters of block_filters.h for the level that VS_LEVEL names. Sums are of whole numbers, so
// their order does not matter.

#include <cstddef>
#include <cstdint>

#include "native_warp/block_filters.h"
#include "native_warp/vector_pairs.h"

namespace videostabilizer::VS_LEVEL {

// The pairs of taps of a block's lanes, from loads of 16 bytes at `from[group]`.
struct BytePairs {
    static constexpr int BYTES = 1;
    static void add(BlockSums& sums, const unsigned char* const* from, const AcrossPhase& phase,
                    int /*shift*/, const std::int16_t* weights) {
        const Bytes picked =
            pick(load_two(from[0], from[1]), load_two(phase.pick[0], phase.pick[1]));
        add_byte_pairs(sums, picked, weights);
    }
};

template <bool SHIFTED>
struct WordPairs {
    static constexpr int BYTES = 2;
    static void add(BlockSums& sums, const unsigned char* const* from, const AcrossPhase& phase,
                    int shift, const std::int16_t* weights) {
        const Bytes outer =
            pick(load_two(from[0], from[2]), load_two(phase.pick[0], phase.pick[2]));
        const Bytes inner =
            pick(load_two(from[1], from[3]), load_two(phase.pick[1], phase.pick[3]));
        add_word_pairs(sums, outer, inner, SHIFTED ? shift : 0, weights);
    }
};

template <typename Pairs>
inline void across_blocks(const AcrossRun& run) {
    constexpr int GROUPS = 2 * Pairs::BYTES;
    const Rounding rounding = across_rounding(run.format);
    const int channels = run.format.channels;
    const std::ptrdiff_t pair_bytes = static_cast<std::ptrdiff_t>(2) * channels * Pairs::BYTES;
    for (int block = 0; block < run.blocks; ++block) {
        const BlockPosition at = block_position(run.positions[block]);
        const AcrossPhase& phase = run.phases[at.phase];
        const std::int16_t* weights = run.weights + at.phase * run.pairs * PAIR_WEIGHTS;
        const unsigned char* from[GROUPS];
        for (int g = 0; g < GROUPS; ++g) {
            from[g] = run.row + static_cast<std::ptrdiff_t>(at.sample * channels + phase.group[g]) *
                                    Pairs::BYTES;
        }
        BlockSums sums = same_sums(rounding.add);
        for (int pair = 0; pair < run.pairs; ++pair, weights += PAIR_WEIGHTS) {
            Pairs::add(sums, from, phase, run.format.shift, weights);
            for (int g = 0; g < GROUPS; ++g) {
                from[g] += pair_bytes;
            }
        }
        store_words(sums, rounding.shift, run.out + static_cast<std::ptrdiff_t>(block) * BLOCK);
    }
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
void across(const AcrossRun& run) {
    if (run.format.bytes == 1) {
        across_blocks<BytePairs>(run);
    } else if (run.format.shift == 0) {
        across_blocks<WordPairs<false>>(run);
    } else {
        across_blocks<WordPairs<true>>(run);
    }
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
void down(const DownRun& run) {
    const SampleFormat format = run.format;
    const Rounding rounding = down_rounding(format);
    const int largest = (1 << format.depth) - 1;
    std::int64_t position = run.position;
    for (int block = 0; block < run.blocks; ++block, position += run.step) {
        const BlockPosition at = block_position(position);
        const DownPhase& phase = run.phases[at.phase];
        const std::int16_t* weights = run.weights + phase.weights;
        const std::int16_t* const column = run.rows + static_cast<std::ptrdiff_t>(block) * BLOCK;
        int row = at.sample + phase.first;
        BlockSums sums = same_sums(rounding.add);
        for (int pair = 0; pair < phase.pairs; ++pair, row += 2, weights += PAIR_WEIGHTS) {
            add_row_pair(sums, column + (row & run.row_mask) * run.row_pitch,
                         column + ((row + 1) & run.row_mask) * run.row_pitch, weights);
        }
        unsigned char* const out =
            run.out + static_cast<std::ptrdiff_t>(block) * BLOCK * format.bytes;
        if (format.bytes == 1) {
            store_byte_samples(sums, rounding.shift, out);
        } else {
            store_word_samples(sums, rounding.shift, largest, format.shift, out);
        }
    }
}

}  // namespace videostabilizer::VS_LEVEL
