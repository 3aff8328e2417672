// Stands in for warp_affine_neon.cpp where there are neither NEON nor an emulation of it.

#include "videostabilizer/warp_affine.h"
#include "warp/warp_semi_planar.h"
#include "warp/warp_size.h"

extern "C" void warp_affine_neon(unsigned char* source, unsigned char* destination, const float* wp,
                                 int width, int height, const float* /*constants*/) {
    if (videostabilizer::is_vector_size(width, height)) {
        videostabilizer::warp_semi_planar(source, destination, wp, width, height);
    }
}
