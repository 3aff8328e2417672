// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "camera_motion/seen_pair.h"
#include "camera_motion/similarity_consensus.h"
#include "motion/camera_pose.h"
#include "motion/similarity.h"
#include "rolling_shutter/line_motion.h"
#include "rolling_shutter/path_spline.h"
#include "rolling_shutter/readout_estimator.h"

namespace videostabilizer {

struct RollingShutterSettings {
    int width;       // of the pictures, pixels
    int height;      //
    bool automatic;  // the readout is estimated; else:
    // Share of the frame interval from the first line to the last, -1..1; negative: the last one
    // comes first.
    double readout;
    bool columns;     // lines are columns: the picture was turned
    int most_frames;  // that a path is laid over
    int kept_steps;   // that can be fitted again when more is known
};

// A sensor that is read line by line. With the readout r, line u of picture k, from -1/2 to 1/2, is exposed
// at k + r u, when the camera is where its continuous path has it. A pair of places in the pictures k
// and k + 1 tells where lines u and v see the same, so its displacement is that of the camera from one
// middle line to the next, and r (h(k, u) - h(k + 1, v)), where h is what the path makes in the time of
// one readout. Out of all pairs of a step, the step itself is fitted; out of all steps, r.
//
// After S. Baker, E. Bennett, S. B. Kang and R. Szeliski, "Removing rolling shutter wobble" (CVPR 2010), and
// P.-E. Forssen and E. Ringaby, "Rectifying rolling shutter video from hand-held devices" (CVPR 2010); the
// path here is known from later pictures as well, and shift, turn and zoom are seen, not rotations of a
// calibrated camera.
//
// Threads: owner only.
class RollingShutter {
  public:
    explicit RollingShutter(const RollingShutterSettings& settings);  // throws std::bad_alloc

    // Keeps what step k was found from.
    void keep(std::int64_t k, const std::vector<SeenPair>& pairs);

    // Lays the path over pictures first .. first + count - 1, whose poses are relative to one of them.
    void lay_path(std::int64_t first, const CameraPose* poses, std::size_t count);

    // Fits step k, which is `step` as far as is known, along the path. False if it was found from nothing
    // that was kept.
    bool refit(std::int64_t k, CameraPose& step);
    // Learns the readout from step k, which was fitted last, in place of what was learned from it before.
    void learn(std::int64_t k);
    // What is used from now on follows what has been learned.
    void choose();
    // Of one that is not estimated: it becomes another within some pictures.
    void aim(double readout) { settings_.readout = readout; }
    // Whether so much more is known of the readout that all steps are to be fitted again. Once.
    bool take_change();
    // Pictures from this one on may be of another camera.
    void begin_scene(std::int64_t picture);

    // What pictures of the newest scene are corrected for; 0: nothing.
    double readout() const { return in_use_; }
    bool by_columns() const { return columns_; }
    // The same of any picture. Those of earlier scenes keep what was known when the newest began.
    double readout_of(std::int64_t picture) const {
        return picture < scene_first_ ? earlier_readout_ : in_use_;
    }
    bool columns_of(std::int64_t picture) const {
        return picture < scene_first_ ? earlier_columns_ : columns_;
    }
    bool is_known() const { return known_; }  // the readout, be it 0
    double confidence() const;                // 0..1

    // How much further the last line of a picture may move than the first one, beyond what the step says,
    // pixels: what is usual along the path. 0 where it is known that there is no readout.
    double usual_shear() const;

    // Where the camera was at the lines of a picture on the path, for its readout.
    LineMotion lines_of(std::int64_t picture) const;
    // How far the lines of a picture are moved at the borders by that, pixels.
    LineReach reach_of(std::int64_t picture) const;

  private:
    bool fit_sightings(double usual_shear);
    double line_at(double x, double y, bool columns) const;
    Similarity field_at(double time, std::size_t index, double readout) const;
    LineMotion unit_lines(std::int64_t picture) const;
    ReadoutEvidence evidence_of(bool columns) const;

    RollingShutterSettings settings_;
    double pixel_;  // of a picture of 640
    PathSpline spline_;
    std::int64_t first_ = 0;  // picture of the path
    std::size_t count_ = 0;
    std::vector<CameraPose> poses_;
    struct Kept {
        std::int64_t step = -1;
        std::vector<SeenPair> pairs;
    };
    Kept& kept(std::int64_t k) { return kept_[static_cast<std::size_t>(k) % kept_.size()]; }
    std::vector<Kept> kept_;  // a ring
    SimilarityConsensus consensus_;

    // Of the step that was fitted last.
    std::vector<Sighting> sightings_;
    std::vector<SeenPair> fitted_;
    LineMotion from_, to_;  // per unit of readout
    Similarity change_{0, 0, 0, 0};
    double scatter_ = 0;

    ReadoutEstimator by_row_, by_column_;
    bool columns_;
    bool known_ = false;  // the readout, be it 0
    bool used_ = false;
    double in_use_ = 0;
    std::int64_t scene_first_ = 0;
    double earlier_readout_ = 0;  // of pictures before that
    bool earlier_columns_ = false;
    double told_ = 0;          // that take_change has told of
    bool told_known_ = false;  // likewise
};

}  // namespace videostabilizer
