// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace videostabilizer {

// warpAffine with the matrix already inverted: `wp` as in warp_affine_neon.
void warp_semi_planar(const unsigned char* source, unsigned char* destination, const float* wp,
                      int width, int height);

}  // namespace videostabilizer
