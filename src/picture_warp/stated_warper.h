// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>

#include "picture_warp/picture_shape.h"
#include "picture_warp/picture_warper.h"
#include "work_pool/work_pool.h"

namespace videostabilizer {

// Warps pictures on the processors with the sampling of the stated kernels, see stated_warp.h.
class StatedWarper final : public PictureWarper, private DividedWork {
  public:
    // threads: see Crew. Throws std::bad_alloc.
    StatedWarper(const PictureShape& shape, int threads);

    // luma: one transform
    int warp(const PicturePlanes& source, const WarpMap& luma,
             const PicturePlanes& target) override;

  private:
    void item(int index, int participant) noexcept override;

    PictureShape shape_;
    Crew crew_;
    std::array<float, 6> transform_{};  // of the picture in work, with its planes
    PicturePlanes source_{};
    PicturePlanes target_{};
};

}  // namespace videostabilizer
