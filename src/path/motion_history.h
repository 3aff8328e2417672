#pragma once

#include <cstddef>
#include <vector>

#include "motion/camera_pose.h"
#include "videostabilizer/ransac.h"

namespace videostabilizer {

// The movement of the camera from frame to frame as far as it is known, with the gaps closed and
// the scene cuts marked. Frames count from 0; step k leads from frame k to frame k + 1.
//
// A scene cut is a step whose motion was not found although the earlier picture had corners enough
// to follow (24), of which less than a tenth moved in any common way, while the steps right before
// and after it were found and are calm (below a twentieth of the diagonal). A picture that is dark,
// blurred, covered or flashed for a moment is not: it spoils the step into it and the one out of it.
// Nor is a whip pan, which blurs several, or has fast ones beside the one that was lost.
//
// A gap, one or more steps in a row that were not found and are no cut, is taken to be crossed at a
// speed that changes evenly from that before to that behind. So a camera that pans goes on panning,
// and one that stands keeps still.
//
// Threads: one at a time.
class MotionHistory {
  public:
    // Remembers the steps of `reach` frames on either side of the one that is asked for last.
    // Throws std::bad_alloc.
    MotionHistory(int width, int height, int reach, bool repairs, bool finds_cuts);

    // The motion from the newest frame to one more: as estimated, with `corners` that there were in
    // the earlier picture. The first call adds frames 0 and 1. Returns the step for its refinement,
    // or null when there is none.
    CameraPose* add(const float motion[9], const MotionLog& log, std::size_t corners);

    // The camera's step from frame k to k + 1; closed gaps included.
    CameraPose step(int k) const;

    bool is_cut(int k) const;       // step k leads to another scene
    bool is_repaired(int k) const;  // step k is part of a gap that was closed

    // The frames around n that its scene is known to have: from `first` up to and excluding `end`,
    // at most `reach` frames away.
    struct Scene {
        int first;
        int end;
    };
    Scene scene_around(int n) const;

    PictureCentre centre() const { return centre_; }

  private:
    struct Step {
        CameraPose pose;
        bool found;
        bool strange;  // the pictures have next to nothing in common
    };

    bool is_known(int k) const;
    bool was_found(int k) const;
    bool was_calm(int k) const;
    const Step& at(int k) const;
    bool speed_beside(int k, int direction, CameraPose& speed) const;

    PictureCentre centre_;
    double calm_;  // longest shift of a step beside a cut, pixels
    int reach_;
    bool repairs_;
    bool finds_cuts_;
    int steps_ = 0;           // added so far
    std::vector<Step> ring_;  // step k in slot k mod size
};

}  // namespace videostabilizer
