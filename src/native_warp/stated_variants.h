// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "native_warp/plane_warp.h"
#include "platform/cpu_level.h"

namespace videostabilizer {

// As stated_luma_rows and stated_chroma_rows.
using StatedLuma = void(const PlaneShape& shape, const float wp[6], const SourcePlane& source,
                        const TargetPlane& target, int first, int last);
using StatedChroma = void(const PlaneShape& shape, const PlaneGrid& grid, const float wp[6],
                          const SourcePlane& source, const TargetPlane& target, int first,
                          int last);

namespace baseline {
StatedLuma stated_luma;  // defines the result
StatedChroma stated_chroma;
}  // namespace baseline
namespace avx2 {
StatedLuma stated_luma;
StatedChroma stated_chroma;
}  // namespace avx2

struct StatedVariant {
    const char* name;
    CpuLevel level;
    StatedLuma* luma;
    StatedChroma* chroma;
};

// One source for all, which compilers vectorise. SSE4.1 and NEON gain nothing over what compilers
// make of it for x86-64 and AArch64 anyway.
constexpr StatedVariant stated_variants[] = {
    {"baseline", CpuLevel::PLAIN, baseline::stated_luma, baseline::stated_chroma},
#if VS_HAS_AVX2
    {"avx2", CpuLevel::AVX2, avx2::stated_luma, avx2::stated_chroma},
#endif
};

}  // namespace videostabilizer
