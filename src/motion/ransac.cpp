// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/ransac.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <mutex>
#include <new>
#include <vector>

#include "motion/affine_fit.h"
#include "motion/ransac_variants.h"
#include "motion/seeded_motion.h"
#include "platform/log.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

namespace {

using SimpleLA::Mat;

constexpr char TAG[] = "global_motion";
constexpr int MIN_SIZE = 3;  // pairs that determine an affine motion

// Whether fitAffine forms and sums normal equations as fit_affine_lanes does: three pairs are solved
// directly, and more than 10,000 equations are summed in blocks.
bool has_lane_form(int pairs) {
    return pairs > MIN_SIZE && pairs <= 5000;
}

// The first samples are fitted singly, since with good pairs one of them ends the sampling; then
// whole vectors of them. As many as the widest vector has lanes: if none of them was good, many more
// will be needed.
constexpr int FITTED_SINGLY = 8;

constexpr int MODEL = 6;  // elements of a model, the upper two rows of a motion

// What samples are drawn with.
class Generator {
  public:
    Generator() = default;
    virtual ~Generator() = default;
    Generator(const Generator&) = delete;
    Generator& operator=(const Generator&) = delete;

    // Draws samples of `size` different indices below n each. n is at least twice the size, so a
    // draw repeats an earlier one with a probability below one half and the inner loop is short.
    virtual void draw_samples(std::size_t* drawn, int samples, std::size_t size, std::size_t n) = 0;

  protected:
    template <typename Next>
    static void draw_with(Next next, std::size_t* drawn, int samples, std::size_t size,
                          std::size_t n) {
        std::size_t* const end = drawn + static_cast<std::size_t>(samples) * size;
        while (drawn != end) {
            std::size_t* const sample = drawn;
            for (const std::size_t* const sample_end = drawn + size; drawn != sample_end; ++drawn) {
                do {
                    *drawn = static_cast<std::uint32_t>(next()) % static_cast<std::uint32_t>(n);
                } while (std::find(sample, drawn, *drawn) != drawn);
            }
        }
    }
};

// The process-wide generator behind srand48 and lrand48, seeded with the time. Its lock is held while
// seeding and while drawing samples, never while fitting.
class ProcessGenerator : public Generator {
  public:
    ProcessGenerator() {
        const std::lock_guard<std::mutex> lock(mutex);
        srand48(std::time(nullptr));  // NOLINT(concurrency-mt-unsafe): the lock is what it asks for
    }
    void draw_samples(std::size_t* drawn, int samples, std::size_t size, std::size_t n) override {
        const std::lock_guard<std::mutex> lock(mutex);
        // NOLINTNEXTLINE(concurrency-mt-unsafe): as above
        draw_with([] { return lrand48(); }, drawn, samples, size, n);
    }

  private:
    static std::mutex mutex;
};
std::mutex ProcessGenerator::mutex;

// A generator of its own that draws what lrand48 draws after srand48(seed), by the constants of POSIX.
// (nrand48 takes those of the process, which lcong48 may change, and reads them without a lock.)
class SeededGenerator : public Generator {
  public:
    explicit SeededGenerator(std::uint32_t seed) : state_((std::uint64_t{seed} << 16) + 0x330E) {}
    void draw_samples(std::size_t* drawn, int samples, std::size_t size, std::size_t n) override {
        draw_with(
            [this] {
                state_ = (state_ * 0x5DEECE66D + 0xB) & 0xFFFFFFFFFFFF;
                return state_ >> 17;
            },
            drawn, samples, size, n);
    }

  private:
    std::uint64_t state_;  // 48 bits
};

// When a pair is an inlier and a model acceptable, for n pairs.
struct Criteria {
    Tolerance tolerance;
    int min_inliers;
    int enough_inliers;  // more than this end the sampling
};

Criteria choose_criteria(long long n, const RansacParams& params) {
    const int enough = static_cast<int>(3 * n / 4);
    if (n >= 4LL * params.size) {
        // The horizontal bound is one pixel larger.
        const float wide = params.thresh + 1.0F;
        return {{wide * wide, params.thresh * params.thresh}, static_cast<int>(2 * n / 5), enough};
    }
    // Few pairs: a stricter bound (the threshold itself, not its square) and a larger majority.
    return {{params.thresh, params.thresh}, static_cast<int>(3 * n / 5), enough};
}

// False when an error is NaN.
inline bool is_inlier(const PairArrays& pairs, int i, const float model[MODEL],
                      Tolerance tolerance) {
    const float x = pairs.src_x[i];
    const float y = pairs.src_y[i];
    const float ex = ((model[1] * y + model[0] * x) + model[2]) - pairs.dst_x[i];
    const float ey = ((model[4] * y + model[3] * x) + model[5]) - pairs.dst_y[i];
    // No branch between the two, which would be unpredictable.
    return (static_cast<int>(ex * ex < tolerance.x) & static_cast<int>(ey * ey < tolerance.y)) != 0;
}

bool is_finite(const float model[MODEL]) {
    bool finite = true;
    for (int i = 0; i < MODEL; ++i) {
        finite = finite && std::isfinite(model[i]);
    }
    return finite;
}

// Four arrays of coordinates in one block, for `count` points each.
class Coordinates {
  public:
    explicit Coordinates(std::size_t count, float fill = 0.0F)
        : count_(count), values_(4 * count, fill) {}

    float* src_x() { return values_.data(); }
    float* src_y() { return src_x() + count_; }
    float* dst_x() { return src_y() + count_; }
    float* dst_y() { return dst_x() + count_; }

    PairLanes lanes(int n) { return {src_x(), src_y(), dst_x(), dst_y(), n}; }
    PairArrays arrays(int n) { return {src_x(), src_y(), dst_x(), dst_y(), n}; }
    // Copies pair `from` of the list to pair `to`.
    void take(const PairArrays& pairs, std::size_t from, std::size_t to) {
        src_x()[to] = pairs.src_x[from];
        src_y()[to] = pairs.src_y[from];
        dst_x()[to] = pairs.dst_x[from];
        dst_y()[to] = pairs.dst_y[from];
    }

  private:
    std::size_t count_;
    std::vector<float> values_;
};

// The lists as arrays, padded as PairArrays says.
Coordinates split_pairs(const std::vector<KeyPoint>& src, const std::vector<KeyPoint>& dst,
                        std::size_t n) {
    constexpr std::size_t MULTIPLE = 8;
    Coordinates pairs((n + MULTIPLE - 1) / MULTIPLE * MULTIPLE,
                      std::numeric_limits<float>::quiet_NaN());
    for (std::size_t i = 0; i < n; ++i) {
        pairs.src_x()[i] = src[i].x;
        pairs.src_y()[i] = src[i].y;
        pairs.dst_x()[i] = dst[i].x;
        pairs.dst_y()[i] = dst[i].y;
    }
    return pairs;
}

// A batch of samples: indices sample by sample, coordinates and models interleaved by lane.
class SampleBatch {
  public:
    SampleBatch(std::size_t size, int lanes)
        : size_(size),
          indices_(size * static_cast<std::size_t>(lanes)),
          points_(size * static_cast<std::size_t>(lanes)),
          models_(static_cast<std::size_t>(MODEL * lanes)) {}

    // Draws `samples` samples and fits `lanes` models; those beyond the samples repeat the first.
    void draw_and_fit(Generator& generator, const PairArrays& pairs, int samples, int lanes,
                      SampleFit* fit) {
        lanes_ = static_cast<std::size_t>(lanes);
        generator.draw_samples(indices_.data(), samples, size_, static_cast<std::size_t>(pairs.n));
        for (int lane = 0; lane < lanes; ++lane) {
            gather(pairs, lane < samples ? lane : 0, points_, static_cast<std::size_t>(lane),
                   lanes_);
        }
        fit(points_.lanes(static_cast<int>(size_)), models_.data());
    }

    // Copies the model of a sample, fitted again by the definition where it is not finite.
    void model_of(int lane, const PairArrays& pairs, float model[MODEL]) const {
        for (std::size_t e = 0; e < MODEL; ++e) {
            model[e] = models_[e * lanes_ + static_cast<std::size_t>(lane)];
        }
        if (!is_finite(model)) {
            Coordinates sample(size_);
            gather(pairs, lane, sample, 0, 1);
            fit_by_matrices(sample.lanes(static_cast<int>(size_)), model);
        }
    }

  private:
    void gather(const PairArrays& pairs, int sample, Coordinates& points, std::size_t lane,
                std::size_t lanes) const {
        const std::size_t* const indices =
            indices_.data() + static_cast<std::size_t>(sample) * size_;
        for (std::size_t j = 0; j < size_; ++j) {
            points.take(pairs, indices[j], j * lanes + lane);
        }
    }

    std::size_t size_;
    std::size_t lanes_ = 1;
    std::vector<std::size_t> indices_;
    Coordinates points_;
    std::vector<float> models_;
};

// Leaves the model with the most inliers in `best_model`, not refined, and returns their number, -1
// without any sample. A later sample wins a tie.
int find_best_model(const EstimateVariant& variant, Generator& generator, const PairArrays& pairs,
                    const RansacParams& params, const Criteria& criteria, float best_model[MODEL]) {
    SampleBatch batch(static_cast<std::size_t>(params.size), variant.lanes);
    int best = -1;
    for (std::int32_t done = 0; done < params.niters;) {
        const bool singly = done < FITTED_SINGLY;
        const int lanes = singly ? 1 : variant.lanes;
        const int samples = std::min(lanes, params.niters - done);
        batch.draw_and_fit(generator, pairs, samples, lanes,
                           singly ? variant.fit_one : variant.fit_samples);
        for (int lane = 0; lane < samples; ++lane) {
            float model[MODEL];
            batch.model_of(lane, pairs, model);
            const int count = variant.count_inliers(pairs, model, criteria.tolerance, best);
            if (count >= best) {
                std::copy(model, model + MODEL, best_model);
                best = count;
                if (count > criteria.enough_inliers) {
                    return best;
                }
            }
        }
        done += samples;
    }
    return best;
}

// Refits the model to all of its `count` inliers.
void refit(const EstimateVariant& variant, const PairArrays& pairs, int count, Tolerance tolerance,
           float model[MODEL]) {
    // One more: outliers are written behind the last inlier, too, and then overwritten.
    Coordinates inliers(static_cast<std::size_t>(count) + 1);
    const auto collect = [&] {
        std::size_t found = 0;
        for (int i = 0; i < pairs.n; ++i) {
            inliers.take(pairs, static_cast<std::size_t>(i), found);
            found += static_cast<std::size_t>(is_inlier(pairs, i, model, tolerance));
        }
    };
    collect();
    float refined[MODEL];
    (has_lane_form(count) ? variant.fit_one : fit_by_matrices)(inliers.lanes(count), refined);
    if (!is_finite(refined)) {
        collect();
        fit_by_matrices(inliers.lanes(count), refined);
    }
    std::copy(refined, refined + MODEL, model);
}

void give_up(Mat<float>& motion, MotionLog& log, int npoints, int ninliers) {
    SimpleLA::set_identity(motion);
    log = {npoints, ninliers, 0.0F, 1};
}

void set_motion(Mat<float>& motion, const float model[MODEL]) {
    for (int row = 0; row < 2; ++row) {
        std::copy(model + 3 * row, model + 3 * row + 3, motion.row(row));
    }
    const float last[] = {0.0F, 0.0F, 1.0F};
    std::copy(last, last + 3, motion.row(2));
}

}  // namespace

void fit_by_matrices(const PairLanes& pairs, float* models) {
    const std::size_t n = static_cast<std::size_t>(pairs.n);
    std::vector<KeyPoint> src(n);
    std::vector<KeyPoint> dst(n);
    for (std::size_t i = 0; i < n; ++i) {
        src[i] = {pairs.src_x[i], pairs.src_y[i], 0.0F, 0};
        dst[i] = {pairs.dst_x[i], pairs.dst_y[i], 0.0F, 0};
    }
    float elements[9];
    Mat<float> motion(3, 3, elements, 3 * static_cast<int>(sizeof(float)));
    fitAffine(motion, src, dst);
    std::copy(elements, elements + MODEL, models);
}

void fit_one(const PairLanes& pairs, float* models) {
    fit_affine_lanes<OneFloat>(pairs, models);
}

int count_inliers_plain(const PairArrays& pairs, const float model[MODEL], Tolerance tolerance,
                        int /*wanted*/) {
    int count = 0;
    for (int i = 0; i < pairs.n; ++i) {
        count += static_cast<int>(is_inlier(pairs, i, model, tolerance));
    }
    return count;
}

namespace {

// The generator is made, and the process-wide one seeded, once the input is known to be good.
template <typename OneGenerator, typename... Seed>
void estimate_with(const EstimateVariant& variant, Mat<float>& motion, MotionLog& log,
                   const std::vector<KeyPoint>& src, const std::vector<KeyPoint>& dst,
                   const RansacParams& params, Seed... seed) {
    const std::size_t n = std::min(src.size(), dst.size());
    const int npoints = static_cast<int>(n);
    if (npoints < 2LL * params.size) {
        __android_log_print(LOG_WARN, TAG, "npoints(%d) < params.size(%d) !!", npoints,
                            params.size);
        give_up(motion, log, npoints, 0);
        return;
    }
    if (params.size < MIN_SIZE) {
        __android_log_print(LOG_WARN, TAG, "params.size(%d) < %d !!", params.size, MIN_SIZE);
        give_up(motion, log, npoints, 0);
        return;
    }

    const Criteria criteria = choose_criteria(npoints, params);
    const EstimateVariant& sampler = has_lane_form(params.size) ? variant : estimate_variants[0];
    OneGenerator generator(seed...);
    Coordinates coordinates = split_pairs(src, dst, n);
    const PairArrays pairs = coordinates.arrays(npoints);
    float model[MODEL] = {};
    const int ninliers = find_best_model(sampler, generator, pairs, params, criteria, model);
    if (ninliers < criteria.min_inliers) {
        __android_log_print(LOG_WARN, TAG, "ninliersMax < npoints * 2/5 !!");
        give_up(motion, log, npoints, ninliers);
        return;
    }
    refit(variant, pairs, ninliers, criteria.tolerance, model);
    set_motion(motion, model);
    log.npoints = npoints;
    log.ninliers = ninliers;
    log.status = 0;
}

// With the fastest variant.
template <typename OneGenerator, typename... Seed>
void estimate_or_give_up(Mat<float>& motion, MotionLog& log, const std::vector<KeyPoint>& src,
                         const std::vector<KeyPoint>& dst, const RansacParams& params,
                         Seed... seed) {
    static const EstimateVariant& variant = fastest_variant(estimate_variants);
    try {
        estimate_with<OneGenerator>(variant, motion, log, src, dst, params, seed...);
    } catch (const std::bad_alloc&) {
        __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
        give_up(motion, log, static_cast<int>(std::min(src.size(), dst.size())), 0);
    }
}

}  // namespace

void estimate_motion(const EstimateVariant& variant, Mat<float>& motion, MotionLog& log,
                     const std::vector<KeyPoint>& src, const std::vector<KeyPoint>& dst,
                     const RansacParams& params) {
    estimate_with<ProcessGenerator>(variant, motion, log, src, dst, params);
}

void estimateGlobalMotionRansac(Mat<float>& motion, MotionLog& log, std::vector<KeyPoint>& src,
                                std::vector<KeyPoint>& dst, const RansacParams& params) {
    estimate_or_give_up<ProcessGenerator>(motion, log, src, dst, params);
}

void estimate_motion_from_seed(Mat<float>& motion, MotionLog& log, const std::vector<KeyPoint>& src,
                               const std::vector<KeyPoint>& dst, const RansacParams& params,
                               std::uint32_t seed) {
    estimate_or_give_up<SeededGenerator>(motion, log, src, dst, params, seed);
}

}  // namespace videostabilizer
