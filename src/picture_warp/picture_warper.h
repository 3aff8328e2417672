// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "native_warp/warp_map.h"
#include "videostabilizer/picture_frame.h"

namespace videostabilizer {

// Warps the pictures of one stream, all of one size and layout.
// Threads: owner only.
class PictureWarper {
  public:
    PictureWarper() = default;
    virtual ~PictureWarper() = default;
    PictureWarper(const PictureWarper&) = delete;
    PictureWarper& operator=(const PictureWarper&) = delete;

    // Computes all samples of the target. luma: where its rows come from, in luma samples. The
    // planes of source and target must not overlap. Throws std::bad_alloc.
    // Returns RESULT_OK, or the code of a failure that is in the log.
    virtual int warp(const PicturePlanes& source, const WarpMap& luma,
                     const PicturePlanes& target) = 0;
};

}  // namespace videostabilizer
