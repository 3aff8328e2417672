// SPDX-License-Identifier: Apache-2.0

// The block filters, and the stated sampling, with AVX2 instructions, for which the build sets the
// options of this file.

#define VS_LEVEL avx2

#include "native_warp/block_filters_vector.h"
#include "native_warp/stated_rows.h"
