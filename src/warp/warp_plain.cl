// The plain warp, in groups of eight pixels. It defines the result; faster variants give the same
// bytes.

// The terms of wp that are constant along row y.
static inline float2 row_terms(__constant float* wp, int y) {
    return (float2)(wp[1] * y + wp[2], wp[4] * y + wp[5]);
}

// The last position to sample along an axis of `size` pixels, such that its right or lower
// neighbour exists.
static inline float last_position(int size) {
    // Beyond 32768 pixels the margin is lost to rounding; then the next lower float is used.
    return fmin((float)size - 1.001f, nextafter((float)(size - 1), 0.0f));
}

// Eight luma pixels from (x, y) on.
static inline void warp_luma8(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                              float2 terms, int x, int y, int width, int height, int row_stride) {
    const float8 xs = (float)x + (float8)(0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f);
    const float8 xx = wp[0] * xs + terms.x;
    const float8 yy = wp[3] * xs + terms.y;
    // fmax and fmin, because clamp is undefined for NaN.
    const float8 column = fmin(fmax(xx, 0.0f), last_position(width));
    const float8 row = fmin(fmax(yy, 0.0f), last_position(height));
    vstore8(getInterpolatedPixel_vector(src, column, row, row_stride, height), 0,
            dst + y * row_stride + x);
}

// Whether the work items of row y compute chroma. There are height / 2 chroma rows: the last luma
// row of an odd height has none.
static inline bool makes_chroma(int y, int height) {
    return (y & 1) == 0 && y + 1 < height;
}

// Rounds positions along one axis to the nearest pixel, clamps them to [0, last] and then rounds
// down to an even pixel.
static inline int8 nearest_even(float8 position, int last) {
    // The float clamp changes no result; it keeps the conversion to int in range.
    const float8 near = fmin(fmax(position + 0.5f, -1.0f), (float)last + 1.0f);
    return clamp(convert_int8(near), 0, last) & ~1;
}

// The source positions of the eight chroma samples of the luma pixels x, x + 2, ... x + 14 of row
// y: even luma columns and, in *source_row, chroma rows. `row_bytes`: luma columns that a chroma
// row of the source covers, which may be fewer than an odd width.
static inline int8 chroma_columns8(__constant float* wp, float2 terms, int x, int width, int height,
                                   int row_bytes, int8* source_row) {
    const float8 xs = (float)x + (float8)(0.0f, 2.0f, 4.0f, 6.0f, 8.0f, 10.0f, 12.0f, 14.0f);
    *source_row = nearest_even(wp[3] * xs + terms.y, (height & ~1) - 1) >> 1;
    return nearest_even(wp[0] * xs + terms.x, min(width, row_bytes & ~1) - 1);
}

// Eight chroma pairs of a semi-planar picture, moved byte by byte, because rows may start at odd
// offsets.
static inline void warp_pairs8(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                               float2 terms, int x, int y, int width, int height, int row_stride) {
    int8 source_row;
    const int8 column = chroma_columns8(wp, terms, x, width, height, row_stride, &source_row);
    const int8 offset = source_row * row_stride + column;
    uchar8 first, second;
    LOAD8(first, src, offset);
    LOAD8(second, src, offset + 1);
    uchar16 pairs;
    pairs.even = first;
    pairs.odd = second;
    vstore16(pairs, 0, dst + (y / 2) * row_stride + x);
}

// Eight U and eight V samples of a planar picture, whose V plane starts at v_offset.
static inline void warp_planes8(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                                float2 terms, int x, int y, int width, int height, int row_stride,
                                int v_offset) {
    int8 source_row;
    const int8 column = chroma_columns8(wp, terms, x, width, height, 2 * row_stride, &source_row);
    const int8 offset = source_row * row_stride + (column >> 1);
    __global uchar* out = dst + (y / 2) * row_stride + x / 2;
    uchar8 u, v;
    LOAD8(u, src, offset);
    vstore8(u, 0, out);
    LOAD8(v, src, v_offset + offset);
    vstore8(v, 0, out + v_offset);
}

// A run of `run` pixels from (x, y) on, or its chroma.

static inline void warp_luma_plain(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                                   float2 terms, int x, int run, int y, int width, int height,
                                   int row_stride) {
    for (int end = x + run; x < end; x += 8) {
        warp_luma8(src, dst, wp, terms, x, y, width, height, row_stride);
    }
}

static inline void warp_pairs_plain(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                                    float2 terms, int x, int run, int y, int width, int height,
                                    int row_stride) {
    for (int end = x + run; x < end; x += 16) {
        warp_pairs8(src, dst, wp, terms, x, y, width, height, row_stride);
    }
}

static inline void warp_planes_plain(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                                     float2 terms, int x, int run, int y, int width, int height,
                                     int row_stride, int v_offset) {
    for (int end = x + run; x < end; x += 16) {
        warp_planes8(src, dst, wp, terms, x, y, width, height, row_stride, v_offset);
    }
}
