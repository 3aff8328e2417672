// SPDX-License-Identifier: Apache-2.0

#include "camera_motion/luma_pyramid.h"

#include <algorithm>

namespace videostabilizer {

LumaPyramid::LumaPyramid(int width, int height)
    : centre_(picture_centre(width, height)), column_sums_(static_cast<std::size_t>(width) + 3) {
    for (int w = width, h = height;; w /= 2, h /= 2) {
        LumaView view;
        view.width = w;
        view.height = h;
        if (!views_.empty()) {
            reductions_.emplace_back(static_cast<std::size_t>(w) * static_cast<std::size_t>(h));
            view.data = reductions_.back().data();
            view.pitch = w;
        }
        views_.push_back(view);
        if (std::max(w, h) <= COARSEST || std::min(w, h) < 2 * NARROWEST) {
            return;
        }
        if (std::max(w, h) > FINEST) {
            ++first_;
        }
    }
}

PictureCentre LumaPyramid::centre(std::size_t n) const {
    const double size = pixel(n);
    return {(centre_.x - 0.5 * (size - 1)) / size, (centre_.y - 0.5 * (size - 1)) / size};
}

void LumaPyramid::build(const unsigned char* luma, int pitch) {
    views_[0].data = luma;
    views_[0].pitch = pitch;
    for (std::size_t i = 0; i < reductions_.size(); ++i) {
        reduce(views_[i], reductions_[i].data());
    }
}

void LumaPyramid::reduce(const LumaView& from, unsigned char* to) {
    const int width = from.width;
    const int to_width = width / 2;
    const int to_height = from.height / 2;
    const auto row = [&from](int r) {
        return from.data +
               static_cast<std::ptrdiff_t>(std::clamp(r, 0, from.height - 1)) * from.pitch;
    };
    std::uint16_t* const sums = column_sums_.data() + 1;
    for (int r = 0; r < to_height; ++r) {
        const unsigned char* const a = row(2 * r - 1);
        const unsigned char* const b = row(2 * r);
        const unsigned char* const c = row(2 * r + 1);
        const unsigned char* const d = row(2 * r + 2);
        for (int x = 0; x < width; ++x) {
            sums[x] = static_cast<std::uint16_t>(a[x] + 3 * (b[x] + c[x]) + d[x]);
        }
        sums[-1] = sums[0];
        sums[width] = sums[width - 1];
        unsigned char* const target = to + static_cast<std::ptrdiff_t>(r) * to_width;
        for (int x = 0; x < to_width; ++x) {
            const std::uint16_t* const s = sums + 2 * static_cast<std::ptrdiff_t>(x);
            // At most 64 * 255 + 32, which 16 bits hold.
            target[x] = static_cast<unsigned char>(
                static_cast<std::uint16_t>(s[-1] + 3 * (s[0] + s[1]) + s[2] + 32) >> 6);
        }
    }
}

}  // namespace videostabilizer
