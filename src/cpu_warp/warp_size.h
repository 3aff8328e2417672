// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace videostabilizer {

// The sizes that warp_affine_neon takes: whole runs of 16 columns, pairs of rows, and at most 32768
// of each: beyond that the limit `size - 1.001` rounds to `size - 1`, whose cell ends outside the
// picture.
inline bool is_vector_size(int width, int height) {
    constexpr int MAX_SIZE = 32768;
    return width > 0 && width % 16 == 0 && width <= MAX_SIZE &&  //
           height > 0 && height % 2 == 0 && height <= MAX_SIZE;
}

}  // namespace videostabilizer
