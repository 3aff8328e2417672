// SPDX-License-Identifier: Apache-2.0

// Replaces warp_affine_neon.cpp where there is neither NEON nor its emulation.

#include "cpu_warp/warp_semi_planar.h"
#include "cpu_warp/warp_size.h"
#include "videostabilizer/warp_affine.h"

extern "C" void warp_affine_neon(unsigned char* source, unsigned char* destination, const float* wp,
                                 int width, int height, const float* /*constants*/) {
    if (videostabilizer::is_vector_size(width, height)) {
        videostabilizer::warp_semi_planar(source, destination, wp, width, height);
    }
}
