// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/results/report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "apps/stabilize_video/pictures/pixel_formats.h"

namespace apps {

void ShakeReport::Track::add(const CameraView& view, std::int64_t frames) {
    if (frames >= 2) {
        const double dx = view.x - 2 * x[1] + x[0];
        const double dy = view.y - 2 * y[1] + y[0];
        squares += dx * dx + dy * dy;
    }
    x[0] = x[1];
    y[0] = y[1];
    x[1] = view.x;
    y[1] = view.y;
}

void ShakeReport::add(const FollowedFrame& point) noexcept {
    shaky_.add(point.shaky, frames_);
    steady_.add(point.steady, frames_);
    if (frames_ > 0) {
        ++motions_;
        if (point.log.status != 0) {
            ++failed_;
        } else {
            track_ratios_ += static_cast<double>(point.log.track_ratio);
        }
    }
    if (point.report.guarded != 0) {
        ++guarded_;
        granted_ += static_cast<double>(point.report.granted);
    }
    if (point.report.scene_start != 0 && frames_ > 0) {
        ++scene_starts_;
    }
    if (point.report.repaired != 0) {
        ++repaired_;
    }
    const double crop = static_cast<double>(point.report.crop);
    crops_ += crop;
    least_crop_ = std::min(least_crop_, crop);
    most_crop_ = std::max(most_crop_, crop);
    unbent_ += std::abs(point.report.readout) > 0 ? 1 : 0;
    last_ = point.report;
    ++frames_;
}

double ShakeReport::mean_track_ratio() const {
    const std::int64_t found = motions_ - failed_;
    return found > 0 ? track_ratios_ / static_cast<double>(found) : 0;
}

bool ShakeReport::is_measured() const {
    return frames_ > 2 && 2 * failed_ < motions_;
}

double ShakeReport::rms(const Track& track) const {
    return is_measured() ? std::sqrt(track.squares / static_cast<double>(frames_ - 2))
                         : std::numeric_limits<double>::quiet_NaN();
}

double ShakeReport::shake_before() const {
    return rms(shaky_);
}

double ShakeReport::shake_after() const {
    return rms(steady_);
}

double ShakeReport::residual_db() const {
    constexpr double NOTHING = 1e-6;  // pixels
    return 20 * std::log10(std::max(shake_after(), NOTHING) / std::max(shake_before(), NOTHING));
}

std::string ShakeReport::shake_text() const {
    if (!is_measured()) {
        return "shake not found";
    }
    char text[96];
    std::snprintf(text, sizeof text, "shake %.2f pixels before, %.2f after", shake_before(),
                  shake_after());
    return text;
}

std::string ShakeReport::lost_note() const {
    constexpr std::int64_t MANY = 10;  // more than one in so many
    if (MANY * failed_ <= motions_) {
        return "";
    }
    if (failed_ == motions_) {
        return "no motion was found in the pictures; they are cropped, and not stabilised";
    }
    return "the motion was not found in " + std::to_string(failed_) + " of " +
           std::to_string(motions_) + " frames; there the steady pictures may move";
}

double ShakeReport::mean_granted() const {
    return guarded_ > 0 ? granted_ / static_cast<double>(guarded_) : 1;
}

void PathRecord::add(const FollowedFrame& point) {
    shaky_.push_back({point.shaky.x, point.shaky.y, point.shaky.angle});
    steady_.push_back({point.steady.x, point.steady.y, point.steady.angle});
}

synthetic::Shake PathRecord::reduction(double frames_per_second) const {
    return synthetic::reduction_db(synthetic::shake_of(shaky_, frames_per_second),
                                   synthetic::shake_of(steady_, frames_per_second));
}

namespace {

using Json = nlohmann::json;

// File names may hold any bytes.
std::string text_of(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Text of an object, entry by entry. Objects of the JSON library allocate in their destructors, which
// ends the program when memory runs out.
class JsonObject {
  public:
    explicit JsonObject(int depth) : indent_(static_cast<std::size_t>(2 * depth), ' ') {}

    // `value` is a number, a string, a bool or null; NaN becomes null.
    void add(const char* name, const Json& value) { add_text(name, text_of(value)); }
    void add(const char* name, const JsonObject& object) { add_text(name, object.text()); }
    void add(const char* name, const std::vector<std::string>& strings) {
        std::string text;
        for (const std::string& string : strings) {
            text += (text.empty() ? "" : ", ") + text_of(string);
        }
        add_text(name, "[" + text + "]");
    }

    std::string text() const { return "{\n" + entries_ + "\n" + indent_ + "}"; }

  private:
    void add_text(const char* name, const std::string& text) {
        entries_ += (entries_.empty() ? "" : ",\n") + indent_ + "  \"" + name + "\": " + text;
    }

    std::string indent_;
    std::string entries_;
};

void add_shake(JsonObject& json, const ShakeReport& report, const PathRecord& path, double rate) {
    json.add("motion_found", report.is_measured());
    JsonObject shake(1);
    shake.add("before_px_rms", report.shake_before());
    shake.add("after_px_rms", report.shake_after());
    shake.add("residual_db", report.residual_db());
    json.add("shake", shake);
    if (rate > 0) {
        constexpr double NONE = std::numeric_limits<double>::quiet_NaN();
        const synthetic::Shake db =
            report.is_measured() ? path.reduction(rate) : synthetic::Shake{NONE, NONE, NONE, NONE};
        JsonObject reduction(1);
        reduction.add("jitter", db.jitter);
        reduction.add("rotation", db.rotation);
        reduction.add("fast_jitter", db.fast);
        reduction.add("change_of_speed", db.shake);
        json.add("reduction_db", reduction);
    }
    JsonObject guard(1);
    guard.add("frames", report.guarded());
    guard.add("mean_granted", report.mean_granted());
    json.add("edge_guard", guard);
}

void add_seconds(JsonObject& json, const StreamSeconds& seconds, std::int64_t frames) {
    JsonObject times(1);
    times.add("total", seconds.total);
    times.add("reading_and_decoding", seconds.reading);
    times.add("waiting_to_push", seconds.pushing);
    times.add("waiting_to_pop", seconds.popping);
    times.add("encoding_and_writing", seconds.writing);
    json.add("seconds", times);
    json.add("frames_per_second",
             seconds.total > 0 ? static_cast<double>(frames) / seconds.total : 0);
}

}  // namespace

void write_json(video_io::ByteSink& sink, const ShakeReport& report, const PathRecord& path,
                const JobFacts& facts) {
    const PictureFormat& format = facts.format;
    const double rate = format.frame_rate.num > 0 ? av_q2d(format.frame_rate) : 0;
    JsonObject json(0);
    json.add("input", facts.input);
    json.add("output", facts.output);
    json.add("width", format.width);
    json.add("height", format.height);
    json.add("frame_rate", rate);
    json.add("frames", facts.frames);
    json.add("input_complete", facts.damage.empty());
    if (!facts.damage.empty()) {
        json.add("input_damage", facts.damage);
    }
    json.add("strength", facts.strength);
    json.add("delay_frames", facts.options.look_ahead);
    json.add("delay_ms", rate > 0 ? Json(1000 * facts.options.look_ahead / rate) : Json());
    json.add("pixel_format", name_of(format.pixel_format));
    json.add("engine", facts.options.engine == videostabilizer::STABILIZER_ENGINE_OPENCL
                           ? "opencl"
                           : "native");
    constexpr const char* SAMPLINGS[] = {"stated", "bilinear", "sharp"};
    json.add("sampling", SAMPLINGS[facts.options.sampling]);
    json.add("crop_ratio", static_cast<double>(facts.options.crop_ratio));
    JsonObject shown(1);
    shown.add("mean", report.mean_crop());
    shown.add("least", report.least_crop());
    shown.add("most", report.most_crop());
    json.add("crop_shown", shown);
    JsonObject shutter(1);
    shutter.add("readout", static_cast<double>(report.last().readout));
    shutter.add("lines", report.last().columns != 0 ? "columns" : "rows");
    shutter.add("confidence", static_cast<double>(report.last().readout_confidence));
    shutter.add("frames", report.unbent());
    json.add("rolling_shutter", shutter);
    json.add("mean_track_ratio", report.mean_track_ratio());
    json.add("failed_motions", report.failed_motions());
    json.add("repaired_motions", report.repaired());
    json.add("scene_cuts", report.scene_starts());
    add_shake(json, report, path, rate);
    add_seconds(json, facts.seconds, facts.frames);
    json.add("notes", facts.notes);
    const std::string text = json.text() + "\n";
    sink.write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

}  // namespace apps
