#include "motion/steady_path.h"

#include <algorithm>

#include "simplela/mat_util.h"

namespace videostabilizer {

bool SteadyPath::is_needed(const VideoStabilizerOptions& options) {
    return options.edge_guard != 0 || options.repair_motions != 0 || options.scene_cuts != 0;
}

SteadyPath::SteadyPath(const VideoStabilizerOptions& options, double sigma, int scale)
    : history_(options.picture_width, options.picture_height, options.look_ahead,
               options.repair_motions != 0, options.scene_cuts != 0),
      fit_(history_.centre(), scale),
      guards_(options.edge_guard != 0),
      planner_({options.picture_width, options.picture_height, options.look_ahead, sigma,
                static_cast<double>(options.crop_ratio)}),
      camera_(static_cast<std::size_t>(options.look_ahead) + 1) {
    if (guards_) {
        alignment_.emplace(options.picture_width, options.picture_height, scale);
    }
}

void SteadyPath::add(const float motion[9], const MotionLog& log, std::size_t corners,
                     const std::vector<KeyPoint>& from, const std::vector<KeyPoint>& to,
                     const LumaPair& pictures) {
    CameraPose* const step = history_.add(motion, log, corners);
    if (step != nullptr) {
        fit_.refine(from, to, *step);
        if (alignment_) {
            alignment_->refine(pictures, from, to, *step);
        }
    }
}

void SteadyPath::filter_motions(int n, int newest, GaussianMotionFilter* filter,
                                std::vector<SimpleLA::Mat<float>*>& motions,
                                std::vector<MotionLog>& logs,
                                SimpleLA::Mat<float>& correction) const {
    const MotionHistory::Scene scene = history_.scene_around(n);
    for (int k = scene.first; k + 1 < scene.end; ++k) {
        if (history_.is_repaired(k)) {
            const std::size_t slot = static_cast<std::size_t>(k) % motions.size();
            motion_of_pose(history_.step(k), history_.centre(), motions[slot]->data);
            logs[slot].status = 2;
        }
    }
    gaussian_motion_filter_stabilize(filter, correction, n, motions, logs, scene.first,
                                     std::min(scene.end, newest));
}

Steadied SteadyPath::correct(int n, int newest, GaussianMotionFilter* filter,
                             std::vector<SimpleLA::Mat<float>*>& motions,
                             std::vector<MotionLog>& logs, SimpleLA::Mat<float>& correction) {
    Steadied steadied{false, 1, history_.is_repaired(n - 1), history_.is_cut(n - 1)};
    if (!guards_) {
        filter_motions(n, newest, filter, motions, logs, correction);
        return steadied;
    }

    if (steadied.scene_start) {
        planner_.begin_scene();
    } else if (n > 0) {
        planner_.advance(history_.step(n - 1));
    }
    const int end = history_.scene_around(n).end;
    camera_[0] = {};
    for (int k = n + 1; k < end; ++k) {
        const auto index = static_cast<std::size_t>(k - n);
        camera_[index] = pose_after(camera_[index - 1], history_.step(k - 1));
    }
    const PlannedPose planned = planner_.plan(camera_.data(), end - n);
    motion_of_pose(planned.pose, history_.centre(), correction.data);
    steadied.guarded = planned.guarded;
    steadied.granted = planned.granted;
    return steadied;
}

}  // namespace videostabilizer
