// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "camera_motion/camera_step.h"
#include "path/motion_history.h"
#include "path/path_planner.h"
#include "videostabilizer/gaussian_motion_filter.h"
#include "videostabilizer/mat.h"
#include "videostabilizer/ransac.h"

namespace videostabilizer {

// How a frame's correction came about.
struct Steadied {
    bool guarded;      // see PlannedPose
    double granted;    //
    bool repaired;     // the step to the frame was interpolated
    bool scene_start;  // the frame is the first of its scene
    double crop;       // part of the width and height that is shown
};

struct SteadyPathSettings {
    int width;            // picture size, pixels
    int height;           //
    int look_ahead;       // later frames known when a frame is corrected
    double sigma;         // of the smoothing, frames
    double crop_ratio;    // part of the width and height that is shown, 0.5..1
    double crop_least;    // its bounds, where the crop adapts; else 0
    double crop_most;     //
    bool edge_guard;      // PathPlanner replaces the filter
    bool repair_motions;  // gaps in the motion are closed
    bool scene_cuts;      // the smoothing stops at scene cuts

    // All off: the filter alone is enough.
    bool is_plain() const { return !edge_guard && !repair_motions && !scene_cuts; }
};

// The corrections beyond the plain Gaussian filter: with repaired motions, scene cuts, and the edge
// guard's planner in the filter's place.
//
// Threads: owner only.
class SteadyPath {
  public:
    explicit SteadyPath(const SteadyPathSettings& settings);  // throws std::bad_alloc

    // Adds step k, one more than the last.
    void add(std::int64_t k, const CameraStep& step) { history_.add(k, step); }

    // Writes the correcting transform of frame n, before the crop. Frames come in order, each once;
    // `newest` is the newest that was added. `motions` and `logs` are the ring that the filter works
    // on; afterwards it holds the step to frame n as this correction used it.
    Steadied correct(std::int64_t n, std::int64_t newest, GaussianMotionFilter* filter,
                     std::vector<SimpleLA::Mat<float>*>& motions, std::vector<MotionLog>& logs,
                     SimpleLA::Mat<float>& correction);

  private:
    void store_step(std::int64_t k, std::vector<SimpleLA::Mat<float>*>& motions,
                    std::vector<MotionLog>& logs) const;
    void filter_motions(std::int64_t n, std::int64_t newest, GaussianMotionFilter* filter,
                        std::vector<SimpleLA::Mat<float>*>& motions, std::vector<MotionLog>& logs,
                        SimpleLA::Mat<float>& correction) const;

    MotionHistory history_;
    bool guards_;
    PathPlanner planner_;
    double crop_ratio_;
    std::vector<CameraPose>
        camera_;  // scratch: poses of the look-ahead, relative to its first frame
};

}  // namespace videostabilizer
