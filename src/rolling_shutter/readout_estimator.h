// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace videostabilizer {

// What the pairs of one step tell about the readout and the parallax, after the step itself is
// eliminated: normal equations, whose last column is the right side.
struct ReadoutEvidence {
    // The readout; then what moves with the camera's shift as it is further down the picture,
    // horizontally and vertically, because it is nearer: the ground before the camera.
    static constexpr std::size_t UNKNOWNS = 3;
    double m[UNKNOWNS][UNKNOWNS + 1] = {};
};

// The readout of a sensor out of the evidence of its last steps, by least squares. Its deviation is that
// of the steps from each other (H. White, 1980), not the noise of places: what moves on its own in a picture
// is wrong in all of its places.
//
// Threads: owner only.
class ReadoutEstimator {
  public:
    ReadoutEstimator();  // throws std::bad_alloc

    // The evidence of step k; it replaces what was added for that step before.
    void add(std::int64_t k, const ReadoutEvidence& evidence);

    // Another camera may follow: what was learned counts less.
    void begin_scene();

    double readout() const { return readout_; }  // share of the frame interval; 0: nothing known
    double deviation() const { return deviation_; }  // its standard deviation
    std::size_t steps() const { return count_; }

  private:
    void solve();

    struct Step {
        ReadoutEvidence evidence;
        double weight = 0;  // 0: there is none
    };
    std::vector<Step> steps_;  // step k in slot k mod size
    std::size_t count_ = 0;    // of those with evidence
    double readout_ = 0;
    double deviation_ = 1;
};

}  // namespace videostabilizer
