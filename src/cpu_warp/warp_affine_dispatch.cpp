// SPDX-License-Identifier: Apache-2.0

// warpAffine_neon: chooses the routine and its constants.

#include <algorithm>
#include <mutex>

#include "cpu_warp/warp_semi_planar.h"
#include "cpu_warp/warp_size.h"
#include "simplela/affine_inverse.h"
#include "videostabilizer/warp_affine.h"

namespace videostabilizer {
namespace {

constexpr int WARP_CONSTS = 32;
constexpr int GROUP = 4;
constexpr int FIRST_LIMIT = 2 * GROUP;  // groups 0 and 1 are the same for every size

// The constants of warp_affine_neon for the size of the process's first call. A stream keeps its
// size, so nearly every call uses them. Constant once neon_warp_consts_ready is set.
alignas(16) float neon_warp_consts[WARP_CONSTS] = {0, 1, 2, 3, 4, 5, 6, 7};
std::once_flag neon_warp_consts_ready;

void fill_warp_consts(float* consts, int width, int height) {
    const auto columns = static_cast<float>(width);
    const auto rows = static_cast<float>(height);
    const float limits[] = {columns - 1.0F, columns - 1.001F, rows - 1.0F, rows - 1.001F};
    float* group = consts + FIRST_LIMIT;
    for (const float limit : limits) {
        group = std::fill_n(group, GROUP, limit);
    }
    for (int i = 0; i < 2 * GROUP; ++i) {
        *group++ = static_cast<float>(2 * i);
    }
}

bool belong_to(const float* consts, int width, int height) {
    return consts[FIRST_LIMIT] == static_cast<float>(width) - 1.0F &&
           consts[FIRST_LIMIT + 2 * GROUP] == static_cast<float>(height) - 1.0F;
}

}  // namespace

void warpAffine_neon(unsigned char* source, unsigned char* destination, float* matrix, int width,
                     int height) {
    float wp[6];
    SimpleLA::invert_affine(matrix, wp);
    if (!is_vector_size(width, height)) {
        warp_semi_planar(source, destination, wp, width, height);
        return;
    }
    std::call_once(neon_warp_consts_ready, fill_warp_consts, neon_warp_consts, width, height);
    if (belong_to(neon_warp_consts, width, height)) {
        warp_affine_neon(source, destination, wp, width, height, neon_warp_consts);
        return;
    }
    alignas(16) float consts[WARP_CONSTS];
    std::copy_n(neon_warp_consts, FIRST_LIMIT, consts);
    fill_warp_consts(consts, width, height);
    warp_affine_neon(source, destination, wp, width, height, consts);
}

}  // namespace videostabilizer
