// SPDX-License-Identifier: Apache-2.0

#include "picture_warp/native_warper.h"

#include <algorithm>
#include <cstddef>

#include "frames/picture_layout.h"
#include "videostabilizer/result.h"

namespace videostabilizer {

namespace {

// Items for each thread, so that none waits long for the last.
constexpr int ITEMS_PER_THREAD = 3;
// Strips are divided into bands no lower than this: each begins with rows that the one above it has
// computed as well.
constexpr int LOWEST_BAND = 64;

}  // namespace

NativeWarper::NativeWarper(const PictureShape& shape, Resampling resampling, int threads)
    : shape_(shape),
      kernels_(resampling),
      crew_(threads),
      scratch_(static_cast<std::size_t>(crew_.threads())) {}

int NativeWarper::bands_of(int k) const {
    return (shape_.plane[k].shape.height + band_rows_ - 1) / band_rows_;
}

int NativeWarper::warp(const PicturePlanes& source, const WarpMap& luma,
                       const PicturePlanes& target) {
    source_ = source;
    target_ = target;
    luma_warp_.prepare(shape_.plane[0].shape, luma, kernels_);
    if (shape_.planes > 1) {
        plane_map(luma, shape_.plane[1].grid, plane_map_);
        chroma_warp_.prepare(shape_.plane[1].shape, plane_map_, kernels_);
    }
    int strips = luma_warp_.strips();
    for (int k = 1; k < shape_.planes; ++k) {
        strips += warp_of(k).strips();
    }
    const int height = shape_.plane[0].shape.height;
    const int wanted = ITEMS_PER_THREAD * crew_.threads();
    const int bands = crew_.threads() == 1 ? 1 : (wanted + strips - 1) / strips;
    band_rows_ = std::max((height + bands - 1) / bands, std::min(height, LOWEST_BAND));

    int items = 0;
    for (int k = 0; k < shape_.planes; ++k) {
        items += bands_of(k) * warp_of(k).strips();
    }
    crew_.run(*this, items);
    return RESULT_OK;
}

void NativeWarper::item(int index, int participant) noexcept {
    int k = 0;
    while (index >= bands_of(k) * warp_of(k).strips()) {
        index -= bands_of(k) * warp_of(k).strips();
        ++k;
    }
    const int first = index % bands_of(k) * band_rows_;
    const int last = std::min(first + band_rows_, shape_.plane[k].shape.height);
    warp_of(k).warp_strip(fastest_variant(warp_variants),
                          {plane_data(source_, k), plane_stride(source_, k)},
                          {plane_data(target_, k), plane_stride(target_, k)}, index / bands_of(k),
                          first, last, scratch_[static_cast<std::size_t>(participant)]);
}

}  // namespace videostabilizer
