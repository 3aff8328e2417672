#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Every CPU warp, for the test and the benchmark that walk them.

enum class Layout { SEMI_PLANAR, PLANAR, FOUR_CHANNELS };

// Order in which the terms of a source position are added.
enum class Order {
    ROW_FIRST,     // offset + (row term + column term), the definition
    OFFSET_FIRST,  // (offset + row term) + column term, the vector routine
};

using WarpFunction = void (*)(unsigned char* source, unsigned char* destination, float* matrix,
                              int width, int height);

struct WarpVariant {
    const char* name;
    WarpFunction run;
    Layout layout;
    bool vector;    // needs sizes of whole vectors; on others it is not run or is the plain one
    bool any_size;  // false: does nothing with other sizes
    WarpFunction plain;  // the routine whose result it stands for; itself for a definition
    int luma_tolerance;  // grey levels by which it may differ from `plain`: positions differ in
                         // their last bit, and bilinear values are continuous
};

extern const WarpVariant warp_variants[5];

// Whether the variant computes this size with vector code, if the library has any.
bool runs_vector_code(const WarpVariant& variant, int width, int height);

// Bytes of a packed picture; 0 for an empty one.
std::size_t picture_bytes(Layout layout, int width, int height);

// Noise, which leaves no wrong offset unseen; the same on every machine.
std::vector<unsigned char> noise_picture(std::size_t bytes, std::uint32_t seed);
