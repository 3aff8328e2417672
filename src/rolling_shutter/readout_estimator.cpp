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
// Deviation of a single step beyond which it tells of noise only: 30 while the camera rests, 1 in the calmest
// steps of hands.
constexpr double LEAST_TOLD = 5;

// Of a scene whose own steps say something else than those before it.
constexpr double OTHER_CAMERA = 4;  // deviations
constexpr double LEAST_DIFFERENCE = 0.05;

constexpr std::size_t N = ReadoutEvidence::UNKNOWNS;

}  // namespace

ReadoutEstimator::ReadoutEstimator() : steps_(MEMORY) {}

void ReadoutEstimator::add(std::int64_t k, const ReadoutEvidence& evidence) {
    if (!(evidence.m[0][0] > 1 / (LEAST_TOLD * LEAST_TOLD))) {
        return;
    }
    Step& step = steps_[static_cast<std::size_t>(k) % MEMORY];
    step = {evidence, 1, false};
    if (earlier_.steps > 0) {
        const Solution own = solve(true);
        const double deviations = OTHER_CAMERA * std::hypot(own.deviation, earlier_.deviation) *
                                  few_steps_factor(own.steps);
        if (own.deviation < LARGEST_DEVIATION &&
            std::abs(own.readout - earlier_.readout) > std::max(deviations, LEAST_DIFFERENCE)) {
            forget_earlier_scenes();
        }
    }
    all_ = solve(false);
}

void ReadoutEstimator::begin_scene() {
    for (Step& step : steps_) {
        step.weight *= OTHER_SCENE;
        step.earlier = true;
    }
    earlier_ = all_;
}

void ReadoutEstimator::forget_earlier_scenes() {
    for (Step& step : steps_) {
        step.weight = step.earlier ? 0 : step.weight;
    }
    earlier_ = {};
}

ReadoutEstimator::Solution ReadoutEstimator::solve(bool of_this_scene) const {
    const auto weight_of = [of_this_scene](const Step& step) {
        return of_this_scene && step.earlier ? 0 : step.weight;
    };
    Solution solution;
    solution.deviation = LARGEST_DEVIATION;
    solution.steps = static_cast<std::size_t>(std::count_if(
        steps_.begin(), steps_.end(), [&](const Step& step) { return weight_of(step) > 0; }));
    if (solution.steps < FEWEST_STEPS) {
        return solution;
    }
    double sum[N][N + 1] = {};
    for (std::size_t i = 1; i < N; ++i) {
        sum[i][i] = 1 / (USUAL_PARALLAX * USUAL_PARALLAX);
    }
    for (const Step& step : steps_) {
        for (std::size_t i = 0; i < N; ++i) {
            for (std::size_t j = i; j <= N; ++j) {
                sum[i][j] += weight_of(step) * step.evidence.m[i][j];
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
        return solution;
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
        square += weight_of(step) * weight_of(step) * influence * influence;
    }
    solution.readout = std::clamp(x[0], -1.0, 1.0);
    solution.deviation = std::min(std::sqrt(square), LARGEST_DEVIATION);
    return solution;
}

}  // namespace videostabilizer
