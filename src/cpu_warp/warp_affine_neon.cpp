// SPDX-License-Identifier: Apache-2.0

// The vector routine. Products and sums are separate instructions: a fused multiply-add, which only
// some processors have, rounds once less and gives other bits.
//
// The clamps select lanes by comparison, not by minimum and maximum, which would keep NaN; it
// becomes 0, as in the scalar routines.

#include <cstddef>

#include "cpu_warp/neon.h"
#include "cpu_warp/warp_size.h"
#include "videostabilizer/warp_affine.h"

namespace {

using videostabilizer::neon::load_pair;
using videostabilizer::neon::load_unit;

constexpr int LUMA_RUN = 8;     // luma pixels of a step, in two halves of 4 lanes
constexpr int CHROMA_RUN = 16;  // luma columns of a step of 8 chroma pairs
constexpr int LANES = 4;

// One coordinate of the source position: offset + step * column.
inline float32x4_t map(float32x4_t offset, float32x4_t step, float32x4_t columns) {
    return vaddq_f32(offset, vmulq_f32(step, columns));
}

// The clamp limits of one coordinate, from the table of constants.
struct Limits {
    float32x4_t edge;   // size - 1
    float32x4_t inner;  // size - 1.001
};

inline float32x4_t clamp(float32x4_t position, const Limits& limits) {
    const uint32x4_t not_below = vcgeq_f32(position, vdupq_n_f32(0.0F));
    const float32x4_t from_0 =
        vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(position), not_below));
    return vbslq_f32(vcgeq_f32(from_0, limits.edge), limits.inner, from_0);
}

// Four lanes of luma: byte offsets of their cells in the plane, and their fractions of a cell.
struct Cells {
    int32x4_t offset;
    float32x4_t fx;
    float32x4_t fy;
};

inline Cells find_cells(float32x4_t x, float32x4_t y, int32x4_t row_bytes) {
    const int32x4_t xi = vcvtq_s32_f32(x);
    const int32x4_t yi = vcvtq_s32_f32(y);
    return {vaddq_s32(vmulq_s32(yi, row_bytes), xi), vsubq_f32(x, vcvtq_f32_s32(xi)),
            vsubq_f32(y, vcvtq_f32_s32(yi))};
}

// Gathers the pair of neighbouring bytes at source + offset[i] into lane i: first bytes in val[0],
// second ones in val[1].
inline uint8x8x2_t gather_pairs(const unsigned char* source, const std::int32_t* offset) {
    uint8x8x2_t pairs = {{vdup_n_u8(0), vdup_n_u8(0)}};
    pairs = load_pair<0>(source + offset[0], pairs);
    pairs = load_pair<1>(source + offset[1], pairs);
    pairs = load_pair<2>(source + offset[2], pairs);
    pairs = load_pair<3>(source + offset[3], pairs);
    pairs = load_pair<4>(source + offset[4], pairs);
    pairs = load_pair<5>(source + offset[5], pairs);
    pairs = load_pair<6>(source + offset[6], pairs);
    pairs = load_pair<7>(source + offset[7], pairs);
    return pairs;
}

// first + fraction * difference, in four lanes.
inline float32x4_t interpolate(int16x4_t first, int16x4_t difference, float32x4_t fraction) {
    return vaddq_f32(vcvtq_f32_s32(vmovl_s16(first)),
                     vmulq_f32(fraction, vcvtq_f32_s32(vmovl_s16(difference))));
}

// One row of pairs in 16 bits: the first samples, and second minus first.
struct Samples {
    explicit Samples(const uint8x8x2_t& pairs)
        : first(vreinterpretq_s16_u16(vmovl_u8(pairs.val[0]))),
          difference(vreinterpretq_s16_u16(vsubl_u8(pairs.val[1], pairs.val[0]))) {}
    int16x8_t first;
    int16x8_t difference;
};

inline uint16x4_t blend(float32x4_t top, float32x4_t bottom, float32x4_t fy) {
    const float32x4_t value = vaddq_f32(top, vmulq_f32(fy, vsubq_f32(bottom, top)));
    return vqmovun_s32(vcvtq_s32_f32(value));  // truncated, and clamped from below
}

inline uint8x8_t sample_luma(const unsigned char* source, int width, const Cells& low,
                             const Cells& high) {
    std::int32_t offset[2 * LANES];
    vst1q_s32(offset, low.offset);
    vst1q_s32(offset + LANES, high.offset);
    const Samples top(gather_pairs(source, offset));
    const Samples bottom(gather_pairs(source + width, offset));

    const uint16x4_t values_low = blend(
        interpolate(vget_low_s16(top.first), vget_low_s16(top.difference), low.fx),
        interpolate(vget_low_s16(bottom.first), vget_low_s16(bottom.difference), low.fx), low.fy);
    const uint16x4_t values_high =
        blend(interpolate(vget_high_s16(top.first), vget_high_s16(top.difference), high.fx),
              interpolate(vget_high_s16(bottom.first), vget_high_s16(bottom.difference), high.fx),
              high.fy);
    return vqmovn_u16(vcombine_u16(values_low, values_high));
}

// Returns the end of the plane that it wrote.
unsigned char* warp_luma(const unsigned char* source, unsigned char* destination, const float* wp,
                         int width, int height, const float* constants) {
    const float32x4_t first_low = vld1q_f32(constants);
    const float32x4_t first_high = vld1q_f32(constants + 4);
    const Limits limits_x = {vld1q_f32(constants + 8), vld1q_f32(constants + 12)};
    const Limits limits_y = {vld1q_f32(constants + 16), vld1q_f32(constants + 20)};
    const float32x4_t step_x = vdupq_n_f32(wp[0]);
    const float32x4_t step_y = vdupq_n_f32(wp[3]);
    const float32x4_t run = vdupq_n_f32(static_cast<float>(LUMA_RUN));
    const int32x4_t row_bytes = vdupq_n_s32(width);

    float y = 0.0F;
    for (int rows = height; rows != 0; --rows) {
        const float32x4_t offset_x = vdupq_n_f32(wp[2] + wp[1] * y);
        const float32x4_t offset_y = vdupq_n_f32(wp[5] + wp[4] * y);
        float32x4_t low = first_low;
        float32x4_t high = first_high;
        for (int columns = width; columns != 0; columns -= LUMA_RUN) {
            const Cells cells_low =
                find_cells(clamp(map(offset_x, step_x, low), limits_x),
                           clamp(map(offset_y, step_y, low), limits_y), row_bytes);
            const Cells cells_high =
                find_cells(clamp(map(offset_x, step_x, high), limits_x),
                           clamp(map(offset_y, step_y, high), limits_y), row_bytes);
            vst1_u8(destination, sample_luma(source, width, cells_low, cells_high));
            destination += LUMA_RUN;
            low = vaddq_f32(low, run);
            high = vaddq_f32(high, run);
        }
        y += 1.0F;
    }
    return destination;
}

inline int32x4_t clamp(int32x4_t position, int32x4_t limit) {
    return vminq_s32(vmaxq_s32(position, vdupq_n_s32(0)), limit);
}

// Byte offsets of four chroma pairs. The conversions saturate, so any position is allowed.
inline int32x4_t find_pairs(float32x4_t x, float32x4_t y, int32x4_t limit_x, int32x4_t limit_y,
                            int32x4_t row_bytes) {
    const int32x4_t sx = vandq_s32(clamp(vcvtq_s32_f32(x), limit_x), vdupq_n_s32(~1));
    const int32x4_t sy = vshrq_n_s32(clamp(vcvtq_s32_f32(y), limit_y), 1);
    return vaddq_s32(vmulq_s32(sy, row_bytes), sx);
}

void warp_chroma(const unsigned char* source, unsigned char* destination, const float* wp,
                 int width, int height, const float* constants) {
    const float32x4_t first_low = vld1q_f32(constants + 24);
    const float32x4_t first_high = vld1q_f32(constants + 28);
    const int32x4_t limit_x = vdupq_n_s32(width - 1);
    const int32x4_t limit_y = vdupq_n_s32(height - 1);
    const float32x4_t step_x = vdupq_n_f32(wp[0]);
    const float32x4_t step_y = vdupq_n_f32(wp[3]);
    const float32x4_t run = vdupq_n_f32(static_cast<float>(CHROMA_RUN));
    const int32x4_t row_bytes = vdupq_n_s32(width);

    float y = 0.0F;
    for (int rows = height; rows != 0; rows -= 2) {
        const float32x4_t offset_x = vdupq_n_f32((wp[2] + 0.5F) + wp[1] * y);
        const float32x4_t offset_y = vdupq_n_f32((wp[5] + 0.5F) + wp[4] * y);
        float32x4_t low = first_low;
        float32x4_t high = first_high;
        for (int columns = width; columns != 0; columns -= CHROMA_RUN) {
            std::int32_t offset[2 * LANES];
            vst1q_s32(offset, find_pairs(map(offset_x, step_x, low), map(offset_y, step_y, low),
                                         limit_x, limit_y, row_bytes));
            vst1q_s32(offset + LANES,
                      find_pairs(map(offset_x, step_x, high), map(offset_y, step_y, high), limit_x,
                                 limit_y, row_bytes));
            uint16x8_t pairs = vdupq_n_u16(0);
            pairs = load_unit<0>(source + offset[0], pairs);
            pairs = load_unit<1>(source + offset[1], pairs);
            pairs = load_unit<2>(source + offset[2], pairs);
            pairs = load_unit<3>(source + offset[3], pairs);
            pairs = load_unit<4>(source + offset[4], pairs);
            pairs = load_unit<5>(source + offset[5], pairs);
            pairs = load_unit<6>(source + offset[6], pairs);
            pairs = load_unit<7>(source + offset[7], pairs);
            vst1q_u8(destination, vreinterpretq_u8_u16(pairs));
            destination += CHROMA_RUN;
            low = vaddq_f32(low, run);
            high = vaddq_f32(high, run);
        }
        y += 2.0F;
    }
}

}  // namespace

extern "C" void warp_affine_neon(unsigned char* source, unsigned char* destination, const float* wp,
                                 int width, int height, const float* constants) {
    if (!videostabilizer::is_vector_size(width, height)) {
        return;
    }
    unsigned char* const chroma = warp_luma(source, destination, wp, width, height, constants);
    warp_chroma(source + static_cast<std::ptrdiff_t>(width) * height, chroma, wp, width, height,
                constants);
}
