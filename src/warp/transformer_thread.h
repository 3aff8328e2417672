// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "frames/frame_fifo.h"
#include "videostabilizer/affine_transformer_ocl.h"

namespace videostabilizer {

// The input queue of the stage.
FrameFifo input_fifo(AffineTransformerOcl* t);

// The stage's thread function; `transformer` is the AffineTransformerOcl. Returns null.
void* transformer_thread(void* transformer);

}  // namespace videostabilizer
