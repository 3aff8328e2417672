// SPDX-License-Identifier: Apache-2.0

#include "videostabilizer/gaussian_motion_filter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "motion/product3x3.h"
#include "platform/log.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

namespace {

using SimpleLA::Mat;

constexpr char TAG[] = "motion_stabilizer";

void log_out_of_memory() {
    __android_log_print(LOG_ERROR, TAG, OUT_OF_MEMORY_TEXT);
}

// Returns false and leaves the filter as it was when memory runs out.
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

// The slot of frame i in a ring of `slots`.
std::size_t slot_of(int i, std::size_t slots) {
    return static_cast<unsigned int>(i) % slots;
}

// The product of motions that getMotion computes, factor by factor, without allocation.
class MotionProduct {
  public:
    void begin() { SimpleLA::set_identity(*product_); }

    void append(const Mat<float>& motion) {
        multiply_3x3(motion, *product_, *spare_);
        std::swap(product_, spare_);
    }

    void invert() { invert_motion(*product_); }

    const Mat<float>& value() const { return *product_; }

  private:
    static constexpr int STEP = 3 * static_cast<int>(sizeof(float));

    std::array<float, 9> elements_[2] = {};
    Mat<float> matrices_[2] = {{3, 3, elements_[0].data(), STEP},
                               {3, 3, elements_[1].data(), STEP}};
    Mat<float>* product_ = &matrices_[0];
    Mat<float>* spare_ = &matrices_[1];
};

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
    // In 64 bits: idx and the radius may be any ints. The offset +radius itself is excluded.
    const int lo =
        static_cast<int>(std::max<long long>(static_cast<long long>(idx) - radius, first));
    const int hi =
        static_cast<int>(std::min<long long>(static_cast<long long>(idx) + radius, last));

    const float* weight_at = filter->weights.data() + radius;  // by offset, -radius..radius
    SimpleLA::set_zero(out);
    float sum = 0.0F;
    const auto take = [&](const Mat<float>& transform, int j) {
        const float weight = weight_at[j - idx];
        for (int r = 0; r < out.rows; ++r) {
            for (int c = 0; c < out.cols; ++c) {
                out.at(r, c) += weight * transform.at(r, c);
            }
        }
        sum += weight;
    };
    // In the order of the frames, which determines the rounding. The products for later frames are
    // continued from one to the next; those for earlier frames begin with a factor of their own, so
    // that nothing can be shared without rounding differently.
    MotionProduct product;
    for (int j = lo; j < std::min(hi, idx); ++j) {
        product.begin();
        for (int i = j; i < idx && !motions.empty(); ++i) {
            product.append(*motions[slot_of(i, motions.size())]);
        }
        product.invert();
        take(product.value(), j);
    }
    product.begin();
    for (int j = idx; j < hi; ++j) {
        if (j >= lo) {
            take(product.value(), j);
        }
        if (!motions.empty()) {
            product.append(*motions[slot_of(j, motions.size())]);
        }
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
