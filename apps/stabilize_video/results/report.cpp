#include "apps/stabilize_video/report.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <utility>

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

void ShakeReport::add(const FollowedFrame& point) {
    shaky_.add(point.shaky, frames_);
    steady_.add(point.steady, frames_);
    if (with_path_) {
        shaky_path_.push_back({point.shaky.x, point.shaky.y, point.shaky.angle});
        steady_path_.push_back({point.steady.x, point.steady.y, point.steady.angle});
    }
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
    if (point.report.scene_start != 0 && frames_ > 0) ++scene_starts_;
    if (point.report.repaired != 0) ++repaired_;
    ++frames_;
}

double ShakeReport::mean_track_ratio() const {
    const std::int64_t found = motions_ - failed_;
    return found > 0 ? track_ratios_ / static_cast<double>(found) : 0;
}

double ShakeReport::rms(const Track& track) const {
    return frames_ > 2 ? std::sqrt(track.squares / static_cast<double>(frames_ - 2)) : 0;
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

Shake ShakeReport::reduction(double frames_per_second) const {
    return reduction_db(shake_of(shaky_path_, frames_per_second),
                        shake_of(steady_path_, frames_per_second));
}

double ShakeReport::mean_granted() const {
    return guarded_ > 0 ? granted_ / static_cast<double>(guarded_) : 1;
}

namespace {

using Json = nlohmann::ordered_json;

// The library's own way from such a list to an object loses memory when there is no more of it.
Json object(std::initializer_list<std::pair<const char*, Json>> entries) {
    Json object = Json::object();
    for (const auto& [name, value] : entries) {
        object[name] = value;
    }
    return object;
}

}  // namespace

void write_json(ByteSink& sink, const ShakeReport& report, const JobFacts& facts) {
    const PictureFormat& format = facts.format;
    const double rate = format.frame_rate.num > 0 ? av_q2d(format.frame_rate) : 0;
    const StreamSeconds& seconds = facts.result.seconds;
    const auto frames = static_cast<double>(facts.result.frames);

    Json json = Json::object();
    json["input"] = facts.input;
    json["output"] = facts.output;
    json["width"] = format.width;
    json["height"] = format.height;
    json["frame_rate"] = rate;
    json["frames"] = facts.result.frames;
    json["input_complete"] = facts.damage.empty();
    if (!facts.damage.empty()) json["input_damage"] = facts.damage;
    json["strength"] = facts.strength;
    json["delay_frames"] = facts.options.look_ahead;
    json["delay_ms"] = rate > 0 ? Json(1000 * facts.options.look_ahead / rate) : Json();
    json["crop_ratio"] = static_cast<double>(facts.options.crop_ratio);
    json["mean_track_ratio"] = report.mean_track_ratio();
    json["failed_motions"] = report.failed_motions();
    json["repaired_motions"] = report.repaired();
    json["scene_cuts"] = report.scene_starts();
    json["shake"] = object({{"before_px_rms", report.shake_before()},
                            {"after_px_rms", report.shake_after()},
                            {"residual_db", report.residual_db()}});
    if (rate > 0) {
        const Shake reduction = report.reduction(rate);  // NaN becomes null
        json["reduction_db"] = object({{"jitter", reduction.jitter},
                                       {"rotation", reduction.rotation},
                                       {"fast_jitter", reduction.fast},
                                       {"change_of_speed", reduction.shake}});
    }
    json["edge_guard"] =
        object({{"frames", report.guarded()}, {"mean_granted", report.mean_granted()}});
    json["seconds"] = object({{"total", seconds.total},
                              {"reading_and_decoding", seconds.reading},
                              {"waiting_to_push", seconds.pushing},
                              {"waiting_to_pop", seconds.popping},
                              {"encoding_and_writing", seconds.writing}});
    json["frames_per_second"] = seconds.total > 0 ? frames / seconds.total : 0;
    json["notes"] = facts.notes;
    // Names of files may be any bytes.
    const std::string text = json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
    sink.write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

}  // namespace apps
