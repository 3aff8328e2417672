#pragma once

#include "frames/frame_fifo.h"
#include "videostabilizer/affine_transformer_ocl.h"

namespace videostabilizer {

// The input queue of the stage.
FrameFifo input_fifo(AffineTransformerOcl* t);

// The body of the stage's thread; `transformer` is the AffineTransformerOcl. Returns null.
void* transformer_thread(void* transformer);

}  // namespace videostabilizer
