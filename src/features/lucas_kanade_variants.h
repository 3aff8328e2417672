// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

#include "platform/cpu_level.h"
#include "videostabilizer/keypoint.h"
#include "videostabilizer/lucas_kanade.h"

namespace videostabilizer {

struct GreyImage {
    const unsigned char* pixels;  // packed rows
    int width;
    int height;
};

// The positions first, first + spacing, ..., last of the window samples along one axis.
struct Samples {
    int first;
    int last;
    int count;
};

// The samples of a window whose four neighbours, `spacing` pixels away, are also in the image.
struct Window {
    Samples xs;
    Samples ys;
    int spacing;  // 2^level
};

// Sums of products of the gradient's components, which are doubled derivatives.
struct GradientSums {
    std::int64_t xx;
    std::int64_t xy;
    std::int64_t yy;
};

// Sums over the differences of two windows: of their magnitudes and of their products with the
// gradient.
struct MismatchSums {
    std::int64_t sad;
    std::int64_t x;
    std::int64_t y;
};

// What a vector variant keeps of a window of the earlier image while comparing it with windows of
// the later one. Lanes beyond the window are 0.
struct WindowCache {
    static constexpr int LANES = 16;
    static constexpr int ROWS = 11;

    std::int16_t level[ROWS * LANES];
    std::int16_t gradient_x[ROWS * LANES];
    std::int16_t gradient_y[ROWS * LANES];
    std::int16_t inside[LANES];  // all bits where there is a sample, else 0

    // The last comparison; displacements that round to the same pixels have the same sums.
    bool compared;
    std::int32_t columns[LANES];
    std::int32_t rows[LANES];
    MismatchSums sums;
};

// The pixel nearest to a position from 0 to below `size`, clamped to the last one. Static, so that
// each source compiles it for its own instruction set.
static inline int nearest_pixel(float position, int size) {
    // Rounds half up: positions are never negative.
    const float shifted = position + 0.5F;
    const int pixel = static_cast<int>(shifted);
    return pixel < size - 1 ? pixel : size - 1;
}

// The gradient sums of a window with samples; fills the cache for comparisons of the same window.
using GradientReader = GradientSums(const GreyImage& prev, const Window& window,
                                    WindowCache& cache);

// The sums over the differences between the window and the one displaced by (dx, dy) pixels in
// `next`, read at the nearest pixels. All displaced samples are in the image.
using WindowComparer = MismatchSums(const GreyImage& prev, const GreyImage& next,
                                    const Window& window, float dx, float dy, WindowCache& cache);

// The plain routines, which define the results and need no cache.
GradientReader read_gradients_plain;
WindowComparer compare_windows_plain;
namespace sse2 {
GradientReader read_gradients;
WindowComparer compare_windows;
}  // namespace sse2
namespace avx2 {
GradientReader read_gradients;
WindowComparer compare_windows;
}  // namespace avx2
namespace neon {
GradientReader read_gradients;
WindowComparer compare_windows;
}  // namespace neon

struct TrackVariant {
    const char* name;
    CpuLevel level;
    GradientReader* read_gradients;
    WindowComparer* compare_windows;
};

constexpr TrackVariant track_variants[] = {
    {"plain", CpuLevel::PLAIN, read_gradients_plain, compare_windows_plain},
#if VS_HAS_SSE2
    {"sse2", CpuLevel::SSE2, sse2::read_gradients, sse2::compare_windows},
#endif
#if VS_HAS_AVX2
    {"avx2", CpuLevel::AVX2, avx2::read_gradients, avx2::compare_windows},
#endif
#if VS_HAS_NEON
    {"neon", CpuLevel::NEON, neon::read_gradients, neon::compare_windows},
#endif
};

// lkPyramid by a variant. The plain routines read windows wider than the cache and levels above 4,
// whatever the variant.
int track_point(const TrackVariant& variant, const GreyImage& prev, const GreyImage& next,
                const LK_Params& params, KeyPoint pt, KeyPoint& pt_next, unsigned char& status);

}  // namespace videostabilizer
