// SPDX-License-Identifier: Apache-2.0

#include "path/steady_path.h"

#include <algorithm>

#include "path/frame_numbers.h"
#include "rolling_shutter/row_transforms.h"
#include "simplela/mat_util.h"

namespace videostabilizer {

namespace {

// Frames of the path before the one that is corrected: further ones do not matter to the spline.
constexpr std::int64_t PATH_BEFORE = 10;
// Steps after one that settle the path there: nearly, and for good.
constexpr std::int64_t SETTLING = 2;
constexpr std::int64_t SETTLED = 8;

// Steps that can be fitted again, the newest included.
constexpr int refitted_steps(int look_ahead) {
    return std::max(look_ahead, static_cast<int>(SETTLED)) + 1;
}

}  // namespace

SteadyPath::SteadyPath(const SteadyPathSettings& settings)
    : history_(settings.width, settings.height, settings.look_ahead, settings.repair_motions,
               settings.scene_cuts,
               refitted_steps(settings.look_ahead) + static_cast<int>(PATH_BEFORE)),
      guards_(settings.edge_guard),
      planner_({settings.width, settings.height, settings.look_ahead, settings.sigma,
                settings.crop_ratio, settings.crop_least, settings.crop_most}),
      crop_ratio_(settings.crop_ratio),
      camera_(static_cast<std::size_t>(settings.look_ahead) + 1),
      reaches_(camera_.size()),
      width_(settings.width),
      height_(settings.height) {
    if (settings.rolling_shutter && settings.edge_guard) {
        const int kept_steps = refitted_steps(settings.look_ahead);
        const int most_frames = kept_steps + static_cast<int>(PATH_BEFORE) + 1;
        shutter_.emplace(RollingShutterSettings{settings.width, settings.height,
                                                settings.estimates_readout, settings.readout,
                                                settings.columns, most_frames, kept_steps});
        path_newest_ = kept_steps + PATH_BEFORE - 1;
        around_.reserve(static_cast<std::size_t>(most_frames));
    }
}

void SteadyPath::add(std::int64_t k, const CameraStep& step, const std::vector<SeenPair>& pairs) {
    history_.add(k, step);
    if (shutter_) {
        shutter_->keep(k, pairs);
        improve_steps(k);
    }
}

void SteadyPath::change(const PathChange& change, double readout) {
    planner_.change(change);
    if (shutter_) {
        shutter_->aim(readout);
    }
}

// The first of at most so many frames before one that belong to its scene.
std::int64_t SteadyPath::path_start(std::int64_t frame, std::int64_t most) const {
    std::int64_t first = frame;
    while (first > 0 && frame - first < most && !history_.is_cut(first - 1)) {
        --first;
    }
    return first;
}

// Lays the path of the shutter over frames first .. end - 1, which have no cut between them.
void SteadyPath::lay_path(std::int64_t first, std::int64_t end) {
    around_.assign(1, CameraPose{});
    for (std::int64_t k = first; k + 1 < end; ++k) {
        around_.push_back(pose_after(around_.back(), history_.step(k)));
    }
    shutter_->lay_path(first, around_.data(), around_.size());
}

// The newest step is fitted with what is known so far, and again when the path goes on after it.
void SteadyPath::improve_steps(std::int64_t newest) {
    const std::int64_t first = path_start(newest, path_newest_);
    if (history_.is_cut(newest - 1)) {
        shutter_->begin_scene(newest);
    }
    lay_path(first, newest + 2);
    const bool all = shutter_->take_change();
    for (std::int64_t k = first; k <= newest; ++k) {
        const std::int64_t age = newest - k;
        if ((!all && age != 0 && age != SETTLING && age != SETTLED) || !history_.was_found(k)) {
            continue;
        }
        CameraPose step = history_.step(k);
        if (!shutter_->refit(k, step)) {
            continue;
        }
        // With a readout of 0 the step is right as it was found.
        if (shutter_->readout() != 0 || all || !shutter_->is_known()) {
            history_.improve(k, step);
        }
        if (age >= SETTLED) {
            shutter_->learn(k);
        }
    }
    shutter_->choose();
}

double SteadyPath::expected_shear() const {
    return shutter_ ? shutter_->usual_shear() / (has_columns() ? width_ : height_) : 0;
}

void SteadyPath::add_rows(PictureTransform& transform) const {
    transform.by_rows = 0;
    if (!bends_) {
        return;
    }
    constexpr int MOST_TRIALS = 8;
    constexpr double LESS = 0.7;
    LineMotion lines = lines_;
    for (int k = 0; k < MOST_TRIALS; ++k) {
        if (make_rows(lines, by_columns_, width_, height_, transform)) {
            return;
        }
        lines.scale(LESS);
    }
}

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
    Steadied steadied;
    steadied.repaired = history_.is_repaired(n - 1);
    steadied.scene_start = history_.is_cut(n - 1);
    steadied.crop = crop_ratio_;
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
    bends_ = shutter_ && shutter_->readout_of(n) != 0;
    if (bends_) {
        lay_path(path_start(n, PATH_BEFORE), end);
        for (std::int64_t k = n; k < end; ++k) {
            reaches_[static_cast<std::size_t>(k - n)] = shutter_->reach_of(k);
        }
    }
    const PlannedPose planned = planner_.plan(camera_.data(), static_cast<int>(end - n),
                                              bends_ ? reaches_.data() : nullptr);
    if (shutter_) {
        steadied.confidence = shutter_->confidence();
        if (bends_) {
            by_columns_ = shutter_->columns_of(n);
            steadied.readout = shutter_->readout_of(n);
            lines_ = shutter_->lines_of(n);
            lines_.scale(planned.line_share);
            const double x = by_columns_ ? 0.5 * (width_ - 1) : 0;
            const double y = by_columns_ ? 0 : 0.5 * (height_ - 1);
            const Similarity first = lines_.field(-0.5);
            const Similarity last = lines_.field(0.5);
            steadied.columns = by_columns_;
            steadied.first_line = {first.map_x(-x, -y), first.map_y(-x, -y)};
            steadied.last_line = {last.map_x(x, y), last.map_y(x, y)};
        }
    }
    motion_of_pose(planned.pose, history_.centre(), correction.data);
    steadied.guarded = planned.guarded;
    steadied.granted = planned.granted;
    steadied.crop = planned.crop;
    return steadied;
}

}  // namespace videostabilizer
