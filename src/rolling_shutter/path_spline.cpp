// SPDX-License-Identifier: Apache-2.0

#include "rolling_shutter/path_spline.h"

#include <algorithm>
#include <cmath>

namespace videostabilizer {

namespace {

constexpr std::size_t DEGREE = 11;
constexpr std::size_t NEAR = DEGREE + 1;    // coefficients that count at a time
constexpr std::size_t BEFORE = DEGREE / 2;  // those before it
// Of the spline's direct filter.
constexpr double POLES[] = {-0.6612660689007345, -0.2721803492947859, -0.08975959979371328,
                            -0.01666962736623466, -0.0005105575344465020};
// Poses added at each end: what the filters begin with has faded to 1/140 by then.
constexpr std::size_t MARGIN = 12;

// The weights of the coefficients around a time, `t` after the middle one of them (C. de
// Boor's recursion for knots at whole numbers).
std::array<double, NEAR> weights_at(double t) {
    std::array<double, NEAR> weights{};
    weights[0] = 1;
    for (std::size_t degree = 1; degree < NEAR; ++degree) {
        const auto d = static_cast<double>(degree);
        double saved = 0;
        for (std::size_t r = 0; r < degree; ++r) {
            const auto place = static_cast<double>(r);
            const double share = weights[r] / d;
            weights[r] = saved + (place + 1 - t) * share;
            saved = (t + d - 1 - place) * share;
        }
        weights[degree] = saved;
    }
    return weights;
}

}  // namespace

PathSpline::PathSpline(std::size_t most_poses) : most_(most_poses) {
    coefficients_.reserve(most_poses + 2 * MARGIN);
}

void PathSpline::filter(double pole) {
    const double gain = (1 - pole) * (1 - 1 / pole);
    const std::size_t last = coefficients_.size() - 1;
    for (std::size_t part = 0; part < PARTS; ++part) {
        const auto c = [&](std::size_t i) -> double& { return coefficients_[i][part]; };
        c(0) *= gain / (1 - pole);
        for (std::size_t i = 1; i <= last; ++i) {
            c(i) = gain * c(i) + pole * c(i - 1);
        }
        c(last) = pole / (pole * pole - 1) * (c(last) + pole * c(last - 1));
        for (std::size_t i = last; i-- > 0;) {
            c(i) = pole * (c(i + 1) - c(i));
        }
    }
}

void PathSpline::fit(const CameraPose* poses, std::size_t count) {
    const auto parts = [](const CameraPose& p) { return Parts{p.x, p.y, p.angle, p.zoom}; };
    count = std::min(count, most_);
    const std::size_t last = count - 1;
    // `k` pictures beyond an end.
    const auto reflected = [&](bool at_start, std::size_t k) {
        const std::size_t known = std::min(k, last);
        const Parts end = parts(poses[at_start ? 0 : last]);
        const Parts other_end = parts(poses[at_start ? last : 0]);
        const Parts within = parts(poses[at_start ? known : last - known]);
        const double further =
            last == 0 ? 0 : static_cast<double>(k - known) / static_cast<double>(last);
        Parts result{};
        for (std::size_t i = 0; i < PARTS; ++i) {
            result[i] = 2 * end[i] - within[i] + further * (end[i] - other_end[i]);
        }
        return result;
    };
    coefficients_.clear();
    for (std::size_t k = MARGIN; k > 0; --k) {
        coefficients_.push_back(reflected(true, k));
    }
    for (std::size_t k = 0; k < count; ++k) {
        coefficients_.push_back(parts(poses[k]));
    }
    for (std::size_t k = 1; k <= MARGIN; ++k) {
        coefficients_.push_back(reflected(false, k));
    }
    for (const double pole : POLES) {
        filter(pole);
    }
}

CameraPose PathSpline::at(double time) const {
    const double before = std::floor(time);
    const std::array<double, NEAR> weights = weights_at(time - before);
    const auto first = static_cast<std::size_t>(static_cast<double>(MARGIN - BEFORE) + before);
    Parts sum{};
    for (std::size_t j = 0; j < NEAR; ++j) {
        for (std::size_t part = 0; part < PARTS; ++part) {
            sum[part] += weights[j] * coefficients_[first + j][part];
        }
    }
    return {sum[0], sum[1], sum[2], sum[3]};
}

}  // namespace videostabilizer
