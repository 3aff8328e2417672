// SPDX-License-Identifier: Apache-2.0

#include "path/steady_path.h"

#include <algorithm>

#include "path/frame_numbers.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

SteadyPath::SteadyPath(const SteadyPathSettings& settings)
    : history_(settings.width, settings.height, settings.look_ahead, settings.repair_motions,
               settings.scene_cuts),
      guards_(settings.edge_guard),
      planner_({settings.width, settings.height, settings.look_ahead, settings.sigma,
                settings.crop_ratio, settings.crop_least, settings.crop_most}),
      crop_ratio_(settings.crop_ratio),
      camera_(static_cast<std::size_t>(settings.look_ahead) + 1) {}

// Puts step k, as it is known here, into the ring that the filter and the observer read.
void SteadyPath::store_step(std::int64_t k, std::vector<SimpleLA::Mat<float>*>& motions,
                            std::vector<MotionLog>& logs) const {
    const std::size_t slot = ring_slot(k, motions.size());
    motion_of_pose(history_.step(k), history_.centre(), motions[slot]->data);
    logs[slot].status = history_.is_repaired(k) ? 2 : (history_.was_found(k) ? 0 : 1);
}

void SteadyPath::filter_motions(std::int64_t n, std::int64_t newest, GaussianMotionFilter* filter,
                                std::vector<SimpleLA::Mat<float>*>& motions,
                                std::vector<MotionLog>& logs,
                                SimpleLA::Mat<float>& correction) const {
    const MotionHistory::Scene scene = history_.scene_around(n);
    for (std::int64_t k = scene.first; k + 1 < scene.end; ++k) {
        if (history_.is_repaired(k)) {
            store_step(k, motions, logs);
        }
    }
    filter_frame(filter, correction, n, motions, logs, scene.first, std::min(scene.end, newest));
}

Steadied SteadyPath::correct(std::int64_t n, std::int64_t newest, GaussianMotionFilter* filter,
                             std::vector<SimpleLA::Mat<float>*>& motions,
                             std::vector<MotionLog>& logs, SimpleLA::Mat<float>& correction) {
    Steadied steadied{false, 1, history_.is_repaired(n - 1), history_.is_cut(n - 1), crop_ratio_};
    if (!guards_) {
        filter_motions(n, newest, filter, motions, logs, correction);
        return steadied;
    }

    if (n > 0) {
        store_step(n - 1, motions, logs);
    }
    if (steadied.scene_start) {
        planner_.begin_scene();
    } else if (n > 0) {
        planner_.advance(history_.step(n - 1));
    }
    const std::int64_t end = history_.scene_around(n).end;
    camera_[0] = {};
    for (std::int64_t k = n + 1; k < end; ++k) {
        const auto index = static_cast<std::size_t>(k - n);
        camera_[index] = pose_after(camera_[index - 1], history_.step(k - 1));
    }
    const PlannedPose planned = planner_.plan(camera_.data(), static_cast<int>(end - n));
    motion_of_pose(planned.pose, history_.centre(), correction.data);
    steadied.guarded = planned.guarded;
    steadied.granted = planned.granted;
    steadied.crop = planned.crop;
    return steadied;
}

}  // namespace videostabilizer
