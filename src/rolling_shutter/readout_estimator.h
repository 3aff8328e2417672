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

// What a deviation of so few steps is to be multiplied by: they tell of half of it, or less.
inline double few_steps_factor(std::size_t steps) {
    constexpr double FEW_STEPS = 20;
    return 1 + FEW_STEPS / static_cast<double>(steps + 1);
}

// The readout of a sensor out of the evidence of its last steps, by least squares. Its deviation is that
// of the steps from each other (H. White, 1980), not the noise of places: what moves on its own in a picture
// is wrong in all of its places.
//
// Threads: owner only.
class ReadoutEstimator {
  public:
    ReadoutEstimator();  // throws std::bad_alloc

    // The evidence of step k; it replaces what was added for that step before, or long ago. Where it is
    // next to nothing it does not count: the readout is not forgotten while the camera rests.
    void add(std::int64_t k, const ReadoutEvidence& evidence);

    // Another camera may follow: what was learned counts less, and is forgotten as soon as the new steps
    // say something else.
    void begin_scene();

    double readout() const {
        return all_.readout;
    }  // share of the frame interval; 0: nothing known
    double deviation() const { return all_.deviation; }  // its standard deviation
    std::size_t steps() const { return all_.steps; }

  private:
    struct Solution {
        double readout = 0;
        double deviation = 1;
        std::size_t steps = 0;
    };
    Solution solve(bool of_this_scene) const;
    void forget_earlier_scenes();

    struct Step {
        ReadoutEvidence evidence;
        double weight = 0;     // 0: there is none
        bool earlier = false;  // of an earlier scene
    };
    std::vector<Step> steps_;  // step k in slot k mod size
    Solution all_;
    Solution earlier_;  // all there was when the scene began; no steps: nothing is left of it
};

}  // namespace videostabilizer
