// SPDX-License-Identifier: Apache-2.0

#pragma once

// The vector operations of the block filters: sums of 16 lanes, to which pairs of weighted samples
// are added. Lanes are held in the order 0-3, 8-11, 4-7, 12-15. VS_LEVEL: see
// platform/vector_bytes.h.

#include <cstddef>
#include <cstdint>

#if defined(__SSE4_1__)
#include <immintrin.h>
#else
#include <arm_neon.h>
#endif

namespace videostabilizer::VS_LEVEL {

// Of intermediate samples of 8 bits, which have 7 more.
static constexpr std::int16_t MIDDLE = 128 << 7;
static constexpr std::int16_t ONE_HALF = 1 << 6;

#if defined(__AVX2__)

struct BlockSums {
    __m256i outer;  // lanes 0-3, 8-11
    __m256i inner;  // lanes 4-7, 12-15
};
using Bytes = __m256i;

inline __m128i load_bytes(const void* from) {
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}
inline __m256i load_words(const std::int16_t* from) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(static_cast<const void*>(from)));
}
inline BlockSums same_sums(int value) {
    return {_mm256_set1_epi32(value), _mm256_set1_epi32(value)};
}
inline Bytes load_two(const unsigned char* low, const unsigned char* high) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(load_bytes(low)), load_bytes(high), 1);
}
inline Bytes pick(Bytes bytes, Bytes indices) {
    return _mm256_shuffle_epi8(bytes, indices);
}
inline void add_products(BlockSums& sums, __m256i outer, __m256i inner,
                         const std::int16_t* weights) {
    sums.outer = _mm256_add_epi32(sums.outer, _mm256_madd_epi16(outer, load_words(weights)));
    sums.inner = _mm256_add_epi32(sums.inner, _mm256_madd_epi16(inner, load_words(weights + 16)));
}
inline void add_byte_pairs(BlockSums& sums, Bytes picked, const std::int16_t* weights) {
    const __m256i zero = _mm256_setzero_si256();
    add_products(sums, _mm256_unpacklo_epi8(picked, zero), _mm256_unpackhi_epi8(picked, zero),
                 weights);
}
inline void add_word_pairs(BlockSums& sums, Bytes outer, Bytes inner, int shift,
                           const std::int16_t* weights) {
    const __m256i bias = _mm256_set1_epi16(-0x8000);
    add_products(sums, _mm256_xor_si256(_mm256_srli_epi16(outer, shift), bias),
                 _mm256_xor_si256(_mm256_srli_epi16(inner, shift), bias), weights);
}
inline void add_row_pair(BlockSums& sums, const std::int16_t* upper, const std::int16_t* lower,
                         const std::int16_t* weights) {
    const __m256i a = load_words(upper);
    const __m256i b = load_words(lower);
    add_products(sums, _mm256_unpacklo_epi16(a, b), _mm256_unpackhi_epi16(a, b), weights);
}
inline void store_words(const BlockSums& sums, int shift, std::int16_t* out) {
    _mm256_storeu_si256(static_cast<__m256i*>(static_cast<void*>(out)),
                        _mm256_packs_epi32(_mm256_srai_epi32(sums.outer, shift),
                                           _mm256_srai_epi32(sums.inner, shift)));
}
inline __m256i unsigned_words(const BlockSums& sums, int shift, int largest) {
    return _mm256_min_epu16(_mm256_packus_epi32(_mm256_srai_epi32(sums.outer, shift),
                                                _mm256_srai_epi32(sums.inner, shift)),
                            _mm256_set1_epi16(static_cast<std::int16_t>(largest)));
}
inline void store_byte_samples(const BlockSums& sums, int shift, unsigned char* out) {
    const __m256i words = _mm256_packs_epi32(_mm256_srai_epi32(sums.outer, shift),
                                             _mm256_srai_epi32(sums.inner, shift));
    const __m128i bytes =
        _mm_packus_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
    _mm_storeu_si128(static_cast<__m128i*>(static_cast<void*>(out)), bytes);
}
inline void store_word_samples(const BlockSums& sums, int shift, int largest, int up,
                               unsigned char* out) {
    _mm256_storeu_si256(static_cast<__m256i*>(static_cast<void*>(out)),
                        _mm256_slli_epi16(unsigned_words(sums, shift, largest), up));
}

// See AcrossTable::slopes. picked: a and b of each lane.
inline void store_between(Bytes picked, const std::int16_t* slopes, std::int16_t* out) {
    const __m256i difference = _mm256_slli_epi16(
        _mm256_maddubs_epi16(picked, _mm256_set1_epi16(static_cast<std::int16_t>(0xFF01))), 7);
    const __m256i a = _mm256_srli_epi16(_mm256_slli_epi16(picked, 8), 1);
    const __m256i change = _mm256_mulhrs_epi16(difference, load_words(slopes));
    _mm256_storeu_si256(static_cast<__m256i*>(static_cast<void*>(out)),
                        _mm256_add_epi16(_mm256_add_epi16(a, _mm256_set1_epi16(-MIDDLE)), change));
}
// See DownTable::slopes.
inline void store_bytes_between(const std::int16_t* upper, const std::int16_t* lower,
                                const std::uint16_t* slopes, unsigned char* out) {
    const __m256i a = load_words(upper);
    const __m256i difference = _mm256_sub_epi16(load_words(lower), a);
    const __m256i slope =
        _mm256_loadu_si256(static_cast<const __m256i*>(static_cast<const void*>(slopes)));
    // Where the sign makes the factor one too small, the difference is added once more.
    const __m256i change =
        _mm256_add_epi16(_mm256_mulhi_epi16(difference, slope),
                         _mm256_and_si256(difference, _mm256_srai_epi16(slope, 15)));
    const __m256i words = _mm256_srli_epi16(
        _mm256_add_epi16(_mm256_add_epi16(a, _mm256_set1_epi16(MIDDLE + ONE_HALF)), change), 7);
    _mm_storeu_si128(
        static_cast<__m128i*>(static_cast<void*>(out)),
        _mm_packus_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1)));
}

#elif defined(__SSE4_1__)

struct BlockSums {
    __m128i lanes[4];  // 0-3, 8-11, 4-7, 12-15
};
struct Bytes {
    __m128i low;
    __m128i high;
};

inline __m128i load_bytes(const void* from) {
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}
inline BlockSums same_sums(int value) {
    const __m128i all = _mm_set1_epi32(value);
    return {{all, all, all, all}};
}
inline Bytes load_two(const unsigned char* low, const unsigned char* high) {
    return {load_bytes(low), load_bytes(high)};
}
inline Bytes pick(Bytes bytes, Bytes indices) {
    return {_mm_shuffle_epi8(bytes.low, indices.low), _mm_shuffle_epi8(bytes.high, indices.high)};
}
inline void add_products(BlockSums& sums, const __m128i (&pairs)[4], const std::int16_t* weights) {
    for (int i = 0; i < 4; ++i) {
        sums.lanes[i] = _mm_add_epi32(
            sums.lanes[i],
            _mm_madd_epi16(pairs[i], load_bytes(weights + static_cast<std::ptrdiff_t>(8) * i)));
    }
}
inline void add_byte_pairs(BlockSums& sums, Bytes picked, const std::int16_t* weights) {
    const __m128i zero = _mm_setzero_si128();
    add_products(sums,
                 {_mm_unpacklo_epi8(picked.low, zero), _mm_unpacklo_epi8(picked.high, zero),
                  _mm_unpackhi_epi8(picked.low, zero), _mm_unpackhi_epi8(picked.high, zero)},
                 weights);
}
inline void add_word_pairs(BlockSums& sums, Bytes outer, Bytes inner, int shift,
                           const std::int16_t* weights) {
    const __m128i bias = _mm_set1_epi16(-0x8000);
    const auto signed_words = [&](__m128i words) {
        return _mm_xor_si128(_mm_srli_epi16(words, shift), bias);
    };
    add_products(sums,
                 {signed_words(outer.low), signed_words(outer.high), signed_words(inner.low),
                  signed_words(inner.high)},
                 weights);
}
inline void add_row_pair(BlockSums& sums, const std::int16_t* upper, const std::int16_t* lower,
                         const std::int16_t* weights) {
    const __m128i a0 = load_bytes(upper);
    const __m128i a1 = load_bytes(upper + 8);
    const __m128i b0 = load_bytes(lower);
    const __m128i b1 = load_bytes(lower + 8);
    add_products(sums,
                 {_mm_unpacklo_epi16(a0, b0), _mm_unpacklo_epi16(a1, b1),
                  _mm_unpackhi_epi16(a0, b0), _mm_unpackhi_epi16(a1, b1)},
                 weights);
}
inline void store_bytes(void* out, __m128i bytes) {
    _mm_storeu_si128(static_cast<__m128i*>(out), bytes);
}
inline void store_words(const BlockSums& sums, int shift, std::int16_t* out) {
    for (int half = 0; half < 2; ++half) {
        store_bytes(out + static_cast<std::ptrdiff_t>(8) * half,
                    _mm_packs_epi32(_mm_srai_epi32(sums.lanes[half], shift),
                                    _mm_srai_epi32(sums.lanes[half + 2], shift)));
    }
}
inline __m128i unsigned_words(const BlockSums& sums, int half, int shift, int largest) {
    return _mm_min_epu16(_mm_packus_epi32(_mm_srai_epi32(sums.lanes[half], shift),
                                          _mm_srai_epi32(sums.lanes[half + 2], shift)),
                         _mm_set1_epi16(static_cast<std::int16_t>(largest)));
}
inline void store_byte_samples(const BlockSums& sums, int shift, unsigned char* out) {
    store_bytes(out, _mm_packus_epi16(unsigned_words(sums, 0, shift, 255),
                                      unsigned_words(sums, 1, shift, 255)));
}
inline void store_word_samples(const BlockSums& sums, int shift, int largest, int up,
                               unsigned char* out) {
    for (int half = 0; half < 2; ++half) {
        store_bytes(out + static_cast<std::ptrdiff_t>(16) * half,
                    _mm_slli_epi16(unsigned_words(sums, half, shift, largest), up));
    }
}

// See AcrossTable::slopes. picked: a and b of each lane.
inline void store_between(Bytes picked, const std::int16_t* slopes, std::int16_t* out) {
    const auto between = [](__m128i pairs, __m128i slope) {
        const __m128i difference = _mm_slli_epi16(
            _mm_maddubs_epi16(pairs, _mm_set1_epi16(static_cast<std::int16_t>(0xFF01))), 7);
        const __m128i a = _mm_srli_epi16(_mm_slli_epi16(pairs, 8), 1);
        return _mm_add_epi16(_mm_add_epi16(a, _mm_set1_epi16(-MIDDLE)),
                             _mm_mulhrs_epi16(difference, slope));
    };
    store_bytes(out, between(picked.low, load_bytes(slopes)));
    store_bytes(out + 8, between(picked.high, load_bytes(slopes + 8)));
}
// See DownTable::slopes.
inline void store_bytes_between(const std::int16_t* upper, const std::int16_t* lower,
                                const std::uint16_t* slopes, unsigned char* out) {
    const auto between = [&](int first) {
        const __m128i a = load_bytes(upper + first);
        const __m128i difference = _mm_sub_epi16(load_bytes(lower + first), a);
        const __m128i slope = load_bytes(slopes + first);
        // Where the sign makes the factor one too small, the difference is added once more.
        const __m128i change = _mm_add_epi16(_mm_mulhi_epi16(difference, slope),
                                             _mm_and_si128(difference, _mm_srai_epi16(slope, 15)));
        return _mm_srli_epi16(
            _mm_add_epi16(_mm_add_epi16(a, _mm_set1_epi16(MIDDLE + ONE_HALF)), change), 7);
    };
    store_bytes(out, _mm_packus_epi16(between(0), between(8)));
}

#else

struct BlockSums {
    int32x4_t lanes[4];  // 0-3, 8-11, 4-7, 12-15
};
struct Bytes {
    uint8x16_t low;
    uint8x16_t high;
};

inline BlockSums same_sums(int value) {
    const int32x4_t all = vdupq_n_s32(value);
    return {{all, all, all, all}};
}
inline Bytes load_two(const unsigned char* low, const unsigned char* high) {
    return {vld1q_u8(low), vld1q_u8(high)};
}
inline uint8x16_t pick(uint8x16_t bytes, uint8x16_t indices) {
    const uint8x8x2_t table = {{vget_low_u8(bytes), vget_high_u8(bytes)}};
    return vcombine_u8(vtbl2_u8(table, vget_low_u8(indices)),
                       vtbl2_u8(table, vget_high_u8(indices)));
}
inline Bytes pick(Bytes bytes, Bytes indices) {
    return {pick(bytes.low, indices.low), pick(bytes.high, indices.high)};
}
// Adds the products of two samples of each of four lanes.
inline int32x4_t add_pairs(int32x4_t sum, int16x8_t pairs, const std::int16_t* weights) {
    const int16x4x2_t taps = vuzp_s16(vget_low_s16(pairs), vget_high_s16(pairs));
    const int16x4x2_t weight = vld2_s16(weights);
    return vmlal_s16(vmlal_s16(sum, taps.val[0], weight.val[0]), taps.val[1], weight.val[1]);
}
inline void add_byte_pairs(BlockSums& sums, Bytes picked, const std::int16_t* weights) {
    const auto words = [](uint8x8_t bytes) { return vreinterpretq_s16_u16(vmovl_u8(bytes)); };
    sums.lanes[0] = add_pairs(sums.lanes[0], words(vget_low_u8(picked.low)), weights);
    sums.lanes[1] = add_pairs(sums.lanes[1], words(vget_low_u8(picked.high)), weights + 8);
    sums.lanes[2] = add_pairs(sums.lanes[2], words(vget_high_u8(picked.low)), weights + 16);
    sums.lanes[3] = add_pairs(sums.lanes[3], words(vget_high_u8(picked.high)), weights + 24);
}
inline void add_word_pairs(BlockSums& sums, Bytes outer, Bytes inner, int shift,
                           const std::int16_t* weights) {
    const int16x8_t down = vdupq_n_s16(static_cast<std::int16_t>(-shift));
    const auto signed_words = [&](uint8x16_t bytes) {
        return vreinterpretq_s16_u16(
            veorq_u16(vshlq_u16(vreinterpretq_u16_u8(bytes), down), vdupq_n_u16(0x8000)));
    };
    sums.lanes[0] = add_pairs(sums.lanes[0], signed_words(outer.low), weights);
    sums.lanes[1] = add_pairs(sums.lanes[1], signed_words(outer.high), weights + 8);
    sums.lanes[2] = add_pairs(sums.lanes[2], signed_words(inner.low), weights + 16);
    sums.lanes[3] = add_pairs(sums.lanes[3], signed_words(inner.high), weights + 24);
}
inline int32x4_t add_rows(int32x4_t sum, int16x4_t upper, int16x4_t lower,
                          const std::int16_t* weights) {
    const int16x4x2_t weight = vld2_s16(weights);
    return vmlal_s16(vmlal_s16(sum, upper, weight.val[0]), lower, weight.val[1]);
}
inline void add_row_pair(BlockSums& sums, const std::int16_t* upper, const std::int16_t* lower,
                         const std::int16_t* weights) {
    constexpr int QUARTERS[4] = {0, 8, 4, 12};
    for (int i = 0; i < 4; ++i) {
        sums.lanes[i] =
            add_rows(sums.lanes[i], vld1_s16(upper + QUARTERS[i]), vld1_s16(lower + QUARTERS[i]),
                     weights + static_cast<std::ptrdiff_t>(8) * i);
    }
}
inline void store_words(const BlockSums& sums, int shift, std::int16_t* out) {
    const int32x4_t down = vdupq_n_s32(-shift);
    for (int half = 0; half < 2; ++half) {
        vst1q_s16(out + static_cast<std::ptrdiff_t>(8) * half,
                  vcombine_s16(vqmovn_s32(vshlq_s32(sums.lanes[half], down)),
                               vqmovn_s32(vshlq_s32(sums.lanes[half + 2], down))));
    }
}
inline uint16x8_t unsigned_words(const BlockSums& sums, int half, int shift, int largest) {
    const int32x4_t down = vdupq_n_s32(-shift);
    return vminq_u16(vcombine_u16(vqmovun_s32(vshlq_s32(sums.lanes[half], down)),
                                  vqmovun_s32(vshlq_s32(sums.lanes[half + 2], down))),
                     vdupq_n_u16(static_cast<std::uint16_t>(largest)));
}
inline void store_byte_samples(const BlockSums& sums, int shift, unsigned char* out) {
    vst1q_u8(out, vcombine_u8(vmovn_u16(unsigned_words(sums, 0, shift, 255)),
                              vmovn_u16(unsigned_words(sums, 1, shift, 255))));
}
inline void store_word_samples(const BlockSums& sums, int shift, int largest, int up,
                               unsigned char* out) {
    const int16x8_t move = vdupq_n_s16(static_cast<std::int16_t>(up));
    for (int half = 0; half < 2; ++half) {
        vst1q_u8(out + static_cast<std::ptrdiff_t>(16) * half,
                 vreinterpretq_u8_u16(vshlq_u16(unsigned_words(sums, half, shift, largest), move)));
    }
}

// See AcrossTable::slopes. picked: a and b of each lane.
inline void store_between(Bytes picked, const std::int16_t* slopes, std::int16_t* out) {
    const auto between = [](uint8x16_t bytes, int16x8_t slope) {
        const uint16x8_t pairs = vreinterpretq_u16_u8(bytes);
        const int16x8_t a = vreinterpretq_s16_u16(vshrq_n_u16(vshlq_n_u16(pairs, 8), 1));
        const int16x8_t b = vreinterpretq_s16_u16(vshlq_n_u16(vshrq_n_u16(pairs, 8), 7));
        return vaddq_s16(vaddq_s16(a, vdupq_n_s16(-MIDDLE)), vqrdmulhq_s16(vsubq_s16(a, b), slope));
    };
    vst1q_s16(out, between(picked.low, vld1q_s16(slopes)));
    vst1q_s16(out + 8, between(picked.high, vld1q_s16(slopes + 8)));
}
// See DownTable::slopes.
inline void store_bytes_between(const std::int16_t* upper, const std::int16_t* lower,
                                const std::uint16_t* slopes, unsigned char* out) {
    const auto between = [&](int first) {
        const int16x8_t a = vld1q_s16(upper + first);
        const int16x8_t difference = vsubq_s16(vld1q_s16(lower + first), a);
        const int16x8_t slope = vreinterpretq_s16_u16(vshrq_n_u16(vld1q_u16(slopes + first), 1));
        const int16x8_t words = vaddq_s16(vaddq_s16(a, vdupq_n_s16(MIDDLE + ONE_HALF)),
                                          vqdmulhq_s16(difference, slope));
        return vmovn_u16(vshrq_n_u16(vreinterpretq_u16_s16(words), 7));
    };
    vst1q_u8(out, vcombine_u8(between(0), between(8)));
}

#endif

}  // namespace videostabilizer::VS_LEVEL
