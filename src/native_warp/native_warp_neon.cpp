// SPDX-License-Identifier: Apache-2.0

// The block filters with NEON instructions..

#define VS_LEVEL neon

#include "native_warp/block_filters_vector.h"
