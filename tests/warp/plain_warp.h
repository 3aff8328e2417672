#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

// A second, plain computation of what the kernels compute, in double precision and pixel by pixel.

// Pictures are computed in int; containers want this.
constexpr std::size_t index(int offset) {
    return static_cast<std::size_t>(offset);
}

struct Geometry {
    int width;
    int height;
    int stride_y;
    int stride_uv;
    bool planar;

    bool packed() const { return width % 32 == 0; }
    int luma_row() const { return packed() ? width : stride_y; }
    int chroma_row() const {  // of the planar U plane, or of the pairs
        return planar ? (packed() ? width / 2 : stride_uv) : luma_row();
    }
    int v_offset() const { return packed() ? width * height / 4 : stride_uv * height / 2; }
    std::size_t y_bytes() const { return index(stride_y * height); }
    std::size_t uv_bytes() const { return index(stride_uv * height); }
};

using Bytes = std::vector<unsigned char>;
using WarpSix = std::array<float, 6>;

struct Planes {
    Bytes y;
    Bytes uv;
};

// Planes of noise, which leaves no wrong offset unseen.
Planes noise_planes(const Geometry& geometry, std::uint32_t seed);

constexpr int UNTOUCHED = -1;  // the warp writes nothing there
constexpr int EITHER = -2;     // two samples are equally near

// Per byte of the planes: the value, UNTOUCHED or EITHER.
struct PlainResult {
    std::vector<int> y;
    std::vector<int> uv;
};
PlainResult plain_warp(const Geometry& geometry, const Planes& source, const WarpSix& wp);

// Compares warped planes, in which UNTOUCHED bytes must still be `untouched_y` and `untouched_uv`.
// Luma may differ by a grey level in one pixel of a hundred (the kernels' relaxed maths), chroma
// may not. Fails the current test.
void expect_agreement(const PlainResult& expected, const Planes& actual, int untouched_y,
                      int untouched_uv);
