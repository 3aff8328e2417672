// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "tests/cpu_warp/reference_warp.h"

// Every CPU warp, for the tests and the benchmark.

enum class Layout { SEMI_PLANAR, PLANAR, FOUR_CHANNELS };

using WarpFunction = void (*)(unsigned char* source, unsigned char* destination, float* matrix,
                              int width, int height);

struct WarpVariant {
    const char* name;
    WarpFunction run;
    Layout layout;
    bool vector;    // has vector code, for sizes of whole vectors
    bool any_size;  // takes other sizes too; false: does nothing with them
};

extern const WarpVariant warp_variants[5];

// The packed picture that the CPU warps take; of 0 bytes if it is empty.
PictureLayout packed_picture(Layout layout, int width, int height);
