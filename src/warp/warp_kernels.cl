// The warp kernels. Work item (i, j) computes a run of 16 or 32 luma pixels of row j and, on even
// rows, their chroma. wp maps an output position to its source position:
//
//   source x = wp[0] x + wp[1] y + wp[2]        source y = wp[3] x + wp[4] y + wp[5]
//
// The 16-pixel kernels use the given row strides; the 32-pixel kernels, for widths that are
// multiples of 32, assume packed rows. All offsets are in bytes and all stores go to byte pointers,
// which need no alignment, so any stride is allowed.

#ifdef TABLE_LOOKUPS
#define WARP_LUMA warp_luma_lookups
#define WARP_PAIRS warp_pairs_lookups
#define WARP_PLANES warp_planes_lookups
#else
#define WARP_LUMA warp_luma_plain
#define WARP_PAIRS warp_pairs_plain
#define WARP_PLANES warp_planes_plain
#endif

__kernel void warp_affine_line_yuv420sp_16(SOURCE uchar* srcY, SOURCE ushort* srcUV,
                                           __global uchar* dstY, __global ushort* dstUV,
                                           __constant float* wp, int width, int height,
                                           int stride_y, int stride_uv) {
    const int x = (int)get_global_id(0) * 16;
    const int y = (int)get_global_id(1);
    const float2 terms = row_terms(wp, y);
    WARP_LUMA(srcY, dstY, wp, terms, x, 16, y, width, height, stride_y);
    if (makes_chroma(y, height)) {
        WARP_PAIRS((SOURCE uchar*)srcUV, (__global uchar*)dstUV, wp, terms, x, 16, y, width, height,
                   stride_y);
    }
}

__kernel void warp_affine_line_yuv420p_16(SOURCE uchar* srcY, SOURCE uchar* srcU,
                                          __global uchar* dstY, __global uchar* dstU,
                                          __constant float* wp, int width, int height, int stride_y,
                                          int stride_uv) {
    const int x = (int)get_global_id(0) * 16;
    const int y = (int)get_global_id(1);
    const float2 terms = row_terms(wp, y);
    WARP_LUMA(srcY, dstY, wp, terms, x, 16, y, width, height, stride_y);
    if (makes_chroma(y, height)) {
        WARP_PLANES(srcU, dstU, wp, terms, x, 16, y, width, height, stride_uv,
                    (stride_uv * height) >> 1);
    }
}

__kernel void warp_affine_line_yuv420sp(SOURCE uchar* srcY, SOURCE ushort* srcUV,
                                        __global uchar* dstY, __global ushort* dstUV,
                                        __constant float* wp, int width, int height, int stride_y,
                                        int stride_uv) {
    const int x = (int)get_global_id(0) * 32;
    const int y = (int)get_global_id(1);
    const float2 terms = row_terms(wp, y);
    WARP_LUMA(srcY, dstY, wp, terms, x, 32, y, width, height, width);
    if (makes_chroma(y, height)) {
        WARP_PAIRS((SOURCE uchar*)srcUV, (__global uchar*)dstUV, wp, terms, x, 32, y, width, height,
                   width);
    }
}

__kernel void warp_affine_line_yuv420p(SOURCE uchar* srcY, SOURCE uchar* srcU, __global uchar* dstY,
                                       __global uchar* dstU, __constant float* wp, int width,
                                       int height, int stride_y, int stride_uv) {
    const int x = (int)get_global_id(0) * 32;
    const int y = (int)get_global_id(1);
    const float2 terms = row_terms(wp, y);
    WARP_LUMA(srcY, dstY, wp, terms, x, 32, y, width, height, width);
    if (makes_chroma(y, height)) {
        WARP_PLANES(srcU, dstU, wp, terms, x, 32, y, width, height, width / 2, width * height / 4);
    }
}
