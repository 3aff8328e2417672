#include "videostabilizer/ransac.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <new>

#include "motion/affine_fit.h"
#include "platform/log.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

namespace {

using SimpleLA::Mat;

constexpr char TAG[] = "global_motion";
constexpr int MIN_SIZE = 3;  // pairs that determine an affine motion

// Guards the generator behind srand48 and lrand48, which all stabilizers of the process share.
// Held while seeding and while drawing one sample, never while fitting.
std::mutex generator_mutex;

void seed_generator() {
    const std::lock_guard<std::mutex> lock(generator_mutex);
    srand48(std::time(nullptr));  // NOLINT(concurrency-mt-unsafe): the lock is what it asks for
}

// Fills `sample` with different indices below n, n being at least twice its size: a draw repeats an
// earlier one with a probability below one half, so the inner loop is short.
void draw_sample(std::vector<std::size_t>& sample, std::size_t n) {
    const std::lock_guard<std::mutex> lock(generator_mutex);
    for (auto drawn = sample.begin(); drawn != sample.end(); ++drawn) {
        do {
            const long number = lrand48();  // NOLINT(concurrency-mt-unsafe): as above
            *drawn = static_cast<unsigned long>(number) % n;
        } while (std::find(sample.begin(), drawn, *drawn) != drawn);
    }
}

// What makes a pair an inlier, and a model acceptable, for n pairs.
struct Criteria {
    float tolerance_x;  // upper bound of the squared error, pixels^2
    float tolerance_y;
    int min_inliers;
    int enough_inliers;  // more than this end the sampling
};

Criteria choose_criteria(long long n, const RansacParams& params) {
    const int enough = static_cast<int>(3 * n / 4);
    if (n >= 4LL * params.size) {
        // Horizontal errors get a pixel more.
        const float wide = params.thresh + 1.0F;
        return {wide * wide, params.thresh * params.thresh, static_cast<int>(2 * n / 5), enough};
    }
    // Few pairs: a stricter bound (the threshold itself, not its square) and a larger majority.
    return {params.thresh, params.thresh, static_cast<int>(3 * n / 5), enough};
}

// False for an error that is NaN.
inline bool is_inlier(const Mat<float>& model, const KeyPoint& from, const KeyPoint& to,
                      const Criteria& criteria) {
    const float* mx = model.row(0);
    const float* my = model.row(1);
    const float ex = ((mx[1] * from.y + mx[0] * from.x) + mx[2]) - to.x;
    const float ey = ((my[1] * from.y + my[0] * from.x) + my[2]) - to.y;
    // No branch between the two: which errors are small is as good as random.
    return (static_cast<int>(ex * ex < criteria.tolerance_x) &
            static_cast<int>(ey * ey < criteria.tolerance_y)) != 0;
}

int count_inliers(const Mat<float>& model, const std::vector<KeyPoint>& src,
                  const std::vector<KeyPoint>& dst, std::size_t n, const Criteria& criteria) {
    int count = 0;
    for (std::size_t i = 0; i < n; ++i) {
        count += static_cast<int>(is_inlier(model, src[i], dst[i], criteria));
    }
    return count;
}

// Leaves the model with the most inliers in `motion`, not refined, and returns their number; a
// later sample wins a tie. Without any sample returns -1. `sample_src` and `sample_dst` are
// scratch.
int find_best_model(Mat<float>& motion, const std::vector<KeyPoint>& src,
                    const std::vector<KeyPoint>& dst, std::size_t n, const RansacParams& params,
                    const Criteria& criteria, std::vector<KeyPoint>& sample_src,
                    std::vector<KeyPoint>& sample_dst) {
    const std::size_t size = static_cast<std::size_t>(params.size);
    std::vector<std::size_t> sample(size);
    sample_src.resize(size);
    sample_dst.resize(size);
    Mat<float> model(3, 3);
    if (model.data == nullptr) {
        throw std::bad_alloc();
    }

    int best = -1;
    for (std::int32_t iteration = 0; iteration < params.niters; ++iteration) {
        draw_sample(sample, n);
        for (std::size_t j = 0; j < size; ++j) {
            sample_src[j] = src[sample[j]];
            sample_dst[j] = dst[sample[j]];
        }
        fitAffine(model, sample_src, sample_dst);
        const int count = count_inliers(model, src, dst, n, criteria);
        if (count >= best) {
            SimpleLA::copy_elements(model, motion);
            best = count;
            if (count > criteria.enough_inliers) {
                break;
            }
        }
    }
    return best;
}

// Refits `motion` to all of its inliers, of which there are `count`.
void refit(Mat<float>& motion, const std::vector<KeyPoint>& src, const std::vector<KeyPoint>& dst,
           std::size_t n, int count, const Criteria& criteria, std::vector<KeyPoint>& inlier_src,
           std::vector<KeyPoint>& inlier_dst) {
    inlier_src.clear();
    inlier_dst.clear();
    inlier_src.reserve(static_cast<std::size_t>(count));
    inlier_dst.reserve(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i < n; ++i) {
        if (is_inlier(motion, src[i], dst[i], criteria)) {
            inlier_src.push_back(src[i]);
            inlier_dst.push_back(dst[i]);
        }
    }
    fitAffine(motion, inlier_src, inlier_dst);
}

void give_up(Mat<float>& motion, MotionLog& log, int npoints, int ninliers) {
    SimpleLA::set_identity(motion);
    log = {npoints, ninliers, 0.0F, 1};
}

}  // namespace

void estimateGlobalMotionRansac(Mat<float>& motion, MotionLog& log, std::vector<KeyPoint>& src,
                                std::vector<KeyPoint>& dst, const RansacParams& params) {
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
    seed_generator();
    try {
        std::vector<KeyPoint> sample_src;
        std::vector<KeyPoint> sample_dst;
        const int ninliers =
            find_best_model(motion, src, dst, n, params, criteria, sample_src, sample_dst);
        if (ninliers < criteria.min_inliers) {
            __android_log_print(LOG_WARN, TAG, "ninliersMax < npoints * 2/5 !!");
            give_up(motion, log, npoints, ninliers);
            return;
        }
        refit(motion, src, dst, n, ninliers, criteria, sample_src, sample_dst);
        log.npoints = npoints;
        log.ninliers = ninliers;
        log.status = 0;
    } catch (const std::bad_alloc&) {
        __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
        give_up(motion, log, npoints, 0);
    }
}

}  // namespace videostabilizer
