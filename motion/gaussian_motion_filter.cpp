#include "videostabilizer/gaussian_motion_filter.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <exception>
#include <memory>
#include <new>

#include "platform/log.h"
#include "simplela/mat_util.h"
#include "videostabilizer/motion_path.h"

namespace videostabilizer {

namespace {

using SimpleLA::Mat;

constexpr char TAG[] = "motion_stabilizer";

void log_out_of_memory() {
    __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
}

// Returns false, and leaves the filter as it was, when there is no memory for the weights.
bool try_set_params(GaussianMotionFilter& filter, int radius, float stdev) {
    radius = std::max(radius, 0);
    try {
        filter.weights.resize(2 * static_cast<std::size_t>(radius) + 1);
    } catch (const std::exception&) {  // no memory, or more than a vector can hold
        return false;
    }
    filter.radius = radius;
    filter.sigma = stdev > 0.0F ? stdev : std::sqrt(static_cast<float>(radius));

    const float sigma_squared = filter.sigma * filter.sigma;
    float sum = 0.0F;
    long long i = -radius;
    for (float& weight : filter.weights) {
        weight = std::exp(static_cast<float>(-i * i) / sigma_squared);
        sum += weight;
        ++i;
    }
    for (float& weight : filter.weights) {
        weight /= sum;
    }
    return true;
}

void scale_elements(Mat<float>& m, float factor) {
    for (int i = 0; i < m.rows; ++i) {
        for (int j = 0; j < m.cols; ++j) {
            m.at(i, j) *= factor;
        }
    }
}

}  // namespace

GaussianMotionFilter* gaussian_motion_filter_create(int radius, float stdev) {
    std::unique_ptr<GaussianMotionFilter> filter(new (std::nothrow) GaussianMotionFilter{});
    if (filter == nullptr || !try_set_params(*filter, radius, stdev)) {
        log_out_of_memory();
        return nullptr;
    }
    return filter.release();
}

void gaussian_motion_filter_set_params(GaussianMotionFilter* filter, int radius, float stdev) {
    if (!try_set_params(*filter, radius, stdev)) {
        log_out_of_memory();
    }
}

void gaussian_motion_filter_stabilize(GaussianMotionFilter* filter, Mat<float>& out, int idx,
                                      std::vector<Mat<float>*>& motions,
                                      std::vector<MotionLog>& logs, int first, int last) {
    static_cast<void>(logs);
    const int radius = filter->radius;
    // Wide, because idx and the radius are any ints. The offset +radius itself is left out.
    const int lo =
        static_cast<int>(std::max<long long>(static_cast<long long>(idx) - radius, first));
    const int hi =
        static_cast<int>(std::min<long long>(static_cast<long long>(idx) + radius, last));

    // getMotion's working matrix: each call takes it over and hands one back.
    std::unique_ptr<Mat<float>> transform(new (std::nothrow) Mat<float>(3, 3));
    if (transform == nullptr || transform->data == nullptr) {
        log_out_of_memory();
        SimpleLA::set_identity(out);
        return;
    }

    const float* weight_at = filter->weights.data() + radius;  // by offset, -radius..radius
    SimpleLA::set_zero(out);
    float sum = 0.0F;
    for (int j = lo; j < hi; ++j) {
        transform.reset(getMotion(transform.release(), idx, j, motions));
        const float weight = weight_at[j - idx];
        for (int r = 0; r < out.rows; ++r) {
            for (int c = 0; c < out.cols; ++c) {
                out.at(r, c) += weight * transform->at(r, c);
            }
        }
        sum += weight;
    }

    if (sum > 0.0F) {
        scale_elements(out, 1.0F / sum);
    } else {
        SimpleLA::set_identity(out);
    }
}

void gaussian_motion_filter_delete(GaussianMotionFilter* filter) {
    delete filter;
}

}  // namespace videostabilizer
