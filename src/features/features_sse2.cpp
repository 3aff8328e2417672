// SPDX-License-Identifier: Apache-2.0

// The corner scan and the tracking windows with SSE2 instructions, which the build enables for this
// file alone.

#define VS_LEVEL sse2

#include "features/fast16_vector.h"
#include "features/lucas_kanade_vector.h"
