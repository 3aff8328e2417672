// The warp kernels. A work item (i, j) makes a run of 16 or 32 luma pixels of row j and, on even
// rows, the chroma that belongs to them. wp maps an output position to its source position:
//
//   source x = wp[0] x + wp[1] y + wp[2]        source y = wp[3] x + wp[4] y + wp[5]
//
// The 16-pixel kernels take the row strides that they are given; the 32-pixel kernels, for widths
// that are multiples of 32, take packed rows. All offsets are in bytes, and all stores are to byte
// pointers, which need no alignment: every stride is good, an odd one too.

// What wp gives for row y, so that a pixel costs one multiplication per axis.
static inline float2 row_terms(__constant float* wp, int y) {
    return (float2)(wp[1] * y + wp[2], wp[4] * y + wp[5]);
}

// The last position to sample along an axis of `size` pixels: far enough from the last pixel that
// the position's right or lower neighbour exists.
static inline float last_position(int size) {
    // Beyond 32768 pixels the margin drowns in the rounding; the next lower float still serves.
    return fmin((float)size - 1.001f, nextafter((float)(size - 1), 0.0f));
}

// Eight luma pixels from (x, y) on.
static inline void warp_luma8(SOURCE uchar* src, __global uchar* dst, __constant float* wp,
                              float2 terms, int x, int y, int width, int height, int row_stride) {
    const float8 xs = (float)x + (float8)(0.0f, 1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f);
    const float8 xx = wp[0] * xs + terms.x;
    const float8 yy = wp[3] * xs + terms.y;
    // fmax and fmin, since clamp says nothing about NaN.
    const float8 column = fmin(fmax(xx, 0.0f), last_position(width));
    const float8 row = fmin(fmax(yy, 0.0f), last_position(height));
    vstore8(getInterpolatedPixel_vector(src, column, row, row_stride, height), 0,
            dst + y * row_stride + x);
}

// Whether the work items of row y make chroma. Chroma has height / 2 rows: the last row of an odd
// height has none.
static inline bool makes_chroma(int y, int height) {
    return (y & 1) == 0 && y + 1 < height;
}

// Rounds positions along one axis to the nearest pixel, clamps them to [0, last] and goes to the
// even pixel at or before each.
static inline int8 nearest_even(float8 position, int last) {
    // The outer clamp changes no result, but brings into the range of int what lies far outside.
    const float8 near = fmin(fmax(position + 0.5f, -1.0f), (float)last + 1.0f);
    return clamp(convert_int8(near), 0, last) & ~1;
}

// The source positions of the eight chroma samples that belong to the luma pixels x, x + 2, ...
// x + 14 of row y: even luma columns and, in *source_row, chroma rows. `row_bytes` is how many luma
// columns the chroma rows of the source can serve; it cuts short the last one of an odd width.
static inline int8 chroma_columns8(__constant float* wp, float2 terms, int x, int width, int height,
                                   int row_bytes, int8* source_row) {
    const float8 xs = (float)x + (float8)(0.0f, 2.0f, 4.0f, 6.0f, 8.0f, 10.0f, 12.0f, 14.0f);
    *source_row = nearest_even(wp[3] * xs + terms.y, (height & ~1) - 1) >> 1;
    return nearest_even(wp[0] * xs + terms.x, min(width, row_bytes & ~1) - 1);
}

// Eight chroma pairs of a semi-planar picture. Pairs are moved byte by byte, since those of rows at
// odd offsets can't be loaded as 16-bit units.
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

__kernel void warp_affine_line_yuv420sp_16(SOURCE uchar* srcY, SOURCE ushort* srcUV,
                                           __global uchar* dstY, __global ushort* dstUV,
                                           __constant float* wp, int width, int height,
                                           int stride_y, int stride_uv) {
    const int x0 = (int)get_global_id(0) * 16;
    const int y = (int)get_global_id(1);
    const float2 terms = row_terms(wp, y);
    for (int x = x0; x < x0 + 16; x += 8) {
        warp_luma8(srcY, dstY, wp, terms, x, y, width, height, stride_y);
    }
    if (makes_chroma(y, height)) {
        warp_pairs8((SOURCE uchar*)srcUV, (__global uchar*)dstUV, wp, terms, x0, y, width, height,
                    stride_y);
    }
}

__kernel void warp_affine_line_yuv420p_16(SOURCE uchar* srcY, SOURCE uchar* srcU,
                                          __global uchar* dstY, __global uchar* dstU,
                                          __constant float* wp, int width, int height, int stride_y,
                                          int stride_uv) {
    const int x0 = (int)get_global_id(0) * 16;
    const int y = (int)get_global_id(1);
    const float2 terms = row_terms(wp, y);
    for (int x = x0; x < x0 + 16; x += 8) {
        warp_luma8(srcY, dstY, wp, terms, x, y, width, height, stride_y);
    }
    if (makes_chroma(y, height)) {
        warp_planes8(srcU, dstU, wp, terms, x0, y, width, height, stride_uv,
                     (stride_uv * height) >> 1);
    }
}

__kernel void warp_affine_line_yuv420sp(SOURCE uchar* srcY, SOURCE ushort* srcUV,
                                        __global uchar* dstY, __global ushort* dstUV,
                                        __constant float* wp, int width, int height, int stride_y,
                                        int stride_uv) {
    const int x0 = (int)get_global_id(0) * 32;
    const int y = (int)get_global_id(1);
    const float2 terms = row_terms(wp, y);
    for (int x = x0; x < x0 + 32; x += 8) {
        warp_luma8(srcY, dstY, wp, terms, x, y, width, height, width);
    }
    if (makes_chroma(y, height)) {
        for (int x = x0; x < x0 + 32; x += 16) {
            warp_pairs8((SOURCE uchar*)srcUV, (__global uchar*)dstUV, wp, terms, x, y, width,
                        height, width);
        }
    }
}

__kernel void warp_affine_line_yuv420p(SOURCE uchar* srcY, SOURCE uchar* srcU, __global uchar* dstY,
                                       __global uchar* dstU, __constant float* wp, int width,
                                       int height, int stride_y, int stride_uv) {
    const int x0 = (int)get_global_id(0) * 32;
    const int y = (int)get_global_id(1);
    const float2 terms = row_terms(wp, y);
    for (int x = x0; x < x0 + 32; x += 8) {
        warp_luma8(srcY, dstY, wp, terms, x, y, width, height, width);
    }
    if (makes_chroma(y, height)) {
        for (int x = x0; x < x0 + 32; x += 16) {
            warp_planes8(srcU, dstU, wp, terms, x, y, width, height, width / 2, width * height / 4);
        }
    }
}
