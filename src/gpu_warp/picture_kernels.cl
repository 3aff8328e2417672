// SPDX-License-Identifier: Apache-2.0

// The two passes of the native warp. Everything is in whole numbers and in the native engine's
// layouts, so the samples are the same bit for bit. A work item computes four samples of a row; the
// ranges are rounded up, so items outside do nothing. plan_numbers.h describes `plan`.

#define PHASE_BITS 6
#define PHASES (1 << PHASE_BITS)
#define BELOW_PHASE 18  // bits of a position below a phase
#define BLOCK 16
#define STRIP_BLOCKS 16
#define PAIR_WEIGHTS (2 * BLOCK)

// The position of a block, in phases. place, step: phases and what is below them.
inline int block_phase(int2 place, int2 step, int block) {
    const int below = place.y + block * step.y + (1 << (BELOW_PHASE - 1));
    return place.x + block * step.x + (below >> BELOW_PHASE);
}

// Where the weights of four lanes begin: those of lanes 4-7 and 8-11 are stored in turned order.
inline int weights_of(int quarter) {
    const int slot = quarter == 1 ? 2 : (quarter == 2 ? 1 : quarter);
    return 8 * slot;
}

// Along the rows of the source, into intermediate rows. `pairs` is known when compiling.
#define SUM_ACROSS(pairs)                                                            \
    for (int pair = 0; pair < (pairs); ++pair) {                                     \
        const short8 w = vload8(0, from + pair * PAIR_WEIGHTS);                      \
        const int4 a = clamp(pixel + 2 * pair, 0, last) * channels + channel;        \
        const int4 b = clamp(pixel + 2 * pair + 1, 0, last) * channels + channel;    \
        const int4 left = (int4)(row[a.x], row[a.y], row[a.z], row[a.w]) >> shift;   \
        const int4 right = (int4)(row[b.x], row[b.y], row[b.z], row[b.w]) >> shift;  \
        sum += convert_int4(w.even) * (left - bias) + convert_int4(w.odd) * (right - bias); \
    }

#define ACROSS_KERNEL(name, sample)                                                  \
__kernel void name(__global const int* plan, __global const short* weights,         \
                   __global const sample* source, __global short* rows, int upside_down) { \
    const int group = (int)get_global_id(0);                                         \
    const int line = (int)get_global_id(1);                                          \
    const int blocks = plan[PLAN_BLOCKS];                                            \
    if (group >= 4 * blocks || line >= plan[PLAN_LINES]) {                           \
        return;                                                                      \
    }                                                                                \
    const int block = group >> 2;                                                    \
    const int quarter = group & 3;                                                   \
    const int height = plan[PLAN_HEIGHT];                                            \
    const int y = clamp(line + plan[PLAN_FIRST_LINE], 0, height - 1);                \
    const int channels = plan[PLAN_CHANNELS];                                        \
    const int4 channel = channels == 2 ? (int4)(0, 1, 0, 1) : (int4)(0);             \
    const int last = plan[PLAN_WIDTH] - 1;                                           \
    const int shift = plan[PLAN_SAMPLE_SHIFT];                                       \
    const int bias = plan[PLAN_BIAS];                                                \
    __global const sample* row =                                                     \
        source + (size_t)(upside_down ? height - 1 - y : y) * (size_t)((last + 1) * channels); \
    __global const int* places = plan + plan[PLAN_ACROSS_PLACES];                    \
    int phase;                                                                       \
    int table;                                                                       \
    if (plan[PLAN_ACROSS_EVEN]) {                                                    \
        const int2 step = (int2)(plan[PLAN_ACROSS_STEP], plan[PLAN_ACROSS_STEP_BELOW]); \
        const int2 place = vload2(                                                   \
            (size_t)line * (size_t)plan[PLAN_STRIPS] + (size_t)(block / STRIP_BLOCKS), places); \
        phase = block_phase(place, step, block % STRIP_BLOCKS);                      \
        table = 0;                                                                   \
    } else {                                                                         \
        const int2 place = vload2((size_t)line * (size_t)blocks + (size_t)block, places); \
        phase = place.x;                                                             \
        table = place.y;                                                             \
    }                                                                                \
    const int entry = table * PHASES + (phase & (PHASES - 1));                       \
    const int4 pixel = (phase >> PHASE_BITS) +                                       \
                       vload4(entry * 4 + quarter, plan + plan[PLAN_ACROSS_FIRST]);  \
    const int pairs = plan[PLAN_ACROSS_PAIRS];                                       \
    __global const short* from = weights + entry * pairs * PAIR_WEIGHTS + weights_of(quarter); \
    int4 sum = plan[PLAN_ACROSS_ADD];                                                \
    if (pairs == 1) {                                                                \
        SUM_ACROSS(1)                                                                \
    } else if (pairs == 3) {                                                         \
        SUM_ACROSS(3)                                                                \
    } else {                                                                         \
        SUM_ACROSS(pairs)                                                            \
    }                                                                                \
    sum >>= plan[PLAN_ACROSS_SHIFT];                                                 \
    vstore4(convert_short4_sat(sum), (size_t)line * (size_t)(4 * blocks) + (size_t)group, rows); \
}

ACROSS_KERNEL(across_bytes, uchar)
ACROSS_KERNEL(across_words, ushort)

// Across the intermediate rows, into the output.
#define DOWN_KERNEL(name, sample)                                                    \
__kernel void name(__global const int* plan, __global const short* weights,         \
                   __global const short* rows, __global sample* target, int upside_down) { \
    const int group = (int)get_global_id(0);                                         \
    const int y = (int)get_global_id(1);                                             \
    const int blocks = plan[PLAN_BLOCKS];                                            \
    const int height = plan[PLAN_HEIGHT];                                            \
    if (group >= 4 * blocks || y >= height) {                                        \
        return;                                                                      \
    }                                                                                \
    const int block = group >> 2;                                                    \
    const int4 row = vload4(y, plan + plan[PLAN_DOWN_ROWS]);                         \
    const int2 place = vload2(                                                       \
        (size_t)y * (size_t)plan[PLAN_STRIPS] + (size_t)(block / STRIP_BLOCKS),      \
        plan + plan[PLAN_DOWN_PLACES]);                                              \
    const int position = block_phase(place, row.xy, block % STRIP_BLOCKS);           \
    const int4 phase = vload4(row.z * PHASES + (position & (PHASES - 1)),            \
                              plan + plan[PLAN_DOWN_PHASES]);                        \
    const size_t pitch = (size_t)(BLOCK * blocks);                                   \
    __global const short* from =                                                     \
        rows + (size_t)((position >> PHASE_BITS) + phase.x - plan[PLAN_FIRST_LINE]) * pitch + \
        4 * group;                                                                   \
    __global const short* w = weights + phase.z + weights_of(group & 3);             \
    int4 sum = plan[PLAN_DOWN_ADD];                                                  \
    for (int pair = 0; pair < phase.y; ++pair) {                                     \
        const short8 both = vload8(0, w);                                            \
        sum += convert_int4(both.even) * convert_int4(vload4(0, from)) +             \
               convert_int4(both.odd) * convert_int4(vload4(0, from + pitch));       \
        w += PAIR_WEIGHTS;                                                           \
        from += 2 * pitch;                                                           \
    }                                                                                \
    const int4 value = clamp(sum >> plan[PLAN_DOWN_SHIFT], 0, plan[PLAN_LARGEST])    \
                       << plan[PLAN_SAMPLE_SHIFT];                                   \
    vstore4(convert_##sample##4(value), (size_t)group,                               \
            target + (size_t)(upside_down ? height - 1 - y : y) * pitch);            \
}

DOWN_KERNEL(down_bytes, uchar)
DOWN_KERNEL(down_words, ushort)
