// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include "native_warp/plane_warp.h"
#include "picture_warp/picture_shape.h"
#include "picture_warp/picture_warper.h"
#include "work_pool/work_pool.h"

namespace videostabilizer {

// Warps pictures on the processors, bilinear or sharp.
class NativeWarper final : public PictureWarper, private DividedWork {
  public:
    // threads: see Crew. Throws std::bad_alloc.
    NativeWarper(const PictureShape& shape, Resampling resampling, int threads);

    // Whatever the number of threads, the result is the same.
    int warp(const PicturePlanes& source, const WarpMap& luma,
             const PicturePlanes& target) override;

  private:
    void item(int index, int participant) noexcept override;
    int bands_of(int k) const;
    const PlaneWarp& warp_of(int k) const { return is_chroma(k) ? chroma_warp_ : luma_warp_; }

    PictureShape shape_;
    ResamplingKernels kernels_;
    Crew crew_;
    std::vector<WarpScratch> scratch_;  // of each thread
    WarpMap plane_map_;
    PlaneWarp luma_warp_;
    PlaneWarp chroma_warp_;
    int band_rows_ = 0;
    PicturePlanes source_{};  // in work
    PicturePlanes target_{};
};

}  // namespace videostabilizer
