// SPDX-License-Identifier: Apache-2.0

#include "common/synthetic/shake_metrics.h"

#include <cmath>
#include <cstddef>
#include <limits>

namespace synthetic {

namespace {

constexpr double PI = 3.14159265358979323846;
constexpr double SLOW_HERTZ = 0.6;
constexpr double FAST_HERTZ = 1.9;
constexpr double END_SECONDS = 0.5;
constexpr double SHORTEST_SECONDS = 1.5;

// The value at any index; beyond the ends, the point reflection, or the end value where the path is
// too short for it.
double value_at(const std::vector<double>& values, std::ptrdiff_t i) {
    const auto last = static_cast<std::ptrdiff_t>(values.size()) - 1;
    if (i >= 0 && i <= last) {
        return values[static_cast<std::size_t>(i)];
    }
    const double end = i < 0 ? values.front() : values.back();
    const std::ptrdiff_t mirrored = i < 0 ? -i : 2 * last - i;
    if (mirrored < 0 || mirrored > last) {
        return end;
    }
    return 2 * end - values[static_cast<std::size_t>(mirrored)];
}

std::vector<double> high_pass(const std::vector<double>& values, double hertz, double fps) {
    // exp(-(2 pi f sigma)^2 / 2) is one half at f = hertz.
    const double sigma = std::sqrt(2 * std::log(2.0)) / (2 * PI * hertz / fps);
    const auto radius = static_cast<std::ptrdiff_t>(4 * sigma);
    std::vector<double> passed;
    for (std::ptrdiff_t i = 0; i < static_cast<std::ptrdiff_t>(values.size()); ++i) {
        double sum = 0;
        double weights = 0;
        for (std::ptrdiff_t j = -radius; j <= radius; ++j) {
            const double distance = static_cast<double>(j) / sigma;
            const double weight = std::exp(-0.5 * distance * distance);
            sum += weight * value_at(values, i + j);
            weights += weight;
        }
        passed.push_back(values[static_cast<std::size_t>(i)] - sum / weights);
    }
    return passed;
}

std::vector<double> change_of_speed(const std::vector<double>& values) {
    std::vector<double> change;
    for (std::size_t i = 1; i + 1 < values.size(); ++i) {
        change.push_back(values[i + 1] - 2 * values[i] + values[i - 1]);
    }
    return change;
}

double mean_square(const std::vector<double>& values, std::size_t ends) {
    double sum = 0;
    for (std::size_t i = ends; i + ends < values.size(); ++i) {
        sum += values[i] * values[i];
    }
    return sum / static_cast<double>(values.size() - 2 * ends);
}

}  // namespace

Shake shake_of(const std::vector<PathPoint>& path, double frames_per_second) {
    if (static_cast<double>(path.size()) < SHORTEST_SECONDS * frames_per_second ||
        path.size() < 4) {
        constexpr double NONE = std::numeric_limits<double>::quiet_NaN();
        return {NONE, NONE, NONE, NONE};
    }
    const auto ends = static_cast<std::size_t>(END_SECONDS * frames_per_second);
    std::vector<double> x, y, angle;
    for (const PathPoint& point : path) {
        x.push_back(point.x);
        y.push_back(point.y);
        angle.push_back(point.angle);
    }
    const auto above = [&](const std::vector<double>& values, double hertz) {
        return mean_square(high_pass(values, hertz, frames_per_second), ends);
    };
    Shake shake;
    shake.jitter = std::sqrt(above(x, SLOW_HERTZ) + above(y, SLOW_HERTZ));
    shake.rotation = std::sqrt(above(angle, SLOW_HERTZ));
    shake.fast = std::sqrt(above(x, FAST_HERTZ) + above(y, FAST_HERTZ));
    shake.shake =
        std::sqrt(mean_square(change_of_speed(x), ends) + mean_square(change_of_speed(y), ends));
    return shake;
}

Shake reduction_db(const Shake& shaky, const Shake& steady) {
    const auto db = [](double before, double after) { return 20 * std::log10(before / after); };
    return {db(shaky.jitter, steady.jitter), db(shaky.rotation, steady.rotation),
            db(shaky.fast, steady.fast), db(shaky.shake, steady.shake)};
}

}  // namespace synthetic
