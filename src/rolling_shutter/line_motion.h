// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

#include "motion/similarity.h"

namespace videostabilizer {

// How far the lines of a picture are moved at its borders, pixels.
struct LineReach {
    double x = 0;
    double y = 0;
};

// Where the camera was at the lines of a picture, relative to where it was at the middle one: a position q
// on line u (-1/2: the first, 1/2: the last) is at q + field(u)(q) in the picture that a camera with
// a readout of no time would have taken then. Fields are those of displacements, in pixels
// relative to the picture's centre.
class LineMotion {
  public:
    static constexpr std::size_t NODES = 17;  // equally far apart, linear between

    static double line_of(std::size_t node) {
        return static_cast<double>(node) / (NODES - 1) - 0.5;
    }

    Similarity field(double line) const {
        // In this order, what is not a number is the first line.
        const double place = (NODES - 1) * std::min(std::max(0.0, line + 0.5), 1.0);
        const auto before = std::min(static_cast<std::size_t>(place), NODES - 2);
        const double share = place - static_cast<double>(before);
        const Similarity& p = nodes[before];
        const Similarity& q = nodes[before + 1];
        return {p.a + share * (q.a - p.a), p.b + share * (q.b - p.b), p.c + share * (q.c - p.c),
                p.d + share * (q.d - p.d)};
    }

    void scale(double factor) {
        for (Similarity& node : nodes) {
            node = {factor * node.a, factor * node.b, factor * node.c, factor * node.d};
        }
    }

    std::array<Similarity, NODES> nodes{};
};

}  // namespace videostabilizer
