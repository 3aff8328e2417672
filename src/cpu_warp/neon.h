// SPDX-License-Identifier: Apache-2.0

#pragma once

// NEON intrinsics: native on ARM, emulated by SIMDe elsewhere. Only for sources that are built with
// VIDEOSTABILIZER_VECTOR_WARP.

#include <cstdint>
#include <cstring>

#if defined(__ARM_NEON)
#include <arm_neon.h>
#else
#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/arm/neon.h>
#endif

namespace videostabilizer::neon {

// Two loads that the emulation lacks, or has only for even addresses. `from` has any alignment.

// Puts from[0] into lane LANE of into.val[0], from[1] into that of into.val[1].
template <int LANE>
inline uint8x8x2_t load_pair(const unsigned char* from, uint8x8x2_t into) {
#if defined(__ARM_NEON)
    return vld2_lane_u8(from, into, LANE);
#else
    into.val[0] = vset_lane_u8(from[0], into.val[0], LANE);
    into.val[1] = vset_lane_u8(from[1], into.val[1], LANE);
    return into;
#endif
}

// Puts both bytes into the 16-bit lane LANE.
template <int LANE>
inline uint16x8_t load_unit(const unsigned char* from, uint16x8_t into) {
#if defined(__ARM_NEON)
    return vld1q_lane_u16(static_cast<const std::uint16_t*>(static_cast<const void*>(from)), into,
                          LANE);
#else
    std::uint16_t value = 0;
    std::memcpy(&value, from, sizeof value);
    return vsetq_lane_u16(value, into, LANE);
#endif
}

}  // namespace videostabilizer::neon
