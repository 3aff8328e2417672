// SPDX-License-Identifier: Apache-2.0

#include "rolling_shutter/rolling_shutter.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "motion/solve_positive.h"

namespace videostabilizer {

namespace {

constexpr std::size_t MOST_PAIRS = 256;

// Pixels of a picture of 640.
constexpr double GATE = 1.5;
constexpr double FLAT_SCATTER = 0.1;
constexpr double DEPTH_SCATTER = 0.2;

// Smaller readouts are looked at through this one: what a line is moved by is about proportional.
constexpr double LEAST_READOUT = 0.1;

// Until it is known: of the readout, and of the change from one step to the next, pixels of a picture of
// 640.
constexpr double UNKNOWN_READOUT = 0.5;
constexpr double UNKNOWN_CHANGE = 4;
constexpr double LEAST_CHANGE = 0.5;

// A readout is used from so many of its deviations on, and as long as it has so many; it is known to be none
// by its deviation.
constexpr double DISTINCT = 6;
constexpr double STILL_DISTINCT = 3;
constexpr double LARGEST_DEVIATION = 0.1;
constexpr double NO_READOUT = 0.03;  // smaller ones are as good as none
constexpr double SURE = 0.04;
constexpr double NOTICEABLE_CHANGE = 0.03;
constexpr double FASTEST_CHANGE = 0.1;  // from picture to picture
constexpr double MORE_DISTINCT = 1.5;   // of the other axis

bool is_finite(const SeenPair& p) {
    return std::isfinite(p.x) && std::isfinite(p.y) && std::isfinite(p.dx) && std::isfinite(p.dy) &&
           std::isfinite(p.vxx) && std::isfinite(p.vxy) && std::isfinite(p.vyy) &&
           std::isfinite(p.trust);
}

}  // namespace

RollingShutter::RollingShutter(const RollingShutterSettings& settings)
    : settings_(settings),
      pixel_(std::max(settings.width, settings.height) / 640.0),
      spline_(static_cast<std::size_t>(settings.most_frames)),
      kept_(static_cast<std::size_t>(settings.kept_steps)),
      columns_(settings.columns) {
    poses_.reserve(static_cast<std::size_t>(settings.most_frames));
    for (Kept& kept : kept_) {
        kept.pairs.reserve(MOST_PAIRS);
    }
    sightings_.reserve(MOST_PAIRS);
    fitted_.reserve(MOST_PAIRS);
    if (!settings.automatic) {
        known_ = told_known_ = true;
        in_use_ = settings.readout;
    }
}

void RollingShutter::keep(std::int64_t k, const std::vector<SeenPair>& pairs) {
    const auto count = static_cast<std::ptrdiff_t>(std::min(pairs.size(), MOST_PAIRS));
    kept(k).step = k;
    kept(k).pairs.clear();
    std::copy_if(pairs.begin(), pairs.begin() + count, std::back_inserter(kept(k).pairs),
                 is_finite);
}

void RollingShutter::lay_path(std::int64_t first, const CameraPose* poses, std::size_t count) {
    first_ = first;
    count_ = count;
    poses_.assign(poses, poses + count);
    spline_.fit(poses, count);
}

double RollingShutter::line_at(double x, double y, bool columns) const {
    return columns ? x / settings_.width : y / settings_.height;
}

// Where the camera was `time` after the index-th picture of the path, relative to where it was then, as
// displacements of positions, divided by the readout.
Similarity RollingShutter::field_at(double time, std::size_t index, double readout) const {
    const CameraPose pose =
        pose_seen_from(spline_.at(static_cast<double>(index) + time), poses_[index]);
    const double scale = std::exp(-pose.zoom);
    return {(scale * std::cos(pose.angle) - 1) / readout, scale * std::sin(pose.angle) / readout,
            pose.x / readout, pose.y / readout};
}

double RollingShutter::usual_shear() const {
    double readout = std::abs(in_use_);
    if (!known_) {
        readout = UNKNOWN_READOUT;
    }
    if (count_ < 3) {
        return readout * UNKNOWN_CHANGE * pixel_;
    }
    double square = 0;
    for (std::size_t k = 1; k + 1 < count_; ++k) {
        const double x = poses_[k + 1].x - 2 * poses_[k].x + poses_[k - 1].x;
        const double y = poses_[k + 1].y - 2 * poses_[k].y + poses_[k - 1].y;
        square += x * x + y * y;
    }
    return readout * (std::sqrt(square / static_cast<double>(count_ - 2)) + LEAST_CHANGE * pixel_);
}

LineMotion RollingShutter::unit_lines(std::int64_t picture) const {
    const double in_use = readout_of(picture);
    const double readout = std::copysign(std::max(std::abs(in_use), LEAST_READOUT), in_use);
    const auto index = static_cast<std::size_t>(picture - first_);
    LineMotion lines;
    for (std::size_t node = 0; node < LineMotion::NODES; ++node) {
        lines.nodes[node] = field_at(readout * LineMotion::line_of(node), index, readout);
    }
    return lines;
}

LineMotion RollingShutter::lines_of(std::int64_t picture) const {
    LineMotion lines = unit_lines(picture);
    lines.scale(readout_of(picture));
    return lines;
}

// Fits the step to the sightings, with a shear that usually is as large as this, pixels between the outer lines.
bool RollingShutter::fit_sightings(double usual_shear) {
    const ConsensusSettings settings = {0, GATE * pixel_, FLAT_SCATTER * pixel_, 0};
    LineShear shear;
    shear.by_columns = columns_;
    shear.deviation = usual_shear / (columns_ ? settings_.width : settings_.height);
    const bool fitted =
        consensus_.refine(sightings_, {1, 0, 0, 0}, settings, change_, shear, scatter_);
    if (!fitted) {
        sightings_.clear();
    }
    return fitted;
}

bool RollingShutter::refit(std::int64_t k, CameraPose& step) {
    if (kept(k).step != k || kept(k).pairs.empty() || k < first_ ||
        k + 1 >= first_ + static_cast<std::int64_t>(count_)) {
        return false;
    }
    from_ = unit_lines(k);
    to_ = unit_lines(k + 1);
    sightings_.clear();
    fitted_ = kept(k).pairs;
    for (const SeenPair& pair : fitted_) {
        const double x = static_cast<double>(pair.x);
        const double y = static_cast<double>(pair.y);
        const double to_x = x + static_cast<double>(pair.dx);
        const double to_y = y + static_cast<double>(pair.dy);
        const Similarity p = from_.field(line_at(x, y, columns_));
        const Similarity q = to_.field(line_at(to_x, to_y, columns_));
        Sighting s;
        s.x = x + in_use_ * p.map_x(x, y);
        s.y = y + in_use_ * p.map_y(x, y);
        s.dx = to_x + in_use_ * q.map_x(to_x, to_y) - s.x;
        s.dy = to_y + in_use_ * q.map_y(to_x, to_y) - s.y;
        s.vxx = static_cast<double>(pair.vxx);
        s.vxy = static_cast<double>(pair.vxy);
        s.vyy = static_cast<double>(pair.vyy);
        s.trust = static_cast<double>(pair.trust);
        s.counts = true;
        sightings_.push_back(s);
    }
    change_ = similarity_of_step(step) - Similarity{1, 0, 0, 0};
    if (!fit_sightings(0)) {
        return false;
    }
    step = step_of_similarity(Similarity{1, 0, 0, 0} + change_);
    return true;
}

// The normal equations of the last fit with the readout and the parallax beside it, the step eliminated.
ReadoutEvidence RollingShutter::evidence_of(bool columns) const {
    constexpr std::size_t STEP = 4;
    constexpr std::size_t ALL = STEP + ReadoutEvidence::UNKNOWNS;
    double m[ALL][ALL + 1] = {};
    // Depth in the scene bends a motion by some tenths of a pixel, however well places are seen.
    const double least = DEPTH_SCATTER * pixel_;
    const double variance = std::max(scatter_ * scatter_, least * least);
    for (std::size_t i = 0; i < sightings_.size(); ++i) {
        const Sighting& s = sightings_[i];
        if (!(s.agreement > 0)) {
            continue;
        }
        const double x = static_cast<double>(fitted_[i].x);
        const double y = static_cast<double>(fitted_[i].y);
        const double to_x = x + static_cast<double>(fitted_[i].dx);
        const double to_y = y + static_cast<double>(fitted_[i].dy);
        const auto effect = [&](bool by_columns) {
            const Similarity p = from_.field(line_at(x, y, by_columns));
            const Similarity q = to_.field(line_at(to_x, to_y, by_columns));
            return std::array<double, 2>{p.map_x(x, y) - q.map_x(to_x, to_y),
                                         p.map_y(x, y) - q.map_y(to_x, to_y)};
        };
        const std::array<double, 2> used = effect(columns_);
        const std::array<double, 2> e = columns == columns_ ? used : effect(columns);
        const double line = line_at(x, y, columns);
        // What is seen beyond the step, the readout in use put back in.
        const double rest_x = s.dx - change_.map_x(s.x, s.y) + in_use_ * used[0];
        const double rest_y = s.dy - change_.map_y(s.x, s.y) + in_use_ * used[1];
        const double in_x[ALL + 1] = {s.x, -s.y, 1, 0, e[0], line * change_.c, 0, rest_x};
        const double in_y[ALL + 1] = {s.y, s.x, 0, 1, e[1], 0, line * change_.d, rest_y};
        const double vxx = variance + s.vxx;
        const double vyy = variance + s.vyy;
        const double determinant = vxx * vyy - s.vxy * s.vxy;
        const double share = s.trust * s.agreement / determinant;
        for (std::size_t r = 0; r < ALL; ++r) {
            const double by_x = share * (in_x[r] * vyy - in_y[r] * s.vxy);
            const double by_y = share * (in_y[r] * vxx - in_x[r] * s.vxy);
            for (std::size_t c = r; c <= ALL; ++c) {
                m[r][c] += by_x * in_x[c] + by_y * in_y[c];
            }
        }
    }
    ReadoutEvidence evidence;
    for (std::size_t k = 0; k < STEP; ++k) {
        if (!(m[k][k] > 0)) {
            return evidence;
        }
        for (std::size_t r = k + 1; r < ALL; ++r) {
            const double factor = m[k][r] / m[k][k];
            for (std::size_t c = r; c <= ALL; ++c) {
                m[r][c] -= factor * m[k][c];
            }
        }
    }
    for (std::size_t r = 0; r < ReadoutEvidence::UNKNOWNS; ++r) {
        for (std::size_t c = r; c <= ReadoutEvidence::UNKNOWNS; ++c) {
            evidence.m[r][c] = m[STEP + r][STEP + c];
        }
    }
    return evidence;
}

void RollingShutter::learn(std::int64_t k) {
    if (!settings_.automatic || sightings_.empty()) {
        return;
    }
    // Until the readout is known, lines may be anywhere where one would have them.
    if (!known_ && !fit_sightings(usual_shear())) {
        return;
    }
    by_row_.add(k, evidence_of(false));
    by_column_.add(k, evidence_of(true));
}

void RollingShutter::choose() {
    if (!settings_.automatic) {
        in_use_ += std::clamp(settings_.readout - in_use_, -FASTEST_CHANGE, FASTEST_CHANGE);
        return;
    }
    const auto distinct = [](const ReadoutEstimator& e) {
        return std::abs(e.readout()) / e.deviation();
    };
    const double other = distinct(columns_ ? by_row_ : by_column_);
    if (in_use_ == 0 && other > MORE_DISTINCT * distinct(columns_ ? by_column_ : by_row_)) {
        columns_ = !columns_;
    }
    const ReadoutEstimator& e = columns_ ? by_column_ : by_row_;
    const double enough = (used_ ? STILL_DISTINCT : DISTINCT) * few_steps_factor(e.steps());
    const bool is_narrow = e.deviation() < LARGEST_DEVIATION;
    const bool usable = is_narrow && distinct(e) > enough && std::abs(e.readout()) > NO_READOUT;
    used_ = usable;
    known_ = usable || e.deviation() < SURE;
    const double goal = usable ? e.readout() : 0;
    in_use_ += std::clamp(goal - in_use_, -FASTEST_CHANGE, FASTEST_CHANGE);
}

bool RollingShutter::take_change() {
    const bool changed = std::abs(in_use_ - told_) > NOTICEABLE_CHANGE || (known_ && !told_known_);
    told_ = changed ? in_use_ : told_;
    told_known_ = known_;
    return changed;
}

void RollingShutter::begin_scene(std::int64_t picture) {
    scene_first_ = picture;
    earlier_readout_ = in_use_;
    earlier_columns_ = columns_;
    by_row_.begin_scene();
    by_column_.begin_scene();
}

double RollingShutter::confidence() const {
    if (!settings_.automatic) {
        return 1;
    }
    const double deviation = (columns_ ? by_column_ : by_row_).deviation();
    return 1 / (1 + deviation * deviation / (SURE * SURE));
}

LineReach RollingShutter::reach_of(std::int64_t picture) const {
    LineReach reach;
    const double readout = readout_of(picture);
    const bool columns = columns_of(picture);
    if (readout == 0) {
        return reach;
    }
    const auto index = static_cast<std::size_t>(picture - first_);
    const double half_width = 0.5 * (settings_.width - 1);
    const double half_height = 0.5 * (settings_.height - 1);
    for (const double line : {-0.5, -0.25, 0.25, 0.5}) {
        const Similarity field = field_at(readout * line, index, 1);
        for (const double side : {-1.0, 1.0}) {
            const double x = columns ? 2 * half_width * line : side * half_width;
            const double y = columns ? side * half_height : 2 * half_height * line;
            reach.x = std::max(reach.x, std::abs(field.map_x(x, y)));
            reach.y = std::max(reach.y, std::abs(field.map_y(x, y)));
        }
    }
    return reach;
}

}  // namespace videostabilizer
