// SPDX-License-Identifier: Apache-2.0

#pragma once

// All public headers. The stabilizer itself is in stabilizer.h; the other headers are its parts,
// usable on their own. docs/threads.md defines the thread terms.

#include "videostabilizer/affine_transformer_ocl.h"  // the warp stage
#include "videostabilizer/export.h"
#include "videostabilizer/fast16.h"                  // corners
#include "videostabilizer/frame.h"                   // pictures
#include "videostabilizer/gaussian_motion_filter.h"  // smoothing of the camera path
#include "videostabilizer/gemm.h"                    // matrix products
#include "videostabilizer/jni.h"                     // Java binding, where there is a <jni.h>
#include "videostabilizer/keypoint.h"
#include "videostabilizer/log.h"
#include "videostabilizer/lu.h"             // linear systems
#include "videostabilizer/lucas_kanade.h"   // tracking
#include "videostabilizer/mat.h"            // matrices
#include "videostabilizer/motion_path.h"    // composition of motions
#include "videostabilizer/ocl_runtime.h"    // OpenCL set-up
#include "videostabilizer/picture_frame.h"  // frames of any layout
#include "videostabilizer/ransac.h"         // motion estimation
#include "videostabilizer/result.h"
#include "videostabilizer/stabilizer.h"
#include "videostabilizer/stabilizer_options.h"
#include "videostabilizer/stream.h"           // the C interface
#include "videostabilizer/test_stabilizer.h"  // file-driven test
#include "videostabilizer/version.h"
#include "videostabilizer/warp_affine.h"  // warps on the CPU
