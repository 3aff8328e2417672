// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <vector>

#include "motion/similarity.h"

namespace videostabilizer {

// A place of the earlier picture, and how far from where a motion takes it the later one shows it.
// In pixels; positions are relative to the picture's centre.
struct Sighting {
    double x = 0;
    double y = 0;
    double dx = 0;
    double dy = 0;
    double vxx = 0;  // covariance of dx, dy
    double vxy = 0;
    double vyy = 0;
    double trust = 1;      // weight before anything is fitted: 0 and more
    double vote = 1;       // likewise, where a model is chosen
    double likeness = 1;   // 0..1: how well it looks alike
    bool counts = false;   // false: not seen
    double agreement = 0;  // set by refine: 0, none, to 1
};

struct ConsensusSettings {
    double cap;            // pixels: what is further from a sampled model counts as this far
    double gate;           // pixels: what is further from the fitted motion is left out
    double flat_scatter;   // pixels: a scatter of this size lets twice as much in
    double shortest_base;  // pixels between the sightings of a sample
};

// What a sensor that is read line by line adds to a motion: displacements that grow from line to line.
struct LineShear {
    bool by_columns = false;  // lines are columns, not rows
    double deviation = 0;     // pixels per line that are usual; 0: there is none
    double x = 0;             // pixels per line from the picture's middle, set by refine
    double y = 0;

    double line(const Sighting& s) const { return by_columns ? s.x : s.y; }
    double error_x(const Sighting& s, const Similarity& change) const {
        return s.dx - change.map_x(s.x, s.y) - x * line(s);
    }
    double error_y(const Sighting& s, const Similarity& change) const {
        return s.dy - change.map_y(s.x, s.y) - y * line(s);
    }
};

// The similarity on which most sightings agree, by weight.
//
// Samples of one sighting, for a shift, or two are drawn, and the model with the least truncated
// squared error (MSAC: P. H. S. Torr and A. Zisserman, 2000) is chosen. Reweighted least squares with
// the weights of S. Geman and D. McClure (1985) refines it; the inverse covariance of each sighting is
// its weight. Small turns and zooms are preferred as far as the sightings leave the choice: this is
// the maximum a posteriori estimate for a handheld camera. The samples depend on the number of
// sightings only, so that results repeat.
//
// Threads: owner only.
class SimilarityConsensus {
  public:
    // Replaces `change` by the best of it and of samples. Returns the share of the votes that agree.
    double sample(const std::vector<Sighting>& sightings, const ConsensusSettings& settings,
                  Similarity& change) const;

    // Refines `change`, which is to be added to the motion `assumed` that the sightings are relative
    // to. Sets each sighting's agreement. False when there are too few.
    // `scatter` receives the standard deviation of what agrees, pixels.
    // `shear` is fitted as well, if there may be any.
    bool refine(std::vector<Sighting>& sightings, const Similarity& assumed,
                const ConsensusSettings& settings, Similarity& change, LineShear& shear,
                double& scatter);

  private:
    struct Weighing {
        double gate;      // pixels
        double variance;  // of what agrees, square pixels
        double softness;  // variances of an error with a weight of 1/4
    };
    template <std::size_t N>
    static bool fit(std::vector<Sighting>& sightings, const Similarity& assumed,
                    const Weighing& weighing, Similarity& change, LineShear& shear);
    double variance_of(const std::vector<Sighting>& sightings, const Similarity& change,
                       const LineShear& shear, double gate);

    std::vector<double> errors_;  // scratch
};

// The sum and the difference of two fields of displacements.
inline Similarity operator+(const Similarity& s, const Similarity& t) {
    return {s.a + t.a, s.b + t.b, s.c + t.c, s.d + t.d};
}
inline Similarity operator-(const Similarity& s, const Similarity& t) {
    return {s.a - t.a, s.b - t.b, s.c - t.c, s.d - t.d};
}

}  // namespace videostabilizer
