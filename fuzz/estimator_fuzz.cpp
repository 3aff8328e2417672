// The motion estimator: any pairs, any parameters. All variants estimate the same bits.

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

#include "fuzz/fuzz_input.h"
#include "motion/ransac_variants.h"

using namespace videostabilizer;

namespace {

constexpr int MOST_PAIRS = 160;

// The generator that the library draws from in this program, so that an input always does the same.
std::minstd_rand generator;

struct Estimate {
    SimpleLA::Mat<float> motion = SimpleLA::Mat<float>(3, 3);
    MotionLog log = {-5, -5, 0.75F, -5};

    std::array<std::uint32_t, 9> bits() const {
        std::array<std::uint32_t, 9> result;
        std::memcpy(result.data(), motion.data, sizeof result);
        return result;
    }
};

void check_estimate(const Estimate& e, std::size_t pairs) {
    const auto n = static_cast<std::int32_t>(pairs);
    fuzz::require(e.log.npoints == n && e.log.ninliers >= -1 && e.log.ninliers <= n, "a log");
    fuzz::require(e.log.status == 0 || e.log.status == 1, "an outcome");
    const float* const m = e.motion.data;
    fuzz::require(m[6] == 0.0F && m[7] == 0.0F && m[8] == 1.0F, "an affine motion");
    if (e.log.status == 1) {
        fuzz::require(m[0] == 1.0F && m[1] == 0.0F && m[2] == 0.0F && m[3] == 0.0F &&
                          m[4] == 1.0F && m[5] == 0.0F,
                      "the identity where nothing was estimated");
        fuzz::require(e.log.track_ratio == 0.0F, "a failed estimate has no tracks");
    } else {
        fuzz::require(e.log.track_ratio == 0.75F, "the share of tracks is the caller's");
    }
}

}  // namespace

extern "C" void srand48(long /*seed*/) noexcept {}

extern "C" long lrand48() noexcept {
    return static_cast<long>(generator());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input(data, size);
    RansacParams params{};
    const int kind = input.byte();
    params.size = kind >= 250 ? input.take<std::int32_t>() : kind % 12;
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
    std::minstd_rand spread(static_cast<unsigned>(input.byte()) + 1);
    for (std::size_t i = 0; i < src.size(); ++i) {
        const bool drawn = input.empty();
        const float x = drawn ? static_cast<float>(spread() % 1920) : input.number();
        const float y = drawn ? static_cast<float>(spread() % 1080) : input.number();
        src[i].x = x;
        src[i].y = y;
        if (moved && input.byte() < 200) {
            dst[i].x = camera[0] * x + camera[1] * y + camera[2];
            dst[i].y = camera[3] * x + camera[4] * y + camera[5];
        } else {
            dst[i].x = input.number();
            dst[i].y = input.number();
        }
    }

    Estimate expected;
    for (const EstimateVariant& variant : estimate_variants) {
        if (!cpu_supports(variant.level)) {
            continue;
        }
        generator.seed(1);
        Estimate e;
        estimate_motion(variant, e.motion, e.log, src, dst, params);
        if (&variant == estimate_variants) {
            check_estimate(e, src.size());
            std::copy_n(e.motion.data, 9, expected.motion.data);
            expected.log = e.log;
        }
        fuzz::require(e.bits() == expected.bits() && e.log.ninliers == expected.log.ninliers &&
                          e.log.status == expected.log.status,
                      variant.name);
    }
    generator.seed(1);
    Estimate e;
    estimateGlobalMotionRansac(e.motion, e.log, src, dst, params);
    fuzz::require(e.bits() == expected.bits() && e.log.status == expected.log.status,
                  "the public function estimates what the variants do");
    return 0;
}
