// SPDX-License-Identifier: Apache-2.0

#pragma once

// Vectors of single-precision lanes, with the register width of the level that is compiled for, and
// of as many double-precision lanes. Operations round as the scalar ones. VS_LEVEL: see
// vector_bytes.h. Not for 32-bit NEON, which flushes denormal numbers to zero.

#include <cstdint>

#if defined(__SSE2__)
#include <immintrin.h>
#else
#include <arm_neon.h>
#endif

namespace videostabilizer::VS_LEVEL {

#if defined(__AVX2__)

struct Doubles {
    __m256d low;
    __m256d high;

    static Doubles zero() { return {_mm256_setzero_pd(), _mm256_setzero_pd()}; }
    friend Doubles operator+(Doubles a, Doubles b) {
        return {_mm256_add_pd(a.low, b.low), _mm256_add_pd(a.high, b.high)};
    }
    friend Doubles operator*(Doubles a, Doubles b) {
        return {_mm256_mul_pd(a.low, b.low), _mm256_mul_pd(a.high, b.high)};
    }
};

struct Floats {
    using Wide = Doubles;
    using Mask = Floats;  // per lane all bits or none
    static constexpr int LANES = 8;
    __m256 v;

    static Floats load(const float* from) { return {_mm256_loadu_ps(from)}; }
    static Floats splat(float value) { return {_mm256_set1_ps(value)}; }
    friend void store(float* to, Floats a) { _mm256_storeu_ps(to, a.v); }
    friend Floats operator+(Floats a, Floats b) { return {_mm256_add_ps(a.v, b.v)}; }
    friend Floats operator-(Floats a, Floats b) { return {_mm256_sub_ps(a.v, b.v)}; }
    friend Floats operator*(Floats a, Floats b) { return {_mm256_mul_ps(a.v, b.v)}; }
    friend Floats operator/(Floats a, Floats b) { return {_mm256_div_ps(a.v, b.v)}; }
    friend Floats root(Floats a) { return {_mm256_sqrt_ps(a.v)}; }
    friend Floats absolute(Floats a) { return {_mm256_andnot_ps(_mm256_set1_ps(-0.0F), a.v)}; }
    // Undefined for NaN.
    friend Mask less(Floats a, Floats b) { return {_mm256_cmp_ps(a.v, b.v, _CMP_LT_OQ)}; }
    friend Floats pick(Mask mask, Floats yes, Floats no) {
        return {_mm256_blendv_ps(no.v, yes.v, mask.v)};
    }
    friend Doubles widen(Floats a) {
        return {_mm256_cvtps_pd(_mm256_castps256_ps128(a.v)),
                _mm256_cvtps_pd(_mm256_extractf128_ps(a.v, 1))};
    }
    static Floats narrow(Doubles a) {
        return {_mm256_insertf128_ps(_mm256_castps128_ps256(_mm256_cvtpd_ps(a.low)),
                                     _mm256_cvtpd_ps(a.high), 1)};
    }
};

// Counts set lanes.
struct Tally {
    __m256i v = _mm256_setzero_si256();

    void add_both(Floats a, Floats b) {
        v = _mm256_sub_epi32(v, _mm256_castps_si256(_mm256_and_ps(a.v, b.v)));
    }
    std::int32_t total() const {
        __m128i half = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
        half = _mm_add_epi32(half, _mm_shuffle_epi32(half, 0x4E));
        half = _mm_add_epi32(half, _mm_shuffle_epi32(half, 0xB1));
        return _mm_cvtsi128_si32(half);
    }
};

#elif defined(__SSE2__)

struct Doubles {
    __m128d low;
    __m128d high;

    static Doubles zero() { return {_mm_setzero_pd(), _mm_setzero_pd()}; }
    friend Doubles operator+(Doubles a, Doubles b) {
        return {_mm_add_pd(a.low, b.low), _mm_add_pd(a.high, b.high)};
    }
    friend Doubles operator*(Doubles a, Doubles b) {
        return {_mm_mul_pd(a.low, b.low), _mm_mul_pd(a.high, b.high)};
    }
};

struct Floats {
    using Wide = Doubles;
    using Mask = Floats;
    static constexpr int LANES = 4;
    __m128 v;

    static Floats load(const float* from) { return {_mm_loadu_ps(from)}; }
    static Floats splat(float value) { return {_mm_set1_ps(value)}; }
    friend void store(float* to, Floats a) { _mm_storeu_ps(to, a.v); }
    friend Floats operator+(Floats a, Floats b) { return {_mm_add_ps(a.v, b.v)}; }
    friend Floats operator-(Floats a, Floats b) { return {_mm_sub_ps(a.v, b.v)}; }
    friend Floats operator*(Floats a, Floats b) { return {_mm_mul_ps(a.v, b.v)}; }
    friend Floats operator/(Floats a, Floats b) { return {_mm_div_ps(a.v, b.v)}; }
    friend Floats root(Floats a) { return {_mm_sqrt_ps(a.v)}; }
    friend Floats absolute(Floats a) { return {_mm_andnot_ps(_mm_set1_ps(-0.0F), a.v)}; }
    friend Mask less(Floats a, Floats b) { return {_mm_cmplt_ps(a.v, b.v)}; }
    friend Floats pick(Mask mask, Floats yes, Floats no) {
        return {_mm_or_ps(_mm_and_ps(mask.v, yes.v), _mm_andnot_ps(mask.v, no.v))};
    }
    friend Doubles widen(Floats a) {
        return {_mm_cvtps_pd(a.v), _mm_cvtps_pd(_mm_movehl_ps(a.v, a.v))};
    }
    static Floats narrow(Doubles a) {
        return {_mm_movelh_ps(_mm_cvtpd_ps(a.low), _mm_cvtpd_ps(a.high))};
    }
};

struct Tally {
    __m128i v = _mm_setzero_si128();

    void add_both(Floats a, Floats b) {
        v = _mm_sub_epi32(v, _mm_castps_si128(_mm_and_ps(a.v, b.v)));
    }
    std::int32_t total() const {
        __m128i half = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0x4E));
        half = _mm_add_epi32(half, _mm_shuffle_epi32(half, 0xB1));
        return _mm_cvtsi128_si32(half);
    }
};

#elif defined(__aarch64__)

struct Doubles {
    float64x2_t low;
    float64x2_t high;

    static Doubles zero() { return {vdupq_n_f64(0), vdupq_n_f64(0)}; }
    friend Doubles operator+(Doubles a, Doubles b) {
        return {vaddq_f64(a.low, b.low), vaddq_f64(a.high, b.high)};
    }
    friend Doubles operator*(Doubles a, Doubles b) {
        return {vmulq_f64(a.low, b.low), vmulq_f64(a.high, b.high)};
    }
};

struct Floats {
    using Wide = Doubles;
    using Mask = uint32x4_t;
    static constexpr int LANES = 4;
    float32x4_t v;

    static Floats load(const float* from) { return {vld1q_f32(from)}; }
    static Floats splat(float value) { return {vdupq_n_f32(value)}; }
    friend void store(float* to, Floats a) { vst1q_f32(to, a.v); }
    friend Floats operator+(Floats a, Floats b) { return {vaddq_f32(a.v, b.v)}; }
    friend Floats operator-(Floats a, Floats b) { return {vsubq_f32(a.v, b.v)}; }
    friend Floats operator*(Floats a, Floats b) { return {vmulq_f32(a.v, b.v)}; }
    friend Floats operator/(Floats a, Floats b) { return {vdivq_f32(a.v, b.v)}; }
    friend Floats root(Floats a) { return {vsqrtq_f32(a.v)}; }
    friend Floats absolute(Floats a) { return {vabsq_f32(a.v)}; }
    friend Mask less(Floats a, Floats b) { return vcltq_f32(a.v, b.v); }
    friend Floats pick(Mask mask, Floats yes, Floats no) { return {vbslq_f32(mask, yes.v, no.v)}; }
    friend Doubles widen(Floats a) {
        return {vcvt_f64_f32(vget_low_f32(a.v)), vcvt_high_f64_f32(a.v)};
    }
    static Floats narrow(Doubles a) { return {vcvt_high_f32_f64(vcvt_f32_f64(a.low), a.high)}; }
};

struct Tally {
    uint32x4_t v = vdupq_n_u32(0);

    void add_both(Floats::Mask a, Floats::Mask b) { v = vsubq_u32(v, vandq_u32(a, b)); }
    std::int32_t total() const { return static_cast<std::int32_t>(vaddvq_u32(v)); }
};

#endif

}  // namespace videostabilizer::VS_LEVEL
