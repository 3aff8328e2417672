// SPDX-License-Identifier: Apache-2.0

#include "rolling_shutter/readout_estimator.h"

#include <algorithm>
#include <cmath>

#include "motion/solve_positive.h"

namespace videostabilizer {

namespace {

constexpr std::size_t MEMORY = 240;      // steps: eight seconds at 30 pictures per second
constexpr double OTHER_SCENE = 0.25;     // weight of the steps before a cut
constexpr double USUAL_PARALLAX = 0.3;   // deviation, of the shift over the whole height
constexpr double LARGEST_DEVIATION = 1;  // as good as not knowing it
constexpr std::size_t FEWEST_STEPS = 8;

constexpr std::size_t N = ReadoutEvidence::UNKNOWNS;

}  // namespace

ReadoutEstimator::ReadoutEstimator() : steps_(MEMORY) {}

void ReadoutEstimator::add(std::int64_t k, const ReadoutEvidence& evidence) {
    Step& step = steps_[static_cast<std::size_t>(k) % MEMORY];
    count_ += step.weight > 0 ? 0 : 1;
    step = {evidence, 1};
    solve();
}

void ReadoutEstimator::begin_scene() {
    for (Step& step : steps_) {
        step.weight *= OTHER_SCENE;
    }
}

void ReadoutEstimator::solve() {
    readout_ = 0;
    deviation_ = LARGEST_DEVIATION;
    if (count_ < FEWEST_STEPS) {
        return;
    }
    double sum[N][N + 1] = {};
    for (std::size_t i = 1; i < N; ++i) {
        sum[i][i] = 1 / (USUAL_PARALLAX * USUAL_PARALLAX);
    }
    for (const Step& step : steps_) {
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = i; j <= N; ++j) {
                sum[i][j] += step.weight * step.evidence.m[i][j];
            }
        }
    }
    // The first column of the inverse, for the readout's deviation; then the solution.
    double matrix[N][N + 1];
    std::copy(&sum[0][0], &sum[0][0] + N * (N + 1), &matrix[0][0]);
    double inverse[N];
    for (std::size_t i = 0; i < N; ++i) {
        matrix[i][N] = i == 0 ? 1 : 0;
    }
    double x[N];
    if (!solve_positive(matrix, inverse) || !solve_positive(sum, x)) {
        return;
    }
    double square = 0;
    for (const Step& step : steps_) {
        const double(&m)[N][N + 1] = step.evidence.m;
        double influence = 0;
        for (std::size_t i = 0; i < N; ++i) {
            double score = m[i][N];
            for (std::size_t j = 0; j < N; ++j) {
                score -= (j >= i ? m[i][j] : m[j][i]) * x[j];
            }
            influence += inverse[i] * score;
        }
        square += step.weight * step.weight * influence * influence;
    }
    readout_ = std::clamp(x[0], -1.0, 1.0);
    deviation_ = std::min(std::sqrt(square), LARGEST_DEVIATION);
}

}  // namespace videostabilizer
