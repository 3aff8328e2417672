// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "camera_motion/camera_step.h"
#include "path/motion_history.h"
#include "path/path_planner.h"
#include "rolling_shutter/rolling_shutter.h"
#include "simplela/picture_transform.h"
#include "videostabilizer/gaussian_motion_filter.h"
#include "videostabilizer/mat.h"
#include "videostabilizer/ransac.h"

namespace videostabilizer {

// How a frame's correction came about.
struct Steadied {
    bool guarded = false;      // see PlannedPose
    double granted = 1;        //
    bool repaired = false;     // the step to the frame was interpolated
    bool scene_start = false;  // the frame is the first of its scene
    double crop = 1;           // part of the width and height that is shown
    double readout = 0;        // that the frame is corrected for, share of the frame interval
    double confidence = 0;     // 0..1: in what is known of the readout
    bool columns = false;      // lines are columns
    // What the middle of the outermost lines is moved by, pixels right and down.
    std::array<double, 2> first_line{};
    std::array<double, 2> last_line{};
};

struct SteadyPathSettings {
    int width;             // picture size, pixels
    int height;            //
    int look_ahead;        // later frames known when a frame is corrected
    double sigma;          // of the smoothing, frames
    double crop_ratio;     // part of the width and height that is shown, 0.5..1
    double crop_least;     // its bounds, where the crop adapts; else 0
    double crop_most;      //
    bool edge_guard;       // PathPlanner replaces the filter
    bool repair_motions;   // gaps in the motion are closed
    bool scene_cuts;       // the smoothing stops at scene cuts
    bool rolling_shutter;  // lines are moved to where they had been without one; with edge_guard
    bool estimates_readout;
    double readout;  // if it is not estimated
    bool columns;    // likewise: lines are columns

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

    // Adds step k, one more than the last, and what it was found from.
    void add(std::int64_t k, const CameraStep& step, const std::vector<SeenPair>& pairs);

    // What CameraMotion is to expect in the next picture, pixels per line; see expect_shear.
    double expected_shear() const;
    bool has_columns() const { return shutter_ && shutter_->by_columns(); }

    // Of the frames from the next on that is corrected. Without edge guard it changes nothing.
    // readout: of a shutter that is not estimated.
    void change(const PathChange& change, double readout);

    // Writes the correcting transform of frame n, before the crop. Frames come in order, each once;
    // `newest` is the newest that was added. `motions` and `logs` are the ring that the filter works
    // on; afterwards it holds the step to frame n as this correction used it.
    Steadied correct(std::int64_t n, std::int64_t newest, GaussianMotionFilter* filter,
                     std::vector<SimpleLA::Mat<float>*>& motions, std::vector<MotionLog>& logs,
                     SimpleLA::Mat<float>& correction);

    // Fills in the rows of the transform of the frame that was corrected last, whose `whole` has the crop.
    void add_rows(PictureTransform& transform) const;

  private:
    std::int64_t path_start(std::int64_t frame, std::int64_t most) const;
    void lay_path(std::int64_t first, std::int64_t end);
    void improve_steps(std::int64_t newest);
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
    std::vector<LineReach> reaches_;  // likewise
    int width_, height_;
    std::optional<RollingShutter> shutter_;
    std::int64_t path_newest_ = 0;    // steps before the newest one that it is laid over
    std::vector<CameraPose> around_;  // scratch: poses that it lays its path over
    // Of the frame that was corrected last.
    bool bends_ = false;
    bool by_columns_ = false;
    LineMotion lines_;
};

}  // namespace videostabilizer
