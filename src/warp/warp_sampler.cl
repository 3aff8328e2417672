// Samples a plane bilinearly at eight positions, x in columns and y in rows. `width` is the plane's
// row stride in bytes, `height` its rows. The result is truncated, not rounded.
//
//   p00 -- x fraction --> p01         top    = p00 + fx (p01 - p00)
//    |                     |          bottom = p10 + fx (p11 - p10)
//   p10 ----------------> p11         result = top + fy (bottom - top)
static inline uchar8 getInterpolatedPixel_vector(SOURCE uchar* img, float8 x, float8 y, int width,
                                                 int height) {
    const int8 column = convert_int8(x);
    const int8 row = convert_int8(y);
    const float8 xFraction = x - convert_float8(column);
    const float8 yFraction = y - convert_float8(row);

    // For positions inside the picture this changes nothing. But the compiler, which may assume
    // under relaxed maths that there is no NaN, may pass one through the callers' clamps.
    const int8 offset = clamp(row * width + column, 0, (height - 1) * width - 2);
    const int8 below = offset + width;

    int8 p00, p01, p10, p11;
    LOAD8(p00, img, offset);
    LOAD8(p01, img, offset + 1);
    LOAD8(p10, img, below);
    LOAD8(p11, img, below + 1);

    const float8 top = convert_float8(p00) + xFraction * convert_float8(p01 - p00);
    const float8 bottom = convert_float8(p10) + xFraction * convert_float8(p11 - p10);
    return convert_uchar8_sat(top + yFraction * (bottom - top));
}
