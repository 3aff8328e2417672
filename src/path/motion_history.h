// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "camera_motion/camera_step.h"
#include "motion/camera_pose.h"

namespace videostabilizer {

// The camera's motion from frame to frame, with gaps closed and scene cuts marked. Step k leads from
// frame k to frame k + 1.
//
// A scene cut is a step that was not found although the earlier picture had enough to be followed,
// hardly any of which agreed on a motion, while the steps before and after it were found and
// are small (below a twentieth of the diagonal). A picture that is dark, blurred, covered or flashed
// is no cut: the steps into and out of it are both lost. Nor is a whip pan, which loses several steps
// or has large ones beside the lost one.
//
// A gap is one or more steps in a row that were not found and are no cut. Its steps are interpolated
// linearly between the speeds before and after it: a camera that pans goes on panning.
//
// Threads: owner only.
class MotionHistory {
  public:
    // Keeps the steps of `reach` frames on either side of a frame that is `reach` frames old, and at
    // least `kept` steps. Throws std::bad_alloc.
    MotionHistory(int width, int height, int reach, bool repairs, bool finds_cuts, int kept = 0);

    // Adds step k, one more than the last. One that no camera makes is as one that was not found.
    void add(std::int64_t k, const CameraStep& step);

    // Replaces step k, which was found, by what is known better, unless no camera makes that.
    void improve(std::int64_t k, const CameraPose& pose);

    // The camera's step from frame k to k + 1, with gaps closed.
    CameraPose step(std::int64_t k) const;

    bool was_found(std::int64_t k) const;    // step k was estimated, and is plausible
    bool is_cut(std::int64_t k) const;       // step k leads to another scene
    bool is_repaired(std::int64_t k) const;  // step k is part of a closed gap

    // The known frames of the scene of frame n, at most `reach` away: `first` up to but not
    // including `end`.
    struct Scene {
        std::int64_t first;
        std::int64_t end;
    };
    Scene scene_around(std::int64_t n) const;

    PictureCentre centre() const { return centre_; }

  private:
    struct Step {
        CameraPose pose;
        bool found;
        bool strange;  // see CameraStep
    };

    bool is_plausible(const CameraPose& pose) const;
    bool is_known(std::int64_t k) const;
    bool was_calm(std::int64_t k) const;
    const Step& at(std::int64_t k) const;
    bool speed_beside(std::int64_t k, int direction, CameraPose& speed) const;

    PictureCentre centre_;
    double calm_;  // longest shift of a step beside a cut, pixels
    int reach_;
    bool repairs_;
    bool finds_cuts_;
    std::int64_t steps_ = 0;  // one more than the last that was added
    std::vector<Step> ring_;  // step k in slot k mod size
};

}  // namespace videostabilizer
