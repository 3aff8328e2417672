// SPDX-License-Identifier: Apache-2.0

// step-errors: stabilises generated clips, whose true camera is known, and prints how far the motions
// are off, and how steady the result is.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/shaky_clip/clip_options.h"
#include "common/synthetic/scene.h"
#include "common/synthetic/shake_metrics.h"
#include "videostabilizer/log.h"
#include "videostabilizer/videostabilizer.h"

// In place of the library's: pairs and motions that are not found are what is counted here.
extern "C" int __android_log_print(int priority, const char* /*tag*/, const char* format, ...) {
    constexpr int ERROR = 6;
    if (priority < ERROR) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    return length;
}

namespace {

using namespace videostabilizer;
using synthetic::Affine;

constexpr double OFF_PIXELS = 0.5;  // a step that is further off at a corner is wrong

struct Options {
    std::string file = CLIPS_FILE;
    std::vector<std::string> names;  // of clips in the file; empty: all
    std::string clip;                // options of a clip in place of the file's
    int strength = STABILIZER_STRONG;
    int look_ahead = 0;  // 0: that of the strength
    int frames = 150;
    double crop = 0;  // 0: auto
    std::string shutter = "auto";
    bool csv = false;
    bool steps = false;
};

struct NamedClip {
    std::string name;
    std::string options;
};

// A motion from one frame to the next, as the library found it.
struct Step {
    Affine motion;
    MotionLog log{};
};

// What the library told about a stream.
struct Stream {
    std::vector<Step> steps;
    std::vector<Affine> origins;  // by frame: from steady to shaky, before the crop
    std::vector<VideoStabilizerReport> reports;
};

struct Result {
    int not_found = 0;
    int off = 0;         // of those found
    double worst = 0;    // likewise, pixels
    double high = 0;     // 95th percentile, likewise
    double bridged = 0;  // the furthest of those not found
    int cuts = 0;        // none of the clips has any
    double mean_crop = 0;
    double least_crop = 1;
    synthetic::Shake db;
    double early_readout = 0;  // used after two seconds
    double readout = 0;        // used in the end
    double lines_db = 0;       // reduction of the motion of the outer lines against each other
};

Affine affine(const float m[9]) {
    const auto at = [m](int i) { return static_cast<double>(m[i]); };
    return {at(0), at(1), at(2), at(3), at(4), at(5)};
}

Affine inverse(const Affine& m) {
    const double det = m.a * m.e - m.b * m.d;
    return {m.e / det,  -m.b / det, (m.b * m.f - m.c * m.e) / det,
            -m.d / det, m.a / det,  (m.c * m.d - m.a * m.f) / det};
}

// From options as shaky-clip takes them.
synthetic::ClipSettings parse_clip(const std::string& text) {
    synthetic::ClipOptions options;
    options.size = "640x360";
    CLI::App app;
    synthetic::add_clip_options(app, options);
    try {
        app.parse(text);
        synthetic::check_clip_options(options);
    } catch (const CLI::ParseError& error) {
        throw std::runtime_error("cannot use the clip '" + text + "': " + error.what());
    }
    const synthetic::CameraSettings& camera = options.settings.camera;
    if (camera.width % 2 != 0 || camera.height % 2 != 0) {
        throw std::runtime_error("odd sizes cannot be used: " + text);
    }
    return options.settings;
}

std::vector<NamedClip> read_clips(const Options& options) {
    if (!options.clip.empty()) {
        return {{options.clip, options.clip}};
    }
    std::ifstream file(options.file);
    if (!file) {
        throw std::runtime_error("cannot read " + options.file);
    }
    std::vector<NamedClip> clips;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t colon = line.find(':');
        NamedClip clip{line.substr(0, colon), ""};
        if (colon != std::string::npos) {
            clip.options = line.substr(colon + 1);
        }
        const auto& names = options.names;
        if (names.empty() || std::find(names.begin(), names.end(), clip.name) != names.end()) {
            clips.push_back(std::move(clip));
        }
    }
    return clips;
}

struct StabilizerDeleter {
    void operator()(VideoStabilizer* s) const { video_stabilizer_delete(s); }
};

VideoStabilizerOptions stabilizer_options(const Options& options) {
    VideoStabilizerOptions result;
    video_stabilizer_options_for_strength(&result,
                                          static_cast<VideoStabilizerStrength>(options.strength));
    if (options.look_ahead > 0) {
        result.look_ahead = options.look_ahead;
    }
    if (options.crop > 0) {
        result.crop_ratio = static_cast<float>(options.crop);
    } else {
        result.auto_crop = 1;
    }
    if (options.shutter == "off") {
        result.shutter = STABILIZER_SHUTTER_OFF;
    } else if (options.shutter != "auto") {
        result.shutter = STABILIZER_SHUTTER_ROWS;
        result.readout = std::stof(options.shutter);
    }
    result.engine = STABILIZER_ENGINE_NATIVE;
    result.sampling = STABILIZER_SAMPLING_BILINEAR;  // nobody looks at the pictures
    result.threads = 1;
    return result;
}

Stream stabilize(const synthetic::ShakyClip& clip, int frames,
                 const VideoStabilizerOptions& options) {
    const int width = clip.width();
    const int height = clip.height();
    const std::unique_ptr<VideoStabilizer, StabilizerDeleter> s(
        video_stabilizer_create_with_options(width, height, width, width / 2, PIX_FMT_YUV420P, 1,
                                             nullptr, &options));
    if (s == nullptr) {
        throw std::runtime_error("the stabilizer cannot be created");
    }
    Stream stream;
    VideoStabilizerObserver observer{};
    observer.ctx = &stream;
    observer.on_motion = [](void* ctx, std::int32_t, const float m[9], const MotionLog* log) {
        static_cast<Stream*>(ctx)->steps.push_back({affine(m), *log});
    };
    observer.on_correction = [](void* ctx, std::int32_t, const float m[9]) {
        static_cast<Stream*>(ctx)->origins.push_back(inverse(affine(m)));
    };
    observer.on_report = [](void* ctx, const VideoStabilizerReport* report) {
        static_cast<Stream*>(ctx)->reports.push_back(*report);
    };
    video_stabilizer_set_observer(s.get(), &observer);
    video_stabilizer_start(s.get());
    std::thread producer([&] {
        for (int i = 0; i < frames; ++i) {
            Frame* const frame =
                frame_create(width, height, width, width / 2, PIX_FMT_YUV420P, nullptr);
            unsigned char* const v = frame->plane_uv + width * height / 4;
            clip.render(i, {frame->plane_y, frame->plane_uv, v, width, width / 2});
            video_stabilizer_push_frame(s.get(), frame);
        }
        video_stabilizer_signal_eos(s.get());
    });
    Frame* frame = nullptr;
    while (video_stabilizer_pop_frame(s.get(), &frame) == RESULT_OK) {
        frame_delete(frame);
    }
    video_stabilizer_stop(s.get());
    producer.join();
    if (stream.reports.size() != static_cast<std::size_t>(frames)) {
        throw std::runtime_error("the stream ended early");
    }
    return stream;
}

// The greatest distance between where two motions take a corner of the picture, pixels.
double corner_error(const Affine& found, const Affine& truth, int width, int height) {
    double most = 0;
    for (const int x : {0, width - 1}) {
        for (const int y : {0, height - 1}) {
            most = std::max(most, std::hypot(found.map_x(x, y) - truth.map_x(x, y),
                                             found.map_y(x, y) - truth.map_y(x, y)));
        }
    }
    return most;
}

// Where the pictures look that are made of what the true camera saw: the view of the shaky picture's
// position that becomes the centre of the steady one.
std::vector<synthetic::PathPoint> true_path(const synthetic::ShakyClip& clip,
                                            const std::vector<Affine>& origins, double shift) {
    const double centre_x = 0.5 * clip.width();
    const double centre_y = 0.5 * clip.height();
    std::vector<synthetic::PathPoint> path;
    for (const Affine& back : origins) {
        const Affine view = synthetic::picture_to_scene(clip.pose(static_cast<int>(path.size())),
                                                        clip.width(), clip.height());
        const double x = centre_x + shift * (back.map_x(centre_x, centre_y) - centre_x);
        const double y = centre_y + shift * (back.map_y(centre_x, centre_y) - centre_y);
        path.push_back({view.map_x(x, y), view.map_y(x, y),
                        std::atan2(view.d - view.b, view.a + view.e) +
                            std::atan2(back.d - back.b, back.a + back.e)});
    }
    return path;
}

// Where the outermost line of a frame is seen against where it would be at once, pixels.
std::array<double, 2> true_line(const synthetic::ShakyClip& clip, int frame,
                                const synthetic::ShutterSettings& shutter, bool last) {
    const int width = clip.width();
    const int height = clip.height();
    const int lines = shutter.by_columns ? width : height;
    const double end = last ? lines - 1 : 0;
    const double x = shutter.by_columns ? end : 0.5 * (width - 1);
    const double y = shutter.by_columns ? 0.5 * (height - 1) : end;
    const Affine move = synthetic::true_motion(clip.pose(frame + shutter.line_time(end, lines)),
                                               clip.pose(frame), width, height);
    return {move.map_x(x, y) - x, move.map_y(x, y) - y};
}

// The motion of the outer lines against each other from frame to frame, before and after, dB.
double lines_reduction(const synthetic::ShakyClip& clip, const synthetic::ShutterSettings& shutter,
                       const std::vector<VideoStabilizerReport>& reports, std::size_t first) {
    double before = 0;
    double after = 0;
    std::array<double, 4> last{};
    for (std::size_t k = first; k < reports.size(); ++k) {
        const auto top = true_line(clip, static_cast<int>(k), shutter, false);
        const auto bottom = true_line(clip, static_cast<int>(k), shutter, true);
        std::array<double, 4> now{};
        for (std::size_t i = 0; i < 2; ++i) {
            now[i] = bottom[i] - top[i];
            now[2 + i] = now[i] - static_cast<double>(reports[k].last_line[i]) +
                         static_cast<double>(reports[k].first_line[i]);
        }
        for (std::size_t i = 0; i < 2 && k > first; ++i) {
            before += (now[i] - last[i]) * (now[i] - last[i]);
            after += (now[2 + i] - last[2 + i]) * (now[2 + i] - last[2 + i]);
        }
        last = now;
    }
    return before > 0 ? 10 * std::log10(before / after) : 0;
}

Result measure(const synthetic::ShakyClip& clip, const synthetic::ClipSettings& clip_settings,
               const Options& options) {
    const synthetic::CameraSettings& camera = clip_settings.camera;
    const VideoStabilizerOptions settings = stabilizer_options(options);
    const Stream stream = stabilize(clip, options.frames, settings);
    Result result;
    std::vector<double> errors;
    for (std::size_t i = 0; i < stream.steps.size(); ++i) {
        const Step& step = stream.steps[i];
        const int frame = static_cast<int>(i);
        const Affine truth = clip.motion(frame, frame + 1);
        const double error = corner_error(step.motion, truth, clip.width(), clip.height());
        const bool found = step.log.status == 0;
        if (found) {
            errors.push_back(error);
            result.off += error > OFF_PIXELS ? 1 : 0;
            result.worst = std::max(result.worst, error);
        } else {
            ++result.not_found;
            result.bridged = std::max(result.bridged, error);
        }
        if (options.steps && (!found || error > OFF_PIXELS)) {
            std::printf("  %d -> %d: %s, %.2f pixels off, %d of %d pairs; true shift %.1f, %.1f\n",
                        frame, frame + 1, found ? "found" : "not found", error, step.log.ninliers,
                        step.log.npoints,
                        truth.map_x(0.5 * clip.width(), 0.5 * clip.height()) - 0.5 * clip.width(),
                        truth.map_y(0.5 * clip.width(), 0.5 * clip.height()) - 0.5 * clip.height());
        }
    }
    if (!errors.empty()) {
        std::sort(errors.begin(), errors.end());
        result.high = errors[(errors.size() - 1) * 95 / 100];
    }
    for (const VideoStabilizerReport& report : stream.reports) {
        const double crop = static_cast<double>(report.crop);
        result.mean_crop += crop / static_cast<double>(stream.reports.size());
        result.least_crop = std::min(result.least_crop, crop);
        result.cuts += report.scene_start != 0 && report.frame > 0 ? 1 : 0;
    }
    const double shift = settings.whole_shift != 0 ? 1 : static_cast<double>(settings.crop_ratio);
    const std::vector<Affine> uncorrected(stream.origins.size());
    result.db = synthetic::reduction_db(
        synthetic::shake_of(true_path(clip, uncorrected, 1), camera.fps),
        synthetic::shake_of(true_path(clip, stream.origins, shift), camera.fps));
    const auto after_two_seconds = static_cast<std::size_t>(2 * camera.fps);
    const std::size_t delay = static_cast<std::size_t>(stream.reports[0].look_ahead);
    const auto readout_of = [&](std::size_t frame) {
        return static_cast<double>(
            stream.reports[std::min(frame, stream.reports.size() - 1)].readout);
    };
    result.early_readout = readout_of(after_two_seconds - std::min(after_two_seconds, delay));
    result.readout = readout_of(stream.reports.size() - 1);
    result.lines_db =
        lines_reduction(clip, clip_settings.shutter, stream.reports, after_two_seconds);
    return result;
}

void print(const std::string& name, const Result& r, bool csv) {
    if (csv) {
        std::printf("\"%s\",%d,%d,%.3f,%.3f,%.3f,%d,%.4f,%.4f,%.2f,%.2f,%.2f,%.2f,%.3f,%.3f,%.1f\n",
                    name.c_str(), r.not_found, r.off, r.high, r.worst, r.bridged, r.cuts,
                    r.mean_crop, r.least_crop, r.db.jitter, r.db.rotation, r.db.fast, r.db.shake,
                    r.early_readout, r.readout, r.lines_db);
    } else {
        std::printf("%-32s%6d%6d%9.3f%9.2f%9.2f%6d%7.3f%7.3f%8.1f%8.1f%8.1f%8.1f%8.3f%8.3f%8.1f\n",
                    name.c_str(), r.not_found, r.off, r.high, r.worst, r.bridged, r.cuts,
                    r.mean_crop, r.least_crop, r.db.jitter, r.db.rotation, r.db.fast, r.db.shake,
                    r.early_readout, r.readout, r.lines_db);
    }
    std::fflush(stdout);
}

int run(int argc, char** argv) {
    Options options;
    CLI::App app{
        "Stabilises generated clips and prints, for each: steps from frame to frame that were not\n"
        "found; of those found, how many are off by more than half a pixel at a corner of the\n"
        "picture, the 95th percentile and the largest error there in pixels; the largest of those\n"
        "that were bridged; scene cuts, of which there are none; the mean and least crop; and the\n"
        "reduction of jitter, rotation, fast jitter and change of speed against the true path, "
        "dB;\nthe readout of the sensor in use after two seconds and in the end, and the reduction "
        "of "
        "the\nmotion of the outer lines against each other after two seconds, dB."};
    app.add_option("NAMES", options.names, "Clips of the file; without names: all of them");
    app.add_option("--file", options.file, "Names and options of clips")->capture_default_str();
    app.add_option("--clip", options.clip,
                   "One clip instead, by its options: --clip=\"--noise 9 --face 0.4\"");
    app.add_option("--strength", options.strength, "0: gentle ... 3: maximum")
        ->check(CLI::Range(0, 3))
        ->capture_default_str();
    app.add_option("--look-ahead", options.look_ahead, "Frames; 0: that of the strength")
        ->check(CLI::Range(0, 120));
    app.add_option("--crop", options.crop, "Fixed crop; 0: auto")->check(CLI::Range(0.0, 1.0));
    app.add_option("--frames", options.frames, "Length of each clip")
        ->check(CLI::Range(60, 100000))
        ->capture_default_str();
    app.add_option("--rolling-shutter", options.shutter,
                   "auto, off or the readout of rows, -1 to 1")
        ->check(CLI::IsMember({"auto", "off"}) | CLI::Range(-1.0, 1.0))
        ->capture_default_str();
    app.add_flag("--csv", options.csv, "Print CSV, without a heading");
    app.add_flag("--steps", options.steps,
                 "Also print the steps not found, and those that are off");
    CLI11_PARSE(app, argc, argv);
    if (!options.csv) {
        std::printf("%-32s%6s%6s%9s%9s%9s%6s%7s%7s%8s%8s%8s%8s%8s%8s%8s\n", "", "lost", "off",
                    "95 %", "worst", "bridged", "cuts", "crop", "least", "jitter", "rot", "fast",
                    "shake", "at 2 s", "readout", "lines");
    }
    for (const NamedClip& named : read_clips(options)) {
        const synthetic::ClipSettings settings = parse_clip(named.options);
        const synthetic::ShakyClip clip(settings);
        print(named.name, measure(clip, settings, options), options.csv);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "step-errors: %s\n", error.what());
        return 1;
    }
}
