// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "camera_motion/luma_pyramid.h"
#include "motion/similarity.h"

namespace videostabilizer {

// A small square of the earlier picture, prepared to be found in the later one.
//
// The displacement follows from the difference of the grey levels and the gradient (B. D. Lucas and
// T. Kanade, 1981); the gradient is that of the earlier picture, and so computed once (inverse
// compositional: S. Baker and I. Matthews, 2004). Changes of brightness and contrast do not matter.
class Patch {
  public:
    static constexpr int SIDE = 12;  // pixels; measured: see docs/strength.md
    static constexpr double MIDDLE = 0.5 * (SIDE - 1);

    // Whether there is room in the picture for a square with its top left pixel at (x, y).
    static bool has_room(const LumaView& picture, int x, int y);

    // Takes the square with its top left pixel at (x, y), for which there is room.
    void take(const LumaView& picture, int x, int y);

    // Without texture nothing can be found.
    bool has_texture() const { return energy_ > LEAST_ENERGY; }

    struct Match {
        bool leads_on;         // the later picture looks similar enough for dx, dy to lead closer
        bool counts;           // it looks alike, and all of this is valid
        double dx, dy;         // displacement from the assumed position, pixels
        double vxx, vxy, vyy;  // its covariance due to noise, square pixels; along an edge, large
        double likeness;  // 0..1: how well the grey levels agree, 1 - 2 (1 - squared correlation)
    };

    // Compares with the later picture, where the top left pixel is assumed at (x, y) and the square
    // turned and scaled by the linear part of `motion`.
    Match match(const LumaView& later, double x, double y, const Similarity& motion) const;

  private:
    static constexpr int AREA = SIDE * SIDE;
    // Squared grey levels in all: a deviation of half a grey level is that of rounding.
    static constexpr double LEAST_ENERGY = 0.3 * AREA;

    float grey_[AREA];     // grey levels minus their mean
    float along_[AREA];    // horizontal gradient, orthogonal to brightness and contrast changes
    float down_[AREA];     // vertical gradient, likewise
    double energy_;        // sum of squares of `grey_`
    double xx_, xy_, yy_;  // sums of products of the gradients; xx_ and yy_ are increased a little
    double turn_x_, turn_y_;  // sums of gradient times the change of grey level by rotation and
    double grow_x_, grow_y_;  // by zoom about the middle
};

}  // namespace videostabilizer
