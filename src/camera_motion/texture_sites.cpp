// SPDX-License-Identifier: Apache-2.0

#include "camera_motion/texture_sites.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "camera_motion/patch.h"

namespace videostabilizer {

namespace {

constexpr double CELLS = 200;
constexpr int SMALLEST_CELL = 6;
// Pixels without sites along the edges: a Patch around a site has room.
constexpr int BEFORE = Patch::SIDE / 2 + 1;
constexpr int BEHIND = Patch::SIDE / 2 + 2;

// Squared grey levels per pixel, summed over 3 x 3 pixels: gradients of 4 levels a pixel, and those
// that the noise of a sensor makes in a reduced picture.
constexpr float STRONG = 150;
constexpr float WEAKEST = 5;
constexpr std::size_t ENOUGH = 120;

int cell_side(int width, int height) {
    return std::max(SMALLEST_CELL,
                    static_cast<int>(std::sqrt(static_cast<double>(width) *
                                               static_cast<double>(height) / CELLS)));
}

}  // namespace

CellGrid::CellGrid(int width, int height)
    : side(cell_side(width, height)),
      columns((width + side - 1) / side),
      rows((height + side - 1) / side) {}

TextureSites::TextureSites(int width, int height)
    : width_(width), grid_(width, height), best_(grid_.count()) {
    const auto length = static_cast<std::size_t>(width);
    for (int i = 0; i < 3; ++i) {
        xx_[i].resize(length);
        xy_[i].resize(length);
        yy_[i].resize(length);
    }
    gx_.resize(length);
    gy_.resize(length);
    strength_.resize(length);
    sites_.reserve(best_.size());
}

void TextureSites::sum_row(const LumaView& picture, int y) {
    const unsigned char* const at = picture.data + static_cast<std::ptrdiff_t>(y) * picture.pitch;
    const unsigned char* const above = at - picture.pitch;
    const unsigned char* const below = at + picture.pitch;
    float* const gx = gx_.data();
    float* const gy = gy_.data();
    for (int x = 1; x + 1 < width_; ++x) {
        gx[x] = 0.5F * static_cast<float>(at[x + 1] - at[x - 1]);
        gy[x] = 0.5F * static_cast<float>(below[x] - above[x]);
    }
    float* const xx = xx_[y % 3].data();
    float* const xy = xy_[y % 3].data();
    float* const yy = yy_[y % 3].data();
    for (int x = 2; x + 2 < width_; ++x) {
        xx[x] = gx[x - 1] * gx[x - 1] + gx[x] * gx[x] + gx[x + 1] * gx[x + 1];
        xy[x] = gx[x - 1] * gy[x - 1] + gx[x] * gy[x] + gx[x + 1] * gy[x + 1];
        yy[x] = gy[x - 1] * gy[x - 1] + gy[x] * gy[x] + gy[x + 1] * gy[x + 1];
    }
}

// Row y, whose neighbours are summed as well.
void TextureSites::rate_row(int y) {
    float* const strength = strength_.data();
    for (int x = 2; x + 2 < width_; ++x) {
        const auto i = static_cast<std::size_t>(x);
        const float xx = xx_[0][i] + xx_[1][i] + xx_[2][i];
        const float xy = xy_[0][i] + xy_[1][i] + xy_[2][i];
        const float yy = yy_[0][i] + yy_[1][i] + yy_[2][i];
        strength[x] = (xx * yy - xy * xy) / (xx + yy + 1.0F);
    }
    for (int column = 0; column < grid_.columns; ++column) {
        const int from = std::max(BEFORE, column * grid_.side);
        const int end = std::min(width_ - BEHIND, (column + 1) * grid_.side);
        if (from >= end) {
            continue;
        }
        const float* const most = std::max_element(strength + from, strength + end);
        const auto cell = grid_.index(column, y / grid_.side);
        if (*most > best_[cell].strength) {
            best_[cell] = {static_cast<int>(most - strength), y, cell, *most};
        }
    }
}

void TextureSites::find(const LumaView& picture) {
    std::fill(best_.begin(), best_.end(), Site{});
    for (int y = BEFORE - 1; y <= picture.height - BEHIND; ++y) {
        sum_row(picture, y);
        if (y > BEFORE) {
            rate_row(y - 1);
        }
    }
    const auto strong = static_cast<std::size_t>(std::count_if(
        best_.begin(), best_.end(), [](const Site& site) { return site.strength >= STRONG; }));
    const float least = strong >= ENOUGH ? STRONG : WEAKEST;
    sites_.clear();
    std::copy_if(best_.begin(), best_.end(), std::back_inserter(sites_),
                 [least](const Site& site) { return site.strength >= least; });
}

}  // namespace videostabilizer
