// SPDX-License-Identifier: Apache-2.0

#include "motion/similarity_fit.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "motion/similarity.h"

namespace videostabilizer {

namespace {

// "Measured": the effect of half and twice the value is in docs/strength.md; "uncritical": it is less
// than 0.2 dB in every clip there. Lengths are in pixels of the analysis image.
constexpr std::size_t FEWEST_PAIRS = 12;  // as many as the affine estimate needs: two samples of 6
// With half the pairs wrong one sample in four is good: some 37, of which the best is taken;
// uncritical.
constexpr int SAMPLES = 150;
// Larger errors count as this one. 0.75 to 1.5 give the same; from 2 on a large moving object biases
// the model; measured.
constexpr double CAP = 1.5;
constexpr double SOFTNESS = 1.5;  // errors with a weight of 1/4; measured
// Sampling is skipped below this share of the largest cost. This saves time only: 0 gives the same
// results.
constexpr double WELL_EXPLAINED = 0.15;
constexpr int REFINEMENTS = 6;  // measured
// Between the pairs of a sample: a pixel of error turns the model by 2 degrees; uncritical.
constexpr double SHORTEST_BASE = 32;

double squared_error(const Similarity& s, double x, double y, double to_x, double to_y) {
    const double ex = s.map_x(x, y) - to_x;
    const double ey = s.map_y(x, y) - to_y;
    return ex * ex + ey * ey;
}

struct Pairs {
    const std::vector<KeyPoint>& from;
    const std::vector<KeyPoint>& to;
    PictureCentre centre;

    double x(std::size_t i) const { return static_cast<double>(from[i].x) - centre.x; }
    double y(std::size_t i) const { return static_cast<double>(from[i].y) - centre.y; }
    double to_x(std::size_t i) const { return static_cast<double>(to[i].x) - centre.x; }
    double to_y(std::size_t i) const { return static_cast<double>(to[i].y) - centre.y; }
    double squared_error(const Similarity& s, std::size_t i) const {
        return videostabilizer::squared_error(s, x(i), y(i), to_x(i), to_y(i));
    }
};

// The similarity that maps points i and j exactly; false when they are too close.
bool through(const Pairs& pairs, std::size_t i, std::size_t j, double shortest, Similarity& s) {
    const double x = pairs.x(j) - pairs.x(i);
    const double y = pairs.y(j) - pairs.y(i);
    const double to_x = pairs.to_x(j) - pairs.to_x(i);
    const double to_y = pairs.to_y(j) - pairs.to_y(i);
    const double square = x * x + y * y;
    if (square < shortest * shortest) {
        return false;
    }
    s.a = (x * to_x + y * to_y) / square;
    s.b = (x * to_y - y * to_x) / square;
    s.c = pairs.to_x(i) - s.a * pairs.x(i) + s.b * pairs.y(i);
    s.d = pairs.to_y(i) - s.b * pairs.x(i) - s.a * pairs.y(i);
    return true;
}

double capped_cost(const Pairs& pairs, const Similarity& s, double cap, double least) {
    double cost = 0;
    for (std::size_t i = 0; i < pairs.from.size() && cost < least; ++i) {
        cost += std::min(pairs.squared_error(s, i), cap * cap);
    }
    return cost;
}

// One step of reweighted least squares. False when the weights leave nothing to fit.
bool reweighted(const Pairs& pairs, double softness, Similarity& s) {
    double weight_sum = 0, x = 0, y = 0, to_x = 0, to_y = 0;
    double square = 0, along = 0, across = 0;
    for (std::size_t i = 0; i < pairs.from.size(); ++i) {
        const double part = 1 + pairs.squared_error(s, i) / (softness * softness);
        const double weight = 1 / (part * part);
        const double px = pairs.x(i), py = pairs.y(i);
        const double qx = pairs.to_x(i), qy = pairs.to_y(i);
        weight_sum += weight;
        x += weight * px;
        y += weight * py;
        to_x += weight * qx;
        to_y += weight * qy;
        square += weight * (px * px + py * py);
        along += weight * (px * qx + py * qy);
        across += weight * (px * qy - py * qx);
    }
    const double spread = square - (x * x + y * y) / weight_sum;
    if (!(weight_sum > 1) || !(spread > 1)) {
        return false;
    }
    s.a = (along - (x * to_x + y * to_y) / weight_sum) / spread;
    s.b = (across - (x * to_y - y * to_x) / weight_sum) / spread;
    s.c = (to_x - s.a * x + s.b * y) / weight_sum;
    s.d = (to_y - s.b * x - s.a * y) / weight_sum;
    return true;
}

}  // namespace

SimilarityFit::SimilarityFit(PictureCentre centre, double pixel) : centre_(centre), pixel_(pixel) {}

void SimilarityFit::refine(const std::vector<KeyPoint>& from, const std::vector<KeyPoint>& to,
                           CameraPose& pose) const {
    if (from.size() < FEWEST_PAIRS) {
        return;
    }
    const Pairs pairs = {from, to, centre_};
    Similarity best = similarity_of_step(pose);
    double least = capped_cost(pairs, best, CAP * pixel_, 1e300);

    std::uint32_t state = 1;
    const auto draw = [&state, n = from.size()] {
        state = state * 1664525U + 1013904223U;
        return static_cast<std::size_t>(state >> 8U) % n;
    };
    const double most = static_cast<double>(from.size()) * CAP * CAP * pixel_ * pixel_;
    const int samples = least > WELL_EXPLAINED * most ? SAMPLES : 0;
    for (int sample = 0; sample < samples; ++sample) {
        const std::size_t i = draw();
        const std::size_t j = draw();
        Similarity candidate{};
        if (!through(pairs, i, j, SHORTEST_BASE * pixel_, candidate)) {
            continue;
        }
        const double cost = capped_cost(pairs, candidate, CAP * pixel_, least);
        if (cost < least) {
            least = cost;
            best = candidate;
        }
    }
    for (int i = 0; i < REFINEMENTS; ++i) {
        if (!reweighted(pairs, SOFTNESS * pixel_, best)) {
            return;
        }
    }
    pose = step_of_similarity(best);
}

}  // namespace videostabilizer
