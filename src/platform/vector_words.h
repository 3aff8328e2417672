// SPDX-License-Identifier: Apache-2.0

#pragma once

// Sixteen signed 16-bit lanes, in one or two registers depending on the level, and their sums of
// products in 32 bits. VS_LEVEL: see vector_bytes.h.

#include <cstdint>

#if defined(__SSE2__)
#include <immintrin.h>
#else
#include <arm_neon.h>
#endif

namespace videostabilizer::VS_LEVEL {

#if defined(__AVX2__)

struct Words {
    __m256i v;
};
struct Sums {
    __m256i v;
};

inline Words load_words(const std::int16_t* from) {
    return {_mm256_loadu_si256(static_cast<const __m256i*>(static_cast<const void*>(from)))};
}
inline void store_words(std::int16_t* to, Words a) {
    _mm256_storeu_si256(static_cast<__m256i*>(static_cast<void*>(to)), a.v);
}
inline Words widen_bytes(const unsigned char* from) {
    return {_mm256_cvtepu8_epi16(
        _mm_loadu_si128(static_cast<const __m128i*>(static_cast<const void*>(from))))};
}
inline Words zero_words() {
    return {_mm256_setzero_si256()};
}
inline Words add(Words a, Words b) {
    return {_mm256_add_epi16(a.v, b.v)};
}
inline Words subtract(Words a, Words b) {
    return {_mm256_sub_epi16(a.v, b.v)};
}
inline Words both(Words a, Words b) {
    return {_mm256_and_si256(a.v, b.v)};
}
inline Words absolute(Words a) {
    return {_mm256_abs_epi16(a.v)};
}
inline Sums zero_sums() {
    return {_mm256_setzero_si256()};
}
inline void add_products(Sums& sums, Words a, Words b) {
    sums.v = _mm256_add_epi32(sums.v, _mm256_madd_epi16(a.v, b.v));
}
inline std::int32_t total(Sums sums) {
    __m128i half =
        _mm_add_epi32(_mm256_castsi256_si128(sums.v), _mm256_extracti128_si256(sums.v, 1));
    half = _mm_add_epi32(half, _mm_shuffle_epi32(half, 0x4E));
    half = _mm_add_epi32(half, _mm_shuffle_epi32(half, 0xB1));
    return _mm_cvtsi128_si32(half);
}
inline std::int32_t total(Words a) {
    Sums sums = zero_sums();
    add_products(sums, a, {_mm256_set1_epi16(1)});
    return total(sums);
}

#elif defined(__SSE2__)

struct Words {
    __m128i low;
    __m128i high;
};
struct Sums {
    __m128i v;
};

inline Words load_words(const std::int16_t* from) {
    const auto* const halves = static_cast<const __m128i*>(static_cast<const void*>(from));
    return {_mm_loadu_si128(halves), _mm_loadu_si128(halves + 1)};
}
inline void store_words(std::int16_t* to, Words a) {
    auto* const halves = static_cast<__m128i*>(static_cast<void*>(to));
    _mm_storeu_si128(halves, a.low);
    _mm_storeu_si128(halves + 1, a.high);
}
inline Words widen_bytes(const unsigned char* from) {
    const __m128i bytes =
        _mm_loadu_si128(static_cast<const __m128i*>(static_cast<const void*>(from)));
    return {_mm_unpacklo_epi8(bytes, _mm_setzero_si128()),
            _mm_unpackhi_epi8(bytes, _mm_setzero_si128())};
}
inline Words zero_words() {
    return {_mm_setzero_si128(), _mm_setzero_si128()};
}
inline Words add(Words a, Words b) {
    return {_mm_add_epi16(a.low, b.low), _mm_add_epi16(a.high, b.high)};
}
inline Words subtract(Words a, Words b) {
    return {_mm_sub_epi16(a.low, b.low), _mm_sub_epi16(a.high, b.high)};
}
inline Words both(Words a, Words b) {
    return {_mm_and_si128(a.low, b.low), _mm_and_si128(a.high, b.high)};
}
inline Words absolute(Words a) {
    const Words negative = subtract(zero_words(), a);
    return {_mm_max_epi16(a.low, negative.low), _mm_max_epi16(a.high, negative.high)};
}
inline Sums zero_sums() {
    return {_mm_setzero_si128()};
}
inline void add_products(Sums& sums, Words a, Words b) {
    sums.v = _mm_add_epi32(
        sums.v, _mm_add_epi32(_mm_madd_epi16(a.low, b.low), _mm_madd_epi16(a.high, b.high)));
}
inline std::int32_t total(Sums sums) {
    __m128i half = _mm_add_epi32(sums.v, _mm_shuffle_epi32(sums.v, 0x4E));
    half = _mm_add_epi32(half, _mm_shuffle_epi32(half, 0xB1));
    return _mm_cvtsi128_si32(half);
}
inline std::int32_t total(Words a) {
    Sums sums = zero_sums();
    add_products(sums, a, {_mm_set1_epi16(1), _mm_set1_epi16(1)});
    return total(sums);
}

#else  // NEON

struct Words {
    int16x8_t low;
    int16x8_t high;
};
struct Sums {
    int32x4_t v;
};

inline Words load_words(const std::int16_t* from) {
    return {vld1q_s16(from), vld1q_s16(from + 8)};
}
inline void store_words(std::int16_t* to, Words a) {
    vst1q_s16(to, a.low);
    vst1q_s16(to + 8, a.high);
}
inline Words widen_bytes(const unsigned char* from) {
    const uint8x16_t bytes = vld1q_u8(from);
    return {vreinterpretq_s16_u16(vmovl_u8(vget_low_u8(bytes))),
            vreinterpretq_s16_u16(vmovl_u8(vget_high_u8(bytes)))};
}
inline Words zero_words() {
    return {vdupq_n_s16(0), vdupq_n_s16(0)};
}
inline Words add(Words a, Words b) {
    return {vaddq_s16(a.low, b.low), vaddq_s16(a.high, b.high)};
}
inline Words subtract(Words a, Words b) {
    return {vsubq_s16(a.low, b.low), vsubq_s16(a.high, b.high)};
}
inline Words both(Words a, Words b) {
    return {vandq_s16(a.low, b.low), vandq_s16(a.high, b.high)};
}
inline Words absolute(Words a) {
    return {vabsq_s16(a.low), vabsq_s16(a.high)};
}
inline Sums zero_sums() {
    return {vdupq_n_s32(0)};
}
inline void add_products(Sums& sums, Words a, Words b) {
    sums.v = vmlal_s16(sums.v, vget_low_s16(a.low), vget_low_s16(b.low));
    sums.v = vmlal_s16(sums.v, vget_high_s16(a.low), vget_high_s16(b.low));
    sums.v = vmlal_s16(sums.v, vget_low_s16(a.high), vget_low_s16(b.high));
    sums.v = vmlal_s16(sums.v, vget_high_s16(a.high), vget_high_s16(b.high));
}
inline std::int32_t total(Sums sums) {
    int32x2_t half = vadd_s32(vget_low_s32(sums.v), vget_high_s32(sums.v));
    half = vpadd_s32(half, half);
    return vget_lane_s32(half, 0);
}
inline std::int32_t total(Words a) {
    Sums sums = zero_sums();
    add_products(sums, a, {vdupq_n_s16(1), vdupq_n_s16(1)});
    return total(sums);
}

#endif

// Copies 16 bytes that are SPACING apart to 16 contiguous ones; reads 16 * SPACING bytes.
template <int SPACING>
void copy_strided(const unsigned char* from, unsigned char* to) {
    static_assert(SPACING == 1 || SPACING == 2 || SPACING == 4,
                  "what registers can be packed from");
#if defined(__SSE2__)
    const auto load = [from](int i) {
        return _mm_loadu_si128(static_cast<const __m128i*>(static_cast<const void*>(from)) + i);
    };
    __m128i bytes;
    if constexpr (SPACING == 1) {
        bytes = load(0);
    } else if constexpr (SPACING == 2) {
        const __m128i first = _mm_set1_epi16(0xFF);
        bytes = _mm_packus_epi16(_mm_and_si128(load(0), first), _mm_and_si128(load(1), first));
    } else {
        const __m128i first = _mm_set1_epi32(0xFF);
        bytes = _mm_packus_epi16(
            _mm_packs_epi32(_mm_and_si128(load(0), first), _mm_and_si128(load(1), first)),
            _mm_packs_epi32(_mm_and_si128(load(2), first), _mm_and_si128(load(3), first)));
    }
    _mm_storeu_si128(static_cast<__m128i*>(static_cast<void*>(to)), bytes);
#else
    if constexpr (SPACING == 1) {
        vst1q_u8(to, vld1q_u8(from));
    } else if constexpr (SPACING == 2) {
        vst1q_u8(to, vld2q_u8(from).val[0]);
    } else {
        vst1q_u8(to, vld4q_u8(from).val[0]);
    }
#endif
}

}  // namespace videostabilizer::VS_LEVEL
