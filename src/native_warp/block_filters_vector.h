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

// What is used in a loop is copied from a run first, which the loop's stores might change otherwise.

template <typename Pairs>
inline void across_blocks(const AcrossRun& run) {
    constexpr int GROUPS = 2 * Pairs::BYTES;
    const Rounding rounding = across_rounding(run.format);
    const int channels = run.format.channels;
    const int shift = run.format.shift;
    const int pairs = run.pairs;
    const std::ptrdiff_t pair_bytes = static_cast<std::ptrdiff_t>(2) * channels * Pairs::BYTES;
    const AcrossPhase* const phases = run.phases;
    const std::int16_t* const all_weights = run.weights;
    const std::int64_t* const positions = run.positions;
    const unsigned char* const row = run.row;
    std::int16_t* out = run.out;
    for (int block = 0; block < run.blocks; ++block, out += BLOCK) {
        const BlockPosition at = block_position(positions[block]);
        const AcrossPhase& phase = phases[at.phase];
        const std::int16_t* weights = all_weights + at.phase * pairs * PAIR_WEIGHTS;
        const unsigned char* from[GROUPS];
        for (int g = 0; g < GROUPS; ++g) {
            from[g] = row + static_cast<std::ptrdiff_t>(at.sample * channels + phase.group[g]) *
                                Pairs::BYTES;
        }
        BlockSums sums = same_sums(rounding.add);
        for (int pair = 0; pair < pairs; ++pair, weights += PAIR_WEIGHTS) {
            Pairs::add(sums, from, phase, shift, weights);
            for (int g = 0; g < GROUPS; ++g) {
                from[g] += pair_bytes;
            }
        }
        store_words(sums, rounding.shift, out);
    }
}

inline void across_slopes(const AcrossRun& run) {
    const int channels = run.format.channels;
    const AcrossPhase* const phases = run.phases;
    const std::int16_t* const slopes = run.slopes;
    const std::int64_t* const positions = run.positions;
    const unsigned char* const row = run.row;
    const int blocks = run.blocks;
    std::int16_t* out = run.out;
    for (int block = 0; block < blocks; ++block, out += BLOCK) {
        const BlockPosition at = block_position(positions[block]);
        const AcrossPhase& phase = phases[at.phase];
        const unsigned char* const from = row + at.sample * channels;
        store_between(pick(load_two(from + phase.group[0], from + phase.group[1]),
                           load_two(phase.pick[0], phase.pick[1])),
                      slopes + at.phase * BLOCK, out);
    }
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
void across(const AcrossRun& run) {
    if (run.slopes != nullptr) {
        across_slopes(run);
    } else if (run.format.bytes == 1) {
        across_blocks<BytePairs>(run);
    } else if (run.format.shift == 0) {
        across_blocks<WordPairs<false>>(run);
    } else {
        across_blocks<WordPairs<true>>(run);
    }
}

template <int SAMPLE_BYTES>
inline void down_blocks(const DownRun& run) {
    const SampleFormat format = run.format;
    const Rounding rounding = down_rounding(format);
    const int largest = (1 << format.depth) - 1;
    const DownPhase* const phases = run.phases;
    const std::int16_t* const all_weights = run.weights;
    const std::uint16_t* const slopes = run.slopes;
    const std::int16_t* column = run.rows;
    const int row_mask = run.row_mask;
    const std::ptrdiff_t row_pitch = run.row_pitch;
    const std::int64_t step = run.step;
    const int blocks = run.blocks;
    std::int64_t position = run.position;
    unsigned char* out = run.out;
    for (int block = 0; block < blocks; ++block) {
        const BlockPosition at = block_position(position);
        const DownPhase& phase = phases[at.phase];
        int row = at.sample + phase.first;
        if (SAMPLE_BYTES == 1 && phase.slopes >= 0) {
            store_bytes_between(column + (row & row_mask) * row_pitch,
                                column + ((row + 1) & row_mask) * row_pitch, slopes + phase.slopes,
                                out);
        } else {
            const std::int16_t* weights = all_weights + phase.weights;
            BlockSums sums = same_sums(rounding.add);
            for (int pair = 0; pair < phase.pairs; ++pair, row += 2, weights += PAIR_WEIGHTS) {
                add_row_pair(sums, column + (row & row_mask) * row_pitch,
                             column + ((row + 1) & row_mask) * row_pitch, weights);
            }
            if (SAMPLE_BYTES == 1) {
                store_byte_samples(sums, rounding.shift, out);
            } else {
                store_word_samples(sums, rounding.shift, largest, format.shift, out);
            }
        }
        position += step;
        column += BLOCK;
        out += static_cast<std::ptrdiff_t>(BLOCK) * SAMPLE_BYTES;
    }
}

// NOLINTNEXTLINE(misc-definitions-in-headers): included once for each level
void down(const DownRun& run) {
    if (run.format.bytes == 1) {
        down_blocks<1>(run);
    } else {
        down_blocks<2>(run);
    }
}

}  // namespace videostabilizer::VS_LEVEL
