// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <vector>

#include "motion/affine_fit_lanes.h"
#include "platform/cpu_level.h"
#include "videostabilizer/ransac.h"

namespace videostabilizer {

// All pairs of one estimate, one array per coordinate, padded to a multiple of 8 with NaN, which is
// never an inlier.
struct PairArrays {
    const float* src_x;
    const float* src_y;
    const float* dst_x;
    const float* dst_y;
    int n;
};

// Upper bounds of the squared errors of an inlier, pixels^2.
struct Tolerance {
    float x;
    float y;
};

// Fits one motion to the pairs of each lane, see fit_affine_lanes. A result that is not finite is
// invalid. Only fit_by_matrices throws, std::bad_alloc.
using SampleFit = void(const PairLanes& pairs, float* models);

// The number of inliers of a model, the upper two rows of a motion; or any number below `wanted`
// where it is below `wanted`.
using InlierCount = int(const PairArrays& pairs, const float model[6], Tolerance tolerance,
                        int wanted);

SampleFit fit_by_matrices;  // fitAffine, the definition; one lane
SampleFit fit_one;          // the same for one lane, without matrices
InlierCount count_inliers_plain;
namespace sse2 {
SampleFit fit_samples;
InlierCount count_inliers;
}  // namespace sse2
namespace avx2 {
SampleFit fit_samples;
InlierCount count_inliers;
}  // namespace avx2
namespace neon {
SampleFit fit_samples;
InlierCount count_inliers;
}  // namespace neon

struct EstimateVariant {
    const char* name;
    CpuLevel level;
    int lanes;           // samples per call of fit_samples
    SampleFit* fit_one;  // one sample, or all inliers
    SampleFit* fit_samples;
    InlierCount* count_inliers;
};

constexpr EstimateVariant estimate_variants[] = {
    {"plain", CpuLevel::PLAIN, 1, fit_by_matrices, fit_by_matrices, count_inliers_plain},
    {"scalar", CpuLevel::SCALAR, 1, fit_one, fit_one, count_inliers_plain},
#if VS_HAS_SSE2
    {"sse2", CpuLevel::SSE2, 4, fit_one, sse2::fit_samples, sse2::count_inliers},
#endif
#if VS_HAS_AVX2
    {"avx2", CpuLevel::AVX2, 8, fit_one, avx2::fit_samples, avx2::count_inliers},
#endif
#if VS_HAS_NEON && defined(__aarch64__)
    {"neon", CpuLevel::NEON, 4, fit_one, neon::fit_samples, neon::count_inliers},
#endif
};

// estimateGlobalMotionRansac with a variant.
void estimate_motion(const EstimateVariant& variant, SimpleLA::Mat<float>& motion, MotionLog& log,
                     const std::vector<KeyPoint>& src, const std::vector<KeyPoint>& dst,
                     const RansacParams& params);

}  // namespace videostabilizer
