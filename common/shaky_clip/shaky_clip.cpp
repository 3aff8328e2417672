// SPDX-License-Identifier: Apache-2.0

// shaky-clip: renders a shaky video whose true camera motion is known, as YUV4MPEG2.

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "common/shaky_clip/clip_options.h"
#include "common/synthetic/scene.h"
#include "common/video_io/byte_io.h"
#include "common/video_io/output_file.h"
#include "common/video_io/y4m.h"

namespace {

constexpr double DEGREES = 180 / 3.14159265358979323846;

struct Options {
    std::string output;
    std::string path_file;  // empty: none
    synthetic::ClipOptions clip;
};

// Returns nothing, and the exit status, after help or an error was printed.
std::optional<Options> parse_arguments(int argc, char** argv, int& status) {
    Options options;
    CLI::App app{"Makes a shaky video with known camera motion, as YUV4MPEG2 (8-bit 4:2:0)."};
    app.add_option("OUT", options.output, "File to write; - for standard output")->required();
    synthetic::add_clip_options(app, options.clip);
    app.add_option("--path", options.path_file,
                   "CSV file for the true camera path. Per frame: the pose with and without shake\n"
                   "(x, y in pixels, angle in degrees, zoom) and the motion a..f from the frame\n"
                   "before: (x, y) -> (a x + b y + c, d x + e y + f)");
    try {
        app.parse(argc, argv);
        synthetic::check_clip_options(options.clip);
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
    const synthetic::Pose shaky = clip.pose(frame);
    const synthetic::Pose steady = clip.path().steady(frame);
    const synthetic::Affine motion =
        frame == 0 ? synthetic::Affine() : clip.motion(frame - 1, frame);
    char line[512];
    std::snprintf(line, sizeof line,
                  "%d,%.6f,%.4f,%.4f,%.6f,%.8f,%.4f,%.4f,%.6f,%.8f,%.8f,%.8f,%.5f,%.8f,%.8f,%.5f\n",
                  frame, frame / options.clip.settings.camera.fps, shaky.x, shaky.y,
                  shaky.angle * DEGREES, shaky.zoom, steady.x, steady.y, steady.angle * DEGREES,
                  steady.zoom, motion.a, motion.b, motion.c, motion.d, motion.e, motion.f);
    return line;
}

void write_clip(const Options& options) {
    const synthetic::ShakyClip clip(options.clip.settings);
    video_io::OutputFile video(options.output);
    std::optional<video_io::OutputFile> path;
    if (!options.path_file.empty()) {
        path.emplace(options.path_file);
        print_line(path->sink(),
                   "frame,seconds,x,y,angle_deg,zoom,steady_x,steady_y,steady_angle_deg,"
                   "steady_zoom,a,b,c,d,e,f\n");
    }

    const auto header = video_io::make_y4m_header(clip.width(), clip.height(), options.clip.rate);
    video_io::Y4mWriter writer(video.sink(), header);
    std::vector<unsigned char> pixels(static_cast<std::size_t>(header.frame_bytes()));
    video_io::Planes planes{};
    planes.y = pixels.data();
    planes.stride_y = clip.width();
    planes.stride_uv = header.chroma_width();
    planes.u = planes.y + planes.stride_y * clip.height();
    planes.v = planes.u + planes.stride_uv * header.chroma_height();
    for (int frame = 0; frame < options.clip.frames; ++frame) {
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
