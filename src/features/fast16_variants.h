// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include "platform/cpu_level.h"
#include "videostabilizer/fast16.h"
#include "videostabilizer/keypoint.h"

namespace videostabilizer {

// Finds the corners of one row of the image in the columns first to end - 1, at least 3 pixels from
// the edges: writes their columns in increasing order and, with suppression, their scores to
// scores[column]; returns their number. scores[first .. end - 1] is zero before the call.
// `row` is the first pixel of the row; `columns` has room for the whole row.
using CornerScan = int(const unsigned char* row, int first, int end, const FastParams& params,
                       unsigned char* scores, int* columns);

CornerScan scan_row_plain;  // defines the result
namespace sse2 {
CornerScan scan_row;
}
namespace avx2 {
CornerScan scan_row;
}
namespace neon {
CornerScan scan_row;
}

struct CornerVariant {
    const char* name;
    CpuLevel level;
    CornerScan* scan_row;
};

constexpr CornerVariant corner_variants[] = {
    {"plain", CpuLevel::PLAIN, scan_row_plain},
#if VS_HAS_SSE2
    {"sse2", CpuLevel::SSE2, sse2::scan_row},
#endif
#if VS_HAS_AVX2
    {"avx2", CpuLevel::AVX2, avx2::scan_row},
#endif
#if VS_HAS_NEON
    {"neon", CpuLevel::NEON, neon::scan_row},
#endif
};

// fast16 by a variant. Throws std::bad_alloc.
void detect_corners(const CornerVariant& variant, const unsigned char* image,
                    std::vector<KeyPoint>& keypoints, int width, int height,
                    const FastParams& params);

}  // namespace videostabilizer
