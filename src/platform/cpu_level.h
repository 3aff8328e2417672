// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>

namespace videostabilizer {

// The vector instructions that a variant of a routine needs. A table of variants starts with the
// plain one, which defines the result, and continues from narrow to wide.
enum class CpuLevel {
    PLAIN,   // none
    SCALAR,  // none; faster than the plain variant, same result
    SSE2,
    SSE41,  // SSE4.1
    AVX2,
    NEON,
};

// Whether this processor supports the level. With VIDEOSTABILIZER_PLAIN only PLAIN is supported.
// Threads: thread-safe.
bool cpu_supports(CpuLevel level);

// The last variant of a table that this processor supports. Rows have a field `level`; the first is
// plain.
template <typename Variant, std::size_t COUNT>
const Variant& fastest_variant(const Variant (&table)[COUNT]) {
    std::size_t best = COUNT - 1;
    while (best > 0 && !cpu_supports(table[best].level)) {
        --best;
    }
    return table[best];
}

}  // namespace videostabilizer
