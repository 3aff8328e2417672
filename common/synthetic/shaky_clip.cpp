// SPDX-License-Identifier: Apache-2.0

// shaky-clip: renders a shaky video whose true camera motion is known, as YUV4MPEG2.

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/synthetic/scene.h"
#include "common/video_io/byte_io.h"
#include "common/video_io/output_file.h"
#include "common/video_io/y4m.h"

namespace {

constexpr double DEGREES = 180 / 3.14159265358979323846;

struct Options {
    std::string output;
    std::string path_file;  // empty: none
    std::string size = "1280x720";
    std::string rate = "30";
    int frames = 180;
    synthetic::ClipSettings clip;
};

// Two positive numbers with `separator` between them; with `optional_second` the second may be
// missing and is 1. Throws CLI::ValidationError.
std::pair<int, int> parse_pair(const std::string& text, char separator, bool optional_second,
                               int largest, const std::string& what) {
    const auto number = [largest](const std::string& digits) {
        int value = 0;
        return digits.size() <= 9 && CLI::detail::lexical_cast(digits, value) && value >= 1 &&
                       value <= largest
                   ? value
                   : 0;
    };
    const std::size_t middle = text.find(separator);
    const int first = number(text.substr(0, middle));
    int second = optional_second ? 1 : 0;
    if (middle != std::string::npos) {
        second = number(text.substr(middle + 1));
    }
    if (first == 0 || second == 0) {
        throw CLI::ValidationError(what, "cannot use " + text);
    }
    return {first, second};
}

// Returns nothing, and the exit status, after help or an error was printed.
std::optional<Options> parse_arguments(int argc, char** argv, int& status) {
    Options options;
    synthetic::CameraSettings& camera = options.clip.camera;
    CLI::App app{"Makes a shaky video with known camera motion, as YUV4MPEG2 (8-bit 4:2:0)."};
    app.add_option("OUT", options.output, "File to write; - for standard output")->required();
    app.add_option("--size", options.size, "Picture size in pixels")->capture_default_str();
    app.add_option("--frames", options.frames, "Number of frames")
        ->check(CLI::Range(0, 1000000))
        ->capture_default_str();
    app.add_option("--fps", options.rate, "Frames per second, for example 25 or 30000:1001")
        ->capture_default_str();
    app.add_option("--pan", camera.pan, "Strength of the intended movement; 0 for none")
        ->check(CLI::Range(0.0, synthetic::ShakyClip::WIDEST_PAN))
        ->capture_default_str();
    app.add_option("--shake", camera.shake, "Strength of the shake; 0 for none")
        ->check(CLI::Range(0.0, synthetic::ShakyClip::STRONGEST_SHAKE))
        ->capture_default_str();
    app.add_option("--hold", camera.hold_seconds, "Seconds to stand still before moving")
        ->check(CLI::Range(0.0, 3600.0))
        ->capture_default_str();
    app.add_option("--noise", options.clip.noise, "Sensor noise, standard deviation in grey levels")
        ->check(CLI::Range(0.0, 40.0))
        ->capture_default_str();
    app.add_option("--seed", camera.seed, "Selects the town and the shake")->capture_default_str();
    app.add_option("--path", options.path_file,
                   "CSV file for the true camera path. Per frame: the pose with and without shake\n"
                   "(x, y in pixels, angle in degrees, zoom) and the motion a..f from the frame\n"
                   "before: (x, y) -> (a x + b y + c, d x + e y + f)");
    try {
        app.parse(argc, argv);
        std::tie(camera.width, camera.height) =
            parse_pair(options.size, 'x', false, synthetic::ShakyClip::LARGEST_SIDE, "--size");
        const auto [numerator, denominator] = parse_pair(options.rate, ':', true, 1000000, "--fps");
        camera.fps = static_cast<double>(numerator) / denominator;
        options.rate = std::to_string(numerator) + ":" + std::to_string(denominator);
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? 0 : 1;
        return std::nullopt;
    }
    return options;
}

void print_line(video_io::FdSink& sink, const std::string& line) {
    sink.write(reinterpret_cast<const unsigned char*>(line.data()), line.size());
}

std::string path_line(const synthetic::ShakyClip& clip, const Options& options, int frame) {
    const synthetic::Pose shaky = clip.path().shaky(frame);
    const synthetic::Pose steady = clip.path().steady(frame);
    const synthetic::Affine motion =
        frame == 0 ? synthetic::Affine() : clip.motion(frame - 1, frame);
    char line[512];
    std::snprintf(line, sizeof line,
                  "%d,%.6f,%.4f,%.4f,%.6f,%.8f,%.4f,%.4f,%.6f,%.8f,%.8f,%.8f,%.5f,%.8f,%.8f,%.5f\n",
                  frame, frame / options.clip.camera.fps, shaky.x, shaky.y, shaky.angle * DEGREES,
                  shaky.zoom, steady.x, steady.y, steady.angle * DEGREES, steady.zoom, motion.a,
                  motion.b, motion.c, motion.d, motion.e, motion.f);
    return line;
}

void write_clip(const Options& options) {
    const synthetic::ShakyClip clip(options.clip);
    video_io::OutputFile video(options.output);
    std::optional<video_io::OutputFile> path;
    if (!options.path_file.empty()) {
        path.emplace(options.path_file);
        print_line(path->sink(),
                   "frame,seconds,x,y,angle_deg,zoom,steady_x,steady_y,steady_angle_deg,"
                   "steady_zoom,a,b,c,d,e,f\n");
    }

    const auto header = video_io::make_y4m_header(clip.width(), clip.height(), options.rate);
    video_io::Y4mWriter writer(video.sink(), header);
    std::vector<unsigned char> pixels(static_cast<std::size_t>(header.frame_bytes()));
    video_io::Planes planes{};
    planes.y = pixels.data();
    planes.stride_y = clip.width();
    planes.stride_uv = header.chroma_width();
    planes.u = planes.y + planes.stride_y * clip.height();
    planes.v = planes.u + planes.stride_uv * header.chroma_height();
    for (int frame = 0; frame < options.frames; ++frame) {
        clip.render(frame, planes);
        writer.write_frame(planes);
        if (path) {
            print_line(path->sink(), path_line(clip, options, frame));
        }
    }
    if (path) {
        path->commit();
    }
    video.commit();
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);  // report a closed pipe as an error
    int status = 0;
    try {
        const auto options = parse_arguments(argc, argv, status);
        if (options) {
            write_clip(*options);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "shaky-clip: %s\n", error.what());
        return 3;
    }
    return status;
}
