// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/affine_transformer_ocl.h"

// The warp stage's interface to the pipeline, beyond the public one.

namespace videostabilizer {

// Sets the function that the stage's thread calls last, with the stage's `user`, when it ends with
// an error. Threads: owner only, before init.
void set_failure_callback(AffineTransformerOcl* t, void (*on_failure)(void* user));

// Wakes the stage's thread, so that it reads its flags before its timed wait ends.
// Threads: thread-safe.
void wake_stage(AffineTransformerOcl* t);

}  // namespace videostabilizer
