#pragma once

#include <cstddef>

namespace videostabilizer {

// The vector instructions that a routine needs. A table of the variants of one routine begins with
// the plain one, which is the definition, and goes on from narrow to wide.
enum class CpuLevel {
    PLAIN,   // none
    SCALAR,  // none either: a faster way to the plain result
    SSE2,
    AVX2,
    NEON,
};

// Whether this processor runs routines of the level. In a library built with VIDEOSTABILIZER_PLAIN
// none but the plain ones run.
// Threads: reentrant.
bool cpu_supports(CpuLevel level);

// The last variant of a table that this processor runs. Rows have a field `level`; the first one is
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
