// SPDX-License-Identifier: Apache-2.0

#pragma once

// Single samples of a row. Not for vector variants, see block_filters.h.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "native_warp/block_tables.h"

namespace videostabilizer {

inline int load_sample(const unsigned char* row, int index, const SampleFormat& format) {
    if (format.bytes == 1) {
        return row[index];
    }
    std::uint16_t value = 0;
    std::memcpy(&value, row + static_cast<std::ptrdiff_t>(2) * index, 2);
    return value >> format.shift;
}

// Clamps the value to the format's range.
inline void store_sample(unsigned char* row, int index, std::int64_t value,
                         const SampleFormat& format) {
    const auto limited = std::clamp<std::int64_t>(value, 0, (1 << format.depth) - 1);
    if (format.bytes == 1) {
        row[index] = static_cast<unsigned char>(limited);
        return;
    }
    const auto moved = static_cast<std::uint16_t>(limited << format.shift);
    std::memcpy(row + static_cast<std::ptrdiff_t>(2) * index, &moved, 2);
}

}  // namespace videostabilizer
