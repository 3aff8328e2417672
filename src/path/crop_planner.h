// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <vector>

namespace videostabilizer {

// Plans the part of the picture that is shown, frame by frame.
//
// The steady path needs at most the part need(k) to be shown at frame k. The crop follows the least of
// the needs that are known, from its frame to the end of the look-ahead, so that the picture is
// enlarged before a shake begins. It changes slowly: the change of its logarithm from frame to frame is
// bounded, more tightly when it opens than when it closes, and so is the change of that change. Where
// this is too slow for the need, the path is limited instead.
//
// Threads: owner only.
class CropPlanner {
  public:
    // Shown parts of the width and height, 0.5..1, and the later frames known. Throws std::bad_alloc.
    CropPlanner(double least, double most, int look_ahead);

    // Other parts; a crop beyond them goes there as fast as it goes anywhere.
    void set_bounds(double least, double most);

    // The next frame is the first of a scene: its crop does not continue the last one.
    void begin_scene();

    // Plans the frames that needs[0] .. needs[count - 1] belong to, the first of which is kept. The
    // result is valid until the next call.
    const std::vector<double>& plan(const std::vector<double>& needs, std::size_t count);

    // Of the last planned frame of the scene; at its start the most that may be shown.
    double shown() const;

  private:
    struct State {
        double crop;   // logarithm
        double speed;  // its change from frame to frame
    };
    State after(const State& state, double goal) const;

    double least_;            // logarithms
    double most_;             //
    bool continues_ = false;  // the last planned frame is of the same scene
    State state_;             // of the last planned frame
    std::vector<double> plan_;
};

}  // namespace videostabilizer
