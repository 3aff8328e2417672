// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <vector>

#include "native_warp/resampling_kernel.h"

namespace videostabilizer {

// Samples of a plane: little-endian integers of 1 or 2 bytes, with `depth` significant bits, moved
// up by `shift` bits (P010: depth 10, shift 6). A pixel of an interleaved plane has several channels.
struct SampleFormat {
    int bytes = 1;
    int depth = 8;
    int shift = 0;
    int channels = 1;  // 1 or 2
};
inline bool same_format(const SampleFormat& a, const SampleFormat& b) {
    return a.bytes == b.bytes && a.depth == b.depth && a.shift == b.shift &&
           a.channels == b.channels;
}

// Intermediate samples, between the two passes, are relative to the middle of the range and have as
// many bits below the unit as 16 bits leave room for, with as much range again for overshoots (at
// 16 bits, these saturate).
static constexpr int guard_bits(int depth) {
    return depth < 15 ? 15 - depth : 0;
}

// A block is 16 consecutive samples of an output row. Within a block positions change in the same way
// everywhere, so weights are prepared once, for 64 phases of a block's first pixel.
constexpr int BLOCK = 16;
constexpr int PHASE_BITS = 6;
constexpr int PHASES = 1 << PHASE_BITS;

// Weights are stored for pairs of taps: 16 lanes times 2 weights, in the order in which vectors hold
// the lanes of a block after their pairs were interleaved: 0-3, 8-11, 4-7, 12-15.
constexpr int PAIR_WEIGHTS = 2 * BLOCK;
static constexpr int lane_slot(int lane) {
    return lane < 4 || lane >= 12 ? lane : (lane < 8 ? lane + 4 : lane - 4);
}

struct alignas(16) AcrossPhase {
    // Vector variants load the samples of a group of lanes at once and pick each lane's pair of taps
    // from them by byte. A group: 8 lanes of 1 byte, or 4 lanes of 2 bytes.
    std::uint8_t pick[4][16];
    std::int32_t group[4];      // the sample that a group's load begins with
    std::int32_t first[BLOCK];  // the sample of a lane's first tap
};

// Weights along rows. Samples are counted from the block's own, `channels` a pixel.
struct AcrossTable {
    int pairs = 0;  // pairs of taps
    int begin = 0;  // no load begins before this sample
    int end = 0;    // nor ends behind this one
    AcrossPhase phases[PHASES];
    std::vector<std::int16_t> weights;  // [phase][pair][PAIR_WEIGHTS]

    // [phase][lane], for 8 bits and one pair of taps, else empty: -2 times the second weight. Samples
    // a and b give a + (b - a) * weight, where the product of (a - b) * 128 and this, rounded to 2^15,
    // is just as exact as the sum of two products.
    std::vector<std::int16_t> slopes;

    // step: source pixels from one output pixel to the next, 0.25..2. Throws std::bad_alloc.
    void make(const SampleFormat& format, const ResamplingWeights& kernel, double step);
};

struct DownPhase {
    std::int32_t first;    // row of the first tap, from the block's own
    std::int32_t pairs;    // pairs of rows
    std::int32_t weights;  // index of the first weight
    std::int32_t slopes;   // index of the first slope; -1: it has none
};

// Weights across rows. Lanes of a block may be at different rows; rows that a lane does not reach
// have the weight 0.
struct DownTable {
    int begin = 0;  // no phase begins before this row
    int end = 0;    // nor ends behind this one
    DownPhase phases[PHASES];
    std::vector<std::int16_t> weights;  // [pair][PAIR_WEIGHTS] of each phase

    // [lane] of each phase of 8 bits whose lanes all have two taps in the same two rows, with a second
    // weight of less than one: 4 times that weight, in 16 bits without a sign.
    std::vector<std::uint16_t> slopes;

    // slope: source rows from one output pixel to the next, -0.25..0.25. Throws std::bad_alloc.
    void make(const SampleFormat& format, const ResamplingWeights& kernel, double slope);

  private:
    void add_slopes(DownPhase& phase);
};

}  // namespace videostabilizer
