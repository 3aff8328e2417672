// SPDX-License-Identifier: Apache-2.0

#include "picture_warp/stated_warper.h"

#include <algorithm>

#include "frames/picture_layout.h"
#include "native_warp/stated_warp.h"
#include "videostabilizer/result.h"

namespace videostabilizer {

namespace {

constexpr int BAND = 64;  // rows of a plane that are one item of work

int bands_of(const PicturePlane& plane) {
    return (plane.shape.height + BAND - 1) / BAND;
}

}  // namespace

StatedWarper::StatedWarper(const PictureShape& shape, int threads)
    : shape_(shape), crew_(threads) {}

int StatedWarper::warp(const PicturePlanes& source, const WarpMap& luma,
                       const PicturePlanes& target) {
    const Affine2& t = luma.transforms.front();
    transform_ = {static_cast<float>(t.a), static_cast<float>(t.b), static_cast<float>(t.c),
                  static_cast<float>(t.d), static_cast<float>(t.e), static_cast<float>(t.f)};
    source_ = source;
    target_ = target;
    int items = 0;
    for (int k = 0; k < shape_.planes; ++k) {
        items += bands_of(shape_.plane[k]);
    }
    crew_.run(*this, items);
    return RESULT_OK;
}

void StatedWarper::item(int index, int /*participant*/) noexcept {
    int k = 0;
    while (index >= bands_of(shape_.plane[k])) {
        index -= bands_of(shape_.plane[k++]);
    }
    const PicturePlane& plane = shape_.plane[k];
    const SourcePlane source = {plane_data(source_, k), plane_stride(source_, k)};
    const TargetPlane target = {plane_data(target_, k), plane_stride(target_, k)};
    const int first = index * BAND;
    const int last = std::min(first + BAND, plane.shape.height);
    if (!is_chroma(k)) {
        stated_luma_rows(plane.shape, transform_.data(), source, target, first, last);
    } else {
        stated_chroma_rows(plane.shape, plane.grid, transform_.data(), source, target, first, last);
    }
}

}  // namespace videostabilizer
