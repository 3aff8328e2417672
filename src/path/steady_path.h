#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "motion/direct_alignment.h"
#include "motion/motion_history.h"
#include "motion/path_planner.h"
#include "motion/similarity_fit.h"
#include "videostabilizer/gaussian_motion_filter.h"
#include "videostabilizer/mat.h"
#include "videostabilizer/ransac.h"
#include "videostabilizer/stabilizer_options.h"

namespace videostabilizer {

// How a frame's correction came about.
struct Steadied {
    bool guarded;      // see PlannedPose
    double granted;    //
    bool repaired;     // the step to the frame was made up
    bool scene_start;  // the frame is the first of its scene
};

// What options other than the defaults add to the Gaussian filter: repaired motions, scene cuts,
// and, with the edge guard, a planner in the filter's place.
//
// Threads: one at a time.
class SteadyPath {
  public:
    // Whether these options need any of it.
    static bool is_needed(const VideoStabilizerOptions& options);

    // Complete options; sigma: of the filter in use; scale: decimation of the analysis. Throws
    // std::bad_alloc.
    SteadyPath(const VideoStabilizerOptions& options, double sigma, int scale);

    // Takes what MotionHistory::add takes, the pairs that the motion was estimated from, and the
    // two pictures, which are read during the call only.
    void add(const float motion[9], const MotionLog& log, std::size_t corners,
             const std::vector<KeyPoint>& from, const std::vector<KeyPoint>& to,
             const LumaPair& pictures);

    // Writes the correcting transform of frame n, before the crop. Frames come in order, each once.
    // `motions` and `logs` are the ring that the filter works on; gaps in it are closed. `newest`
    // is the newest frame.
    Steadied correct(int n, int newest, GaussianMotionFilter* filter,
                     std::vector<SimpleLA::Mat<float>*>& motions, std::vector<MotionLog>& logs,
                     SimpleLA::Mat<float>& correction);

  private:
    void filter_motions(int n, int newest, GaussianMotionFilter* filter,
                        std::vector<SimpleLA::Mat<float>*>& motions, std::vector<MotionLog>& logs,
                        SimpleLA::Mat<float>& correction) const;

    MotionHistory history_;
    SimilarityFit fit_;
    bool guards_;
    std::optional<DirectAlignment> alignment_;  // with the guard
    PathPlanner planner_;
    std::vector<CameraPose> camera_;  // scratch: the frames in sight, seen from the first
};

}  // namespace videostabilizer
