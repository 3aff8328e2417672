// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>

#include "native_warp/block_tables.h"
#include "platform/cpu_level.h"

namespace videostabilizer {

// Vector variants use nothing but what is static, a plain record, or their own, since functions that
// are shared with other files could be kept in the form that has wide instructions.

// Fixed-point positions: samples in units of 2^-24. A block is placed to the nearest of 64 phases.
constexpr int POSITION_BITS = 24;

struct BlockPosition {
    int sample;  // floor
    int phase;   // 0..63
};

static constexpr BlockPosition block_position(std::int64_t position) {
    constexpr int BELOW_PHASE = POSITION_BITS - PHASE_BITS;
    const std::int64_t phases = (position + (std::int64_t{1} << (BELOW_PHASE - 1))) >> BELOW_PHASE;
    return {static_cast<int>(phases >> PHASE_BITS), static_cast<int>(phases & (PHASES - 1))};
}

// Blocks of a row to be resampled along the row. All samples that the table reaches from the blocks
// are in memory.
struct AcrossRun {
    SampleFormat format;
    int pairs;                      // of the table, like the next two
    const AcrossPhase* phases;      //
    const std::int16_t* weights;    //
    const std::int16_t* slopes;     // of the table, or null; another way to the same samples
    const unsigned char* row;       // the sample at position 0
    const std::int64_t* positions;  // of the first pixel of each block
    int blocks;
    std::int16_t* out;  // 16 per block: intermediate samples, see guard_bits
};

// Blocks of a row to be resampled across rows of intermediate samples.
struct DownRun {
    SampleFormat format;
    const DownPhase* phases;      // of the table, like the next two
    const std::int16_t* weights;  //
    const std::uint16_t* slopes;  // another way to the same samples
    const std::int16_t* rows;     // row r at (r & row_mask) * row_pitch
    int row_mask;
    std::ptrdiff_t row_pitch;
    std::int64_t position;  // of the first pixel of the first block
    std::int64_t step;      // from block to block
    int blocks;
    unsigned char* out;  // 16 samples per block
};

// The constants that turn sums of weighted samples into rounded samples: (sum + add) >> shift.
struct Rounding {
    int shift;
    int add;
};
// Two-byte samples are summed minus 2^15, which makes them signed.
static constexpr Rounding across_rounding(const SampleFormat& format) {
    const int shift = WEIGHT_BITS - guard_bits(format.depth);
    const int zero = (format.bytes == 2 ? 1 << 15 : 0) - (1 << format.depth >> 1);
    return {shift, (1 << shift >> 1) + zero * (1 << WEIGHT_BITS)};
}
static constexpr Rounding down_rounding(const SampleFormat& format) {
    const int shift = WEIGHT_BITS + guard_bits(format.depth);
    return {shift, (1 << shift >> 1) + (1 << (format.depth - 1 + shift))};
}

using AcrossFilter = void(const AcrossRun& run);
using DownFilter = void(const DownRun& run);

AcrossFilter across_plain;  // define the result
DownFilter down_plain;
namespace sse41 {
AcrossFilter across;
DownFilter down;
}  // namespace sse41
namespace avx2 {
AcrossFilter across;
DownFilter down;
}  // namespace avx2
namespace neon {
AcrossFilter across;
DownFilter down;
}  // namespace neon

struct WarpVariant {
    const char* name;
    CpuLevel level;
    AcrossFilter* across;
    DownFilter* down;
};

constexpr WarpVariant warp_variants[] = {
    {"plain", CpuLevel::PLAIN, across_plain, down_plain},
#if VS_HAS_SSE41
    {"sse41", CpuLevel::SSE41, sse41::across, sse41::down},
#endif
#if VS_HAS_AVX2
    {"avx2", CpuLevel::AVX2, avx2::across, avx2::down},
#endif
#if VS_HAS_NEON
    {"neon", CpuLevel::NEON, neon::across, neon::down},
#endif
};

}  // namespace videostabilizer
