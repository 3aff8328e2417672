// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace SimpleLA {

// Inverts the affine map (x, y) -> (a x + b y + c, d x + e y + f), given and returned as its six
// coefficients in row-major order. `in` and `out` may be the same array. Single precision.
//
//   det = a e - b d
//   linear part       [ e -b ] / det      translation   -(linear part) (c, f)
//                     [-d  a ]
//
// A singular map (det exactly 0) gives six zeros, which map every point to the origin.
inline void invert_affine(const float in[6], float out[6]) {
    const float a = in[0];
    const float b = in[1];
    const float c = in[2];
    const float d = in[3];
    const float e = in[4];
    const float f = in[5];
    const float det = a * e - b * d;
    const float scale = det != 0.0F ? 1.0F / det : 0.0F;
    out[0] = e * scale;
    out[1] = -b * scale;
    out[3] = -d * scale;
    out[4] = a * scale;
    out[2] = -(f * out[1]) - out[0] * c;
    out[5] = -(f * out[4]) - out[3] * c;
}

}  // namespace SimpleLA
