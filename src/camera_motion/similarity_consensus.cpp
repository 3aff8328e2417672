// SPDX-License-Identifier: Apache-2.0

#include "camera_motion/similarity_consensus.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "motion/solve_positive.h"

namespace videostabilizer {

namespace {

// With a third of the sightings right one sample in nine is good: some 16, of which the best is taken.
constexpr int SAMPLES = 150;
// Sampling is skipped below this share of the largest cost. This saves time only.
constexpr double WELL_EXPLAINED = 0.15;
constexpr int REWEIGHTINGS = 4;
constexpr std::size_t FEWEST = 2;

// Of a step of a handheld camera, that of a walking person included.
constexpr double USUAL_TURN = 0.01;   // radians
constexpr double USUAL_ZOOM = 0.006;  // logarithm
constexpr double LARGEST_TURN = 0.5;
constexpr double LARGEST_ZOOM = 0.4;

// With depth in the scene, displacements differ by more than noise. Then the fit includes more
// sightings, so that it does not select one layer in this frame and another in the next.
constexpr double SOFTNESS = 6;  // variances of an error with a weight of 1/4; measured
constexpr double LEAST_SCATTER =
    0.001;  // pixels; below what a patch can tell; avoids division by 0

// The normal equations of a similarity, with N = 6 of a shear as well; the right side as the last column.
template <std::size_t N>
struct Equations {
    double m[N][N + 1] = {};

    // Adds a displacement of (dx, dy) at (x, y), with a symmetric weight matrix.
    void add(const Sighting& s, double line, double wxx, double wxy, double wyy) {
        const double in_x[6] = {s.x, -s.y, 1, 0, line, 0};
        const double in_y[6] = {s.y, s.x, 0, 1, 0, line};
        for (std::size_t i = 0; i < N; ++i) {
            const double to_x = in_x[i] * wxx + in_y[i] * wxy;
            const double to_y = in_x[i] * wxy + in_y[i] * wyy;
            for (std::size_t j = i; j < N; ++j) {
                m[i][j] += to_x * in_x[j] + to_y * in_y[j];
            }
            m[i][N] += to_x * s.dx + to_y * s.dy;
        }
    }

    // Adds a preference for a value of an unknown.
    void prefer(std::size_t unknown, double value, double deviation) {
        const double weight = 1 / (deviation * deviation);
        m[unknown][unknown] += weight;
        m[unknown][N] += weight * value;
    }
};

// The squared error where noise matters: across an edge in full, along it hardly at all.
double seen_error(const Sighting& s, const Similarity& change) {
    constexpr double CERTAIN = 0.04;  // square pixels: a smaller variance is as good as none
    const double ex = s.dx - change.map_x(s.x, s.y);
    const double ey = s.dy - change.map_y(s.x, s.y);
    const double vxx = CERTAIN + s.vxx;
    const double vyy = CERTAIN + s.vyy;
    return CERTAIN * (vyy * ex * ex - 2 * s.vxy * ex * ey + vxx * ey * ey) /
           (vxx * vyy - s.vxy * s.vxy);
}

// The change that explains two sightings exactly; false when they are too close, or it is none of a
// camera.
bool through(const Sighting& s, const Sighting& t, double shortest, Similarity& change) {
    const double x = t.x - s.x;
    const double y = t.y - s.y;
    const double dx = t.dx - s.dx;
    const double dy = t.dy - s.dy;
    const double square = x * x + y * y;
    if (square < shortest * shortest) {
        return false;
    }
    change.a = (x * dx + y * dy) / square;
    change.b = (x * dy - y * dx) / square;
    change.c = s.dx - change.a * s.x + change.b * s.y;
    change.d = s.dy - change.b * s.x - change.a * s.y;
    return std::abs(change.a) < LARGEST_ZOOM && std::abs(change.b) < LARGEST_TURN;
}

}  // namespace

double SimilarityConsensus::sample(const std::vector<Sighting>& sightings,
                                   const ConsensusSettings& settings, Similarity& change) const {
    const double most = settings.cap * settings.cap;
    double all = 0;
    for (const Sighting& s : sightings) {
        all += s.counts ? s.vote * most : 0;
    }
    if (!(all > 0)) {
        return 0;
    }
    const auto cost = [&](const Similarity& candidate, double limit) {
        double sum = 0;
        for (const Sighting& s : sightings) {
            if (s.counts) {
                sum += s.vote * std::min(seen_error(s, candidate), most);
                if (sum >= limit) {
                    break;
                }
            }
        }
        return sum;
    };
    double least = cost(change, 1e300);
    const auto consider = [&](const Similarity& candidate) {
        const double c = cost(candidate, least);
        if (c < least) {
            least = c;
            change = candidate;
        }
    };
    std::uint32_t state = 1;
    const auto draw = [&state, n = sightings.size()] {
        state = state * 1664525U + 1013904223U;
        return static_cast<std::size_t>(state >> 8U) % n;
    };
    const int samples = least > WELL_EXPLAINED * all ? SAMPLES : 0;
    for (int k = 0; k < samples; ++k) {
        const Sighting& s = sightings[draw()];
        const Sighting& t = sightings[draw()];
        if (s.counts && k % 4 == 0) {
            consider({0, 0, s.dx, s.dy});
        }
        Similarity candidate{};
        if (s.counts && t.counts && through(s, t, settings.shortest_base, candidate)) {
            consider(candidate);
        }
    }
    return 1 - least / all;
}

// The variance, square pixels, of the displacements minus `change`, from the median of their squared
// lengths (2 ln 2 variances, for Gaussian noise); negative when there are too few.
double SimilarityConsensus::variance_of(const std::vector<Sighting>& sightings,
                                        const Similarity& change, const LineShear& shear,
                                        double gate) {
    errors_.clear();
    for (const Sighting& s : sightings) {
        if (s.counts && s.trust > 0) {
            const double ex = shear.error_x(s, change);
            const double ey = shear.error_y(s, change);
            const double error = ex * ex + ey * ey;
            if (error < gate * gate) {
                errors_.push_back(error);
            }
        }
    }
    if (errors_.size() < FEWEST) {
        return -1;
    }
    const auto middle = errors_.begin() + static_cast<std::ptrdiff_t>(errors_.size() / 2);
    std::nth_element(errors_.begin(), middle, errors_.end());
    return std::max(LEAST_SCATTER * LEAST_SCATTER, *middle / (2 * std::log(2.0)));
}

// Fits the motion and, with N = 6, the shear to the sightings once, each weighed by how well it agreed before.
template <std::size_t N>
bool SimilarityConsensus::fit(std::vector<Sighting>& sightings, const Similarity& assumed,
                              const Weighing& weighing, Similarity& change, LineShear& shear) {
    Equations<N> equations;
    equations.prefer(0, 1 - assumed.a, USUAL_ZOOM);
    equations.prefer(1, -assumed.b, USUAL_TURN);
    for (std::size_t i = 4; i < N; ++i) {
        equations.prefer(i, 0, shear.deviation);
    }
    for (Sighting& s : sightings) {
        s.agreement = 0;
        const double ex = shear.error_x(s, change);
        const double ey = shear.error_y(s, change);
        if (!s.counts || !(s.trust > 0) || !(ex * ex + ey * ey < weighing.gate * weighing.gate)) {
            continue;
        }
        const double vxx = weighing.variance + s.vxx;
        const double vyy = weighing.variance + s.vyy;
        const double determinant = vxx * vyy - s.vxy * s.vxy;
        const double error = (vyy * ex * ex - 2 * s.vxy * ex * ey + vxx * ey * ey) / determinant;
        const double part = 1 + error / weighing.softness;
        s.agreement = 1 / (part * part);
        const double share = s.trust * s.agreement / determinant;
        equations.add(s, shear.line(s), share * vyy, -share * s.vxy, share * vxx);
    }
    double x[N];
    if (!solve_positive(equations.m, x)) {
        return false;
    }
    change = {x[0], x[1], x[2], x[3]};
    if constexpr (N > 4) {
        shear.x = x[4];
        shear.y = x[5];
    }
    return true;
}

bool SimilarityConsensus::refine(std::vector<Sighting>& sightings, const Similarity& assumed,
                                 const ConsensusSettings& settings, Similarity& change,
                                 LineShear& shear, double& scatter) {
    const double flat = settings.flat_scatter * settings.flat_scatter;
    for (int k = 0; k < REWEIGHTINGS; ++k) {
        const double variance = variance_of(sightings, change, shear, settings.gate);
        if (variance < 0) {
            return false;
        }
        scatter = std::sqrt(variance);
        const Weighing weighing = {settings.gate, variance, SOFTNESS * (1 + variance / flat)};
        if (!(shear.deviation > 0 ? fit<6>(sightings, assumed, weighing, change, shear)
                                  : fit<4>(sightings, assumed, weighing, change, shear))) {
            return false;
        }
    }
    return true;
}

}  // namespace videostabilizer
