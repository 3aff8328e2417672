// SPDX-License-Identifier: Apache-2.0

#pragma once

// A vector of 8-bit lanes with the register width of the level that is compiled for. VS_LEVEL is
// the namespace of everything that depends on the level, since the same names denote different
// types in each.

#include <cstdint>

#if defined(__SSE2__)
#include <immintrin.h>
#else
#include <arm_neon.h>
#endif

namespace videostabilizer::VS_LEVEL {

#if defined(__AVX2__)

struct Bytes {
    static constexpr int LANES = 32;
    __m256i v;
};

inline Bytes load(const unsigned char* from) {
    return {_mm256_loadu_si256(static_cast<const __m256i*>(static_cast<const void*>(from)))};
}
inline void store(unsigned char* to, Bytes a) {
    _mm256_storeu_si256(static_cast<__m256i*>(static_cast<void*>(to)), a.v);
}
inline Bytes splat(int value) {
    return {_mm256_set1_epi8(static_cast<char>(value))};
}
inline Bytes add_saturated(Bytes a, Bytes b) {
    return {_mm256_adds_epu8(a.v, b.v)};
}
inline Bytes subtract_saturated(Bytes a, Bytes b) {
    return {_mm256_subs_epu8(a.v, b.v)};
}
inline Bytes smaller(Bytes a, Bytes b) {
    return {_mm256_min_epu8(a.v, b.v)};
}
inline Bytes larger(Bytes a, Bytes b) {
    return {_mm256_max_epu8(a.v, b.v)};
}
inline Bytes either(Bytes a, Bytes b) {
    return {_mm256_or_si256(a.v, b.v)};
}
// Per lane: a where `where` is not 0, else 0.
inline Bytes keep(Bytes a, Bytes where) {
    return {_mm256_andnot_si256(_mm256_cmpeq_epi8(where.v, _mm256_setzero_si256()), a.v)};
}
inline bool any(Bytes a) {
    return _mm256_testz_si256(a.v, a.v) == 0;
}
// Bit i: lane i is not 0.
inline std::uint32_t nonzero_lanes(Bytes a) {
    const __m256i zeros = _mm256_cmpeq_epi8(a.v, _mm256_setzero_si256());
    return ~static_cast<std::uint32_t>(_mm256_movemask_epi8(zeros));
}

#elif defined(__SSE2__)

struct Bytes {
    static constexpr int LANES = 16;
    __m128i v;
};

inline Bytes load(const unsigned char* from) {
    return {_mm_loadu_si128(static_cast<const __m128i*>(static_cast<const void*>(from)))};
}
inline void store(unsigned char* to, Bytes a) {
    _mm_storeu_si128(static_cast<__m128i*>(static_cast<void*>(to)), a.v);
}
inline Bytes splat(int value) {
    return {_mm_set1_epi8(static_cast<char>(value))};
}
inline Bytes add_saturated(Bytes a, Bytes b) {
    return {_mm_adds_epu8(a.v, b.v)};
}
inline Bytes subtract_saturated(Bytes a, Bytes b) {
    return {_mm_subs_epu8(a.v, b.v)};
}
inline Bytes smaller(Bytes a, Bytes b) {
    return {_mm_min_epu8(a.v, b.v)};
}
inline Bytes larger(Bytes a, Bytes b) {
    return {_mm_max_epu8(a.v, b.v)};
}
inline Bytes either(Bytes a, Bytes b) {
    return {_mm_or_si128(a.v, b.v)};
}
inline Bytes keep(Bytes a, Bytes where) {
    return {_mm_andnot_si128(_mm_cmpeq_epi8(where.v, _mm_setzero_si128()), a.v)};
}
inline std::uint32_t nonzero_lanes(Bytes a) {
    const __m128i zeros = _mm_cmpeq_epi8(a.v, _mm_setzero_si128());
    return static_cast<std::uint32_t>(_mm_movemask_epi8(zeros)) ^ 0xFFFFU;
}
inline bool any(Bytes a) {
    return nonzero_lanes(a) != 0;
}

#else  // NEON

struct Bytes {
    static constexpr int LANES = 16;
    uint8x16_t v;
};

inline Bytes load(const unsigned char* from) {
    return {vld1q_u8(from)};
}
inline void store(unsigned char* to, Bytes a) {
    vst1q_u8(to, a.v);
}
inline Bytes splat(int value) {
    return {vdupq_n_u8(static_cast<std::uint8_t>(value))};
}
inline Bytes add_saturated(Bytes a, Bytes b) {
    return {vqaddq_u8(a.v, b.v)};
}
inline Bytes subtract_saturated(Bytes a, Bytes b) {
    return {vqsubq_u8(a.v, b.v)};
}
inline Bytes smaller(Bytes a, Bytes b) {
    return {vminq_u8(a.v, b.v)};
}
inline Bytes larger(Bytes a, Bytes b) {
    return {vmaxq_u8(a.v, b.v)};
}
inline Bytes either(Bytes a, Bytes b) {
    return {vorrq_u8(a.v, b.v)};
}
inline Bytes keep(Bytes a, Bytes where) {
    return {vandq_u8(a.v, vtstq_u8(where.v, where.v))};
}
inline bool any(Bytes a) {
    const uint8x8_t half = vorr_u8(vget_low_u8(a.v), vget_high_u8(a.v));
    return vget_lane_u64(vreinterpret_u64_u8(half), 0) != 0;
}
inline std::uint32_t nonzero_lanes(Bytes a) {
    static const std::uint8_t BITS[16] = {1, 2, 4, 8, 16, 32, 64, 128, 1, 2, 4, 8, 16, 32, 64, 128};
    const uint8x16_t bits = vandq_u8(vtstq_u8(a.v, a.v), vld1q_u8(BITS));
    uint8x8_t sums = vpadd_u8(vget_low_u8(bits), vget_high_u8(bits));
    sums = vpadd_u8(sums, sums);
    sums = vpadd_u8(sums, sums);
    return static_cast<std::uint32_t>(vget_lane_u16(vreinterpret_u16_u8(sums), 0));
}

#endif

}  // namespace videostabilizer::VS_LEVEL
