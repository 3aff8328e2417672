// SPDX-License-Identifier: Apache-2.0

// The estimator's fits and counts with SSE2 instructions, for which the build sets the options of
// this file.

#define VS_LEVEL sse2

#include "motion/ransac_vector.h"
