#pragma once

#include "tests/cpu_warp/warp_variants.h"

// A second computation of the warps: pixel by pixel, with an `if` for each rule, and the vector
// routine's order of sums as an option. Every sample is read through a check of its coordinates.
// Bytes of `destination` that no warp writes keep their values.
void reference_warp(Layout layout, Order order, const std::vector<unsigned char>& source,
                    std::vector<unsigned char>& destination, const float* matrix, int width,
                    int height);
