// The same warp with AVX2, which looks up bytes in tables of sixteen bytes.
//
// Unless the warp shrinks the picture, the left neighbours of the sixteen source positions of a run
// lie within sixteen bytes of a row, and the positions cross few rows. So each row needs one load,
// and a table look-up distributes the bytes to the lanes:
//
//   row r0       . . a b c d e f g h i j k l m n o p . .      c0 = the column of a, 16 bytes from
//   row r0 + 1   . . a b c d e f g h i j k l m n o p . .      there are the table of left
//   row r0 + 2   . . a b c d e f g h i j k l m n o p . .      neighbours, from c0 + 1 of right ones
//
// At the right and lower borders the tables are moved back inside, which makes indices larger. No
// position, not even NaN, leads outside the planes, because r0 and c0 are clamped as integers.

#if defined(__AVX2__) && !defined(PLAIN_WARP)
#define TABLE_LOOKUPS

typedef char vector_bytes __attribute__((vector_size(32)));
// For unaligned stores.
typedef struct __attribute__((packed)) { ulong value; } unaligned8;
typedef struct __attribute__((packed)) { ulong2 value; } unaligned16;

#define RUN_STEPS ((float16)(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15))

// For each byte of `index`: byte (index & 15) of the table, or 0 if bit 7 of the index is set.
static inline int8 lookup8(uchar16 table, int8 index) {
    const ulong4 twice = (ulong4)(as_ulong2(table), as_ulong2(table));
    return __builtin_astype(__builtin_ia32_pshufb256(__builtin_astype(twice, vector_bytes),
                                                     __builtin_astype(index, vector_bytes)),
                            int8);
}

static inline int16 lookup16(SOURCE uchar* table, int16 index) {
    const uchar16 bytes = vload16(0, table);
    return (int16)(lookup8(bytes, index.lo), lookup8(bytes, index.hi));
}

// Indices 0..15 in the lowest byte of each lane; the other bytes of the looked-up lane become 0.
#define BYTE_INDEX(index) ((index) | (int)0x80808000)

// The number of rows, at least 1, that a run of sixteen positions may cross, rounding included. -1
// if the tables cannot be used: the run is too wide or mirrored, or the picture is too small.
static inline int rows_crossed(__constant float* wp, int width, int height) {
    // The limits leave a tenth of a pixel for the rounding of positions. NaN fails the comparisons.
    const bool serves = wp[0] >= 0.0f && wp[0] <= 14.9f / 15.0f && fabs(wp[3]) <= 1.0f &&
                        width >= 34 && width <= 16384 && height <= 16384;
    const int crossed = serves ? (int)(15.0f * fabs(wp[3]) + 0.1f) + 1 : -1;
    return 2 * crossed + 4 <= height ? crossed : -1;
}

// The first row of the tables of a run whose first position is in row `first`.
static inline int first_row(int first, int crossed, bool upwards, int last) {
    return min(max(first - (upwards ? crossed : 0), 0), last);
}

static inline float16 lerp_bytes(int16 from, int16 to, float16 fraction) {
    // Differences of bytes are exact in float.
    const float16 start = convert_float16(from);
    return start + fraction * (convert_float16(to) - start);
}

// Sixteen luma pixels from column x on of the row whose wp[0], wp[3] and row terms are `line`.
static inline void luma_lookups16(SOURCE uchar* src, __global uchar* dst, float4 line, int crossed,
                                  int x, int width, int height, int row_stride) {
    const float16 xs = (float)x + RUN_STEPS;
    const float16 xx = line.x * xs + line.z;
    const float16 yy = line.y * xs + line.w;
    const float last_x = last_position(width);
    const float last_y = last_position(height);
    // This form of clamping compiles to two instructions; it passes NaN through.
    const float16 from_left = xx > 0.0f ? xx : 0.0f;
    const float16 from_top = yy > 0.0f ? yy : 0.0f;
    const float16 column_at = from_left < last_x ? from_left : last_x;
    const float16 row_at = from_top < last_y ? from_top : last_y;
    const int16 column = convert_int16(column_at);
    const int16 row = convert_int16(row_at);
    const float16 x_fraction = column_at - convert_float16(column);
    const float16 y_fraction = row_at - convert_float16(row);

    const int c0 = (int)min((uint)column.s0, (uint)(width - 17));
    const int r0 = first_row(row.s0, crossed, line.y < 0.0f, height - 2 - crossed);
    const int16 index = BYTE_INDEX(column - c0);
    SOURCE uchar* table = src + r0 * row_stride + c0;
    // The first crossing is outside the loop: there is always room for one, and most warps rotate
    // too little for a second.
    const int16 crosses = row > r0;
    const int16 left0 = lookup16(table, index);
    const int16 right0 = lookup16(table + 1, index);
    table += row_stride;
    const int16 left1 = lookup16(table, index);
    const int16 right1 = lookup16(table + 1, index);
    table += row_stride;
    const int16 left2 = lookup16(table, index);
    const int16 right2 = lookup16(table + 1, index);
    int16 p00 = crosses ? left1 : left0;
    int16 p01 = crosses ? right1 : right0;
    int16 p10 = crosses ? left2 : left1;
    int16 p11 = crosses ? right2 : right1;
    for (int r = r0 + 2; r <= r0 + crossed; ++r) {
        const int16 below = row >= r;
        p00 = below ? p10 : p00;
        p01 = below ? p11 : p01;
        table += row_stride;
        p10 = below ? lookup16(table, index) : p10;
        p11 = below ? lookup16(table + 1, index) : p11;
    }
    const float16 top = lerp_bytes(p00, p01, x_fraction);
    const float16 bottom = lerp_bytes(p10, p11, x_fraction);
    // The result is between two bytes: no saturation is needed.
    const int16 result = convert_int16(top + y_fraction * (bottom - top));
    ((__global unaligned16*)dst)->value = as_ulong2(convert_uchar16(result));
}

static inline void warp_luma_lookups(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                                     float2 terms, int x, int run, int y, int width, int height,
                                     int row_stride) {
    const int crossed = rows_crossed(wp, width, height);
    if (crossed < 0) {
        warp_luma_plain(src, dst, wp, terms, x, run, y, width, height, row_stride);
        return;
    }
    const float4 line = (float4)(wp[0], wp[3], terms);
    for (int end = x + run; x < end; x += 16) {
        luma_lookups16(src, dst + y * row_stride + x, line, crossed, x, width, height, row_stride);
    }
}

static inline void warp_planes_lookups(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                                       float2 terms, int x, int run, int y, int width, int height,
                                       int row_stride, int v_offset) {
    const int crossed = rows_crossed(wp, width, height);
    if (crossed < 0) {
        warp_planes_plain(src, dst, wp, terms, x, run, y, width, height, row_stride, v_offset);
        return;
    }
    const int last_column = (min(width, 2 * row_stride) - 1) >> 1;
    __global uchar* out = dst + (y / 2) * row_stride + x / 2;
    for (int end = x + run; x < end; x += 16, out += 8) {
        int8 row;
        const int8 column =
            chroma_columns8(wp, terms, x, width, height, 2 * row_stride, &row) >> 1;
        const int c0 = (int)min((uint)column.s0, (uint)(last_column - 15));
        const int r0 = first_row(row.s0, crossed, wp[3] < 0.0f, height / 2 - 1 - crossed);
        const int8 index = BYTE_INDEX(column - c0);
        SOURCE uchar* table = src + r0 * row_stride + c0;
        int8 u = lookup8(vload16(0, table), index);
        int8 v = lookup8(vload16(0, table + v_offset), index);
        for (int r = r0 + 1; r <= r0 + crossed; ++r) {
            table += row_stride;
            u = row >= r ? lookup8(vload16(0, table), index) : u;
            v = row >= r ? lookup8(vload16(0, table + v_offset), index) : v;
        }
        ((__global unaligned8*)out)->value = as_ulong(convert_uchar8(u));
        ((__global unaligned8*)(out + v_offset))->value = as_ulong(convert_uchar8(v));
    }
}

static inline void warp_pairs_lookups(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                                      float2 terms, int x, int run, int y, int width, int height,
                                      int row_stride) {
    const int crossed = rows_crossed(wp, width, height);
    if (crossed < 0) {
        warp_pairs_plain(src, dst, wp, terms, x, run, y, width, height, row_stride);
        return;
    }
    const int last_pair = (min(width, row_stride & ~1) - 1) & ~1;
    __global uchar* out = dst + (y / 2) * row_stride + x;
    for (int end = x + run; x < end; x += 16, out += 16) {
        int8 row;
        // Even columns: those of the pairs' first bytes.
        const int8 column = chroma_columns8(wp, terms, x, width, height, row_stride, &row);
        const int c0 = (int)min((uint)column.s0, (uint)(last_pair - 14));
        const int r0 = first_row(row.s0, crossed, wp[3] < 0.0f, height / 2 - 1 - crossed);
        const int8 index = (column - c0) * 0x0101 + (int)0x80800100;
        SOURCE uchar* table = src + r0 * row_stride + c0;
        int8 pairs = lookup8(vload16(0, table), index);
        for (int r = r0 + 1; r <= r0 + crossed; ++r) {
            table += row_stride;
            pairs = row >= r ? lookup8(vload16(0, table), index) : pairs;
        }
        ((__global unaligned16*)out)->value = as_ulong2(convert_ushort8(pairs));
    }
}
#endif
