// SPDX-License-Identifier: Apache-2.0

#include "native_warp/stated_warp.h"

#define VS_LEVEL baseline

#include "native_warp/stated_rows.h"

namespace videostabilizer {

namespace {

const StatedVariant& fastest() {
    static const StatedVariant& variant = fastest_variant(stated_variants);
    return variant;
}

}  // namespace

void stated_luma_rows(const PlaneShape& shape, const float wp[6], const SourcePlane& source,
                      const TargetPlane& target, int first, int last) {
    fastest().luma(shape, wp, source, target, first, last);
}

void stated_chroma_rows(const PlaneShape& shape, const PlaneGrid& grid, const float wp[6],
                        const SourcePlane& source, const TargetPlane& target, int first, int last) {
    fastest().chroma(shape, grid, wp, source, target, first, last);
}

}  // namespace videostabilizer
