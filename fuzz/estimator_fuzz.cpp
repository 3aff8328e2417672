// SPDX-License-Identifier: Apache-2.0

// The motion estimator: any pairs, any parameters. All variants give the same bits.

#include <algorithm>
#include <array>
#include <random>

#include "fuzz/fuzz_input.h"
#include "motion/ransac_variants.h"

using namespace videostabilizer;

namespace {

constexpr int MOST_PAIRS = 160;

// Replaces the generator that the library draws from, so that an input always does the same.
std::minstd_rand generator;

struct Estimate {
    SimpleLA::Mat<float> motion = SimpleLA::Mat<float>(3, 3);
    MotionLog log = {-5, -5, 0.75F, -5};

    std::array<std::uint32_t, 9> bits() const {
        std::array<std::uint32_t, 9> result;
        std::memcpy(result.data(), motion.data, sizeof result);
        return result;
    }
    bool operator==(const Estimate& other) const {
        return bits() == other.bits() && log.ninliers == other.log.ninliers &&
               log.status == other.log.status;
    }
};

void check_estimate(const Estimate& e, std::size_t pairs) {
    const auto n = static_cast<std::int32_t>(pairs);
    const bool failed = e.log.status == 1;
    fuzz::require(e.log.npoints == n && e.log.ninliers >= -1 && e.log.ninliers <= n &&
                      (failed || e.log.status == 0),
                  "a log");
    // A failed estimate has no tracks; else their share is the caller's.
    fuzz::require(e.log.track_ratio == (failed ? 0.0F : 0.75F), "the share of tracks");
    constexpr float IDENTITY[] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const int first = failed ? 0 : 6;  // the identity, or its last row
    fuzz::require(std::equal(IDENTITY + first, IDENTITY + 9, e.motion.data + first), "a motion");
}

}  // namespace

extern "C" void srand48(long /*seed*/) noexcept {}

extern "C" long lrand48() noexcept {
    return static_cast<long>(generator());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    RansacParams params{};
    params.size = input.mostly(11);
    params.thresh = input.flag() ? 2.0F : input.number();
    params.niters = input.in_range(-1, 60);
    const int pairs = input.in_range(0, MOST_PAIRS);
    const bool moved = input.flag();  // the later points are those of one motion, disturbed
    float camera[6];
    for (float& element : camera) {
        element = input.number() / (moved ? 16.0F : 1.0F);
    }
    std::vector<KeyPoint> src(static_cast<std::size_t>(pairs));
    std::vector<KeyPoint> dst(static_cast<std::size_t>(pairs) + (input.byte() == 255 ? 1 : 0));
    const int kind = input.byte();
    std::minstd_rand spread(static_cast<unsigned>(kind) + 1);
    const float noise = kind % 2 == 0 ? 1.0F / 64 : 0.0F;  // of the later points, up to 2 pixels
    const auto off = [&] { return noise * (static_cast<float>(spread() % 256) - 128); };
    for (std::size_t i = 0; i < src.size(); ++i) {
        const bool drawn = input.empty();
        const float x = drawn ? static_cast<float>(spread() % 1920) : input.number();
        const float y = drawn ? static_cast<float>(spread() % 1080) : input.number();
        src[i].x = x;
        src[i].y = y;
        if (moved && input.byte() < 200) {
            dst[i].x = camera[0] * x + camera[1] * y + camera[2] + off();
            dst[i].y = camera[3] * x + camera[4] * y + camera[5] + off();
        } else {
            dst[i].x = input.number();
            dst[i].y = input.number();
        }
    }

    Estimate expected;
    generator.seed(1);
    estimateGlobalMotionRansac(expected.motion, expected.log, src, dst, params);
    check_estimate(expected, src.size());
    for (const EstimateVariant& variant : estimate_variants) {
        if (cpu_supports(variant.level)) {
            generator.seed(1);
            Estimate e;
            estimate_motion(variant, e.motion, e.log, src, dst, params);
            fuzz::require(e == expected, variant.name);
        }
    }
    return 0;
}
