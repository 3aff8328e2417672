// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

// The definition of the affine warp, pixel by pixel: luma bilinear and truncated, chroma from the
// nearest sample. The CPU warps, the OpenCL kernels and the fuzzing target are held against it.

using Bytes = std::vector<unsigned char>;
using Affine = std::array<float, 6>;  // rows 0 and 1 of a transform of (x, y, 1), in row order

// How the samples of a picture lie in one block of bytes.
struct PictureLayout {
    struct Chroma {
        int row;           // bytes between rows
        int step;          // bytes between samples; 0: no chroma
        int columns;       // samples in a source row
        std::size_t u, v;  // offsets of the first samples
    };
    std::size_t bytes;
    int width;     // pixels
    int height;    // rows
    int columns;   // that a warp writes
    int channels;  // bytes of a luma pixel, each interpolated
    int row;       // bytes between luma rows
    Chroma chroma;
};

// What a warp may choose.
struct WarpRules {
    enum { ROW_TERM_FIRST, OFFSET_FIRST } order;  // of the sum that gives a source position
    float chroma_rounding;                        // added to a position before it is truncated
};

// wp of a forward transform: what maps an output position to a source position.
Affine reference_inverse(const Affine& transform);

// Leaves bytes of `target` that belong to no pixel as they are.
void reference_warp(const PictureLayout& picture, const WarpRules& rules, const Affine& wp,
                    const unsigned char* source, unsigned char* target);

// Memory of that size that ends where a page begins that must not be touched. Never released.
unsigned char* guarded_memory(std::size_t bytes);

// Noise, in which every wrong offset shows; the same on every machine.
inline Bytes noise_picture(std::size_t bytes, std::uint32_t seed) {
    Bytes picture(bytes);
    for (unsigned char& byte : picture) {
        seed = seed * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(seed >> 24U);
    }
    return picture;
}
