// SPDX-License-Identifier: Apache-2.0

#include "tests/cpu_warp/reference_warp.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

namespace {

// One coordinate of the source position of (x, y). `row`: its three elements of wp.
float source_of(const float* row, int x, int y, const WarpRules& rules, float extra) {
    const float column_term = row[0] * static_cast<float>(x);
    const float row_term = row[1] * static_cast<float>(y);
    return rules.order == WarpRules::ROW_TERM_FIRST ? (row[2] + (row_term + column_term)) + extra
                                                    : ((row[2] + extra) + row_term) + column_term;
}

// Also turns NaN into 0.
float at_least_zero(float position) {
    return position >= 0.0F ? position : 0.0F;
}

unsigned char bilinear(const PictureLayout& picture, const unsigned char* channel, float x,
                       float y) {
    const auto clamp = [](float position, int size) {
        const auto end = static_cast<float>(size);
        return at_least_zero(position) >= end - 1.0F ? end - 1.001F : at_least_zero(position);
    };
    x = clamp(x, picture.width);
    y = clamp(y, picture.height);
    const int column = static_cast<int>(x);
    const int row = static_cast<int>(y);
    const auto at = [&](int dx, int dy) -> int {  // neighbours that do not exist have no weight
        const std::ptrdiff_t below = std::min(row + dy, picture.height - 1);
        const int right = std::min(column + dx, picture.width - 1);
        return channel[below * picture.row + right * picture.channels];
    };
    const float fx = x - static_cast<float>(column);
    const float fy = y - static_cast<float>(row);
    const float top = static_cast<float>(at(0, 0)) + fx * static_cast<float>(at(1, 0) - at(0, 0));
    const float bottom =
        static_cast<float>(at(0, 1)) + fx * static_cast<float>(at(1, 1) - at(0, 1));
    const int value = static_cast<int>(top + fy * (bottom - top));
    return static_cast<unsigned char>(std::clamp(value, 0, 255));
}

// The chroma column or row of a luma position. With an odd size the last position may have none.
int chroma_of(float position, int size, int samples) {
    const float inside = std::min(at_least_zero(position), static_cast<float>(size) - 1.0F);
    return std::min(static_cast<int>(inside) / 2, samples - 1);
}

}  // namespace

Affine reference_inverse(const Affine& m) {
    const float det = m[0] * m[4] - m[1] * m[3];
    const float inv = det == 0.0F ? 0.0F : 1.0F / det;
    const std::array<float, 4> w = {m[4] * inv, -m[1] * inv, -m[3] * inv, m[0] * inv};
    return {w[0], w[1], -(m[5] * w[1]) - m[2] * w[0], w[2], w[3], -(m[5] * w[3]) - m[2] * w[2]};
}

void reference_warp(const PictureLayout& picture, const WarpRules& rules, const Affine& wp,
                    const unsigned char* source, unsigned char* target) {
    for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.columns; ++x) {
            const float from_x = source_of(&wp[0], x, y, rules, 0.0F);
            const float from_y = source_of(&wp[3], x, y, rules, 0.0F);
            for (int c = 0; c < picture.channels; ++c) {
                target[std::ptrdiff_t{picture.row} * y + x * picture.channels + c] =
                    bilinear(picture, source + c, from_x, from_y);
            }
        }
    }
    const PictureLayout::Chroma& chroma = picture.chroma;
    const auto offset = [&](int x, int y) {
        return std::ptrdiff_t{chroma.row} * y + chroma.step * x;
    };
    for (int y = 0; y + 1 < picture.height; y += 2) {
        for (int x = 0; chroma.step != 0 && x + 1 < picture.columns; x += 2) {
            const float from_x = source_of(&wp[0], x, y, rules, rules.chroma_rounding);
            const float from_y = source_of(&wp[3], x, y, rules, rules.chroma_rounding);
            const std::ptrdiff_t to = offset(x / 2, y / 2);
            const std::ptrdiff_t from =
                offset(chroma_of(from_x, picture.width, chroma.columns),
                       chroma_of(from_y, picture.height, picture.height / 2));
            (target + chroma.u)[to] = (source + chroma.u)[from];
            (target + chroma.v)[to] = (source + chroma.v)[from];
        }
    }
}

unsigned char* guarded_memory(std::size_t bytes) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t pages = (bytes + page - 1) / page * page;
    void* const memory =
        mmap(nullptr, pages + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    auto* const end = static_cast<unsigned char*>(memory) + pages;
    return mprotect(end, page, PROT_NONE) == 0 ? end - bytes : nullptr;
}
