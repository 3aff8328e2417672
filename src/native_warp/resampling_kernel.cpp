// SPDX-License-Identifier: Apache-2.0

#include "native_warp/resampling_kernel.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace videostabilizer {

namespace {

constexpr int FRACTIONS = 1024;
constexpr double PI = 3.14159265358979323846;

double lanczos3(double x) {
    if (x == 0) {
        return 1;
    }
    return x < 3 ? 3 * std::sin(PI * x) * std::sin(PI * x / 3) / (PI * PI * x * x) : 0;
}

// The kernel at a distance x, which is not negative.
double value(Resampling resampling, double x) {
    return resampling == Resampling::LANCZOS3 ? lanczos3(x) : std::max(0.0, 1 - x);
}

int radius(Resampling resampling) {
    return resampling == Resampling::LANCZOS3 ? 3 : 1;
}

}  // namespace

ResamplingWeights::ResamplingWeights(Resampling resampling, double stretch)
    : taps_(2 * static_cast<int>(std::ceil(radius(resampling) * stretch))) {
    weights_.reserve(static_cast<std::size_t>(FRACTIONS + 1) * static_cast<std::size_t>(taps_));
    for (int f = 0; f <= FRACTIONS; ++f) {
        const double fraction = static_cast<double>(f) / FRACTIONS;
        std::array<double, MAX_TAPS> exact{};
        double sum = 0;
        for (int t = 0; t < taps_; ++t) {
            const int sample = t - (taps_ / 2 - 1);
            const double distance = std::abs(sample - fraction);
            const auto tap = static_cast<std::size_t>(t);
            exact[tap] = value(resampling, distance / stretch);
            sum += exact[tap];
        }
        // What rounding leaves over goes to the largest weight, where it matters least.
        int left = 1 << WEIGHT_BITS;
        std::size_t largest = 0;
        const std::size_t begin = weights_.size();
        for (std::size_t t = 0; t < static_cast<std::size_t>(taps_); ++t) {
            const long weight = std::lround(exact[t] / sum * (1 << WEIGHT_BITS));
            weights_.push_back(static_cast<std::int16_t>(weight));
            left -= static_cast<int>(weight);
            largest = exact[t] > exact[largest] ? t : largest;
        }
        std::int16_t& most = weights_[begin + largest];
        most = static_cast<std::int16_t>(most + left);
    }
}

const std::int16_t* ResamplingWeights::at(double fraction) const {
    const double place = fraction * FRACTIONS;
    auto index = static_cast<std::size_t>(place);
    index += place - static_cast<double>(index) >= 0.5 ? 1 : 0;  // std::lround is a call
    return weights_.data() + index * static_cast<std::size_t>(taps_);
}

}  // namespace videostabilizer
