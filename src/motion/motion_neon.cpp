// SPDX-License-Identifier: Apache-2.0

// The estimator's fits and counts with 64-bit NEON instructions. Those of 32-bit NEON flush
// denormal numbers, so that results would differ: there the scalar ones run.

#if defined(__aarch64__)

#define VS_LEVEL neon

#include "motion/ransac_vector.h"

#endif
