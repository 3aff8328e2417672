// stabilize-video: takes the shake out of a YUV4MPEG2 video.

#include <videostabilizer/version.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>

#include "apps/byte_io.h"
#include "apps/library_log.h"
#include "apps/output_file.h"
#include "apps/path_recorder.h"
#include "apps/picture_layout.h"
#include "apps/progress.h"
#include "apps/stabilize_stream.h"
#include "apps/y4m.h"

namespace {

enum ExitCode {
    EXIT_OK = 0,
    EXIT_USAGE = 1,
    EXIT_INPUT = 2,
    EXIT_OUTPUT = 3,
    EXIT_LIBRARY = 4,
    EXIT_TRUNCATED = 5,
    EXIT_INTERRUPTED = 130,  // as shells report SIGINT
};

constexpr const char* DESCRIPTION =
    "Takes the shake out of a video. Reads and writes YUV4MPEG2 (8-bit 4:2:0 of any size), one\n"
    "steady frame for each shaky one, ten frames later. The steady pictures show the middle 90 %\n"
    "of the shaky ones, enlarged to full size.";

constexpr const char* EXIT_CODES =
    "Exit status:\n"
    "  0  done\n"
    "  1  the command line is wrong\n"
    "  2  the input cannot be read, or is not YUV4MPEG2 with 8-bit 4:2:0\n"
    "  3  the output cannot be written\n"
    "  4  OpenCL is missing or has failed\n"
    "  5  the input broke off or went bad; all whole frames before were delivered\n"
    "  130  interrupted";

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Options {
    std::string input;
    std::string output;
    std::string path_file;  // empty: none
    bool quiet = false;
    bool verbose = false;
};

// Set to end the work soon, by a signal or by a failure.
std::atomic<bool> cancelled{false};
std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "needed in a signal handler");

void on_interrupt(int) {
    interrupted = true;
    cancelled = true;
}

void install_signal_handlers() {
    std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away is an error to report
    struct sigaction action {};
    action.sa_handler = on_interrupt;  // no SA_RESTART: reads and writes return
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(number, &action, nullptr);
    }
}

// Returns nothing when the arguments have been dealt with (help, or an error), with the exit
// status.
std::optional<Options> parse_arguments(int argc, char** argv, int& status) {
    Options options;
    CLI::App app{DESCRIPTION};
    app.footer(EXIT_CODES);
    app.set_version_flag("--version", std::string("stabilize-video ") + videostabilizer::version());
    app.add_option("IN", options.input, "Shaky video; - for standard input")->required();
    app.add_option("OUT", options.output,
                   "Steady video; - for standard output. A file appears under its name only when "
                   "it is finished")
        ->required();
    app.add_option(
        "--path", options.path_file,
        "CSV file for the camera path: per frame the measured and the steadied position\n"
        "(pixels, degrees, zoom) and how well the motion from the frame before was found\n"
        "(status 0: found; 1: not found, taken as none)");
    CLI::Option* quiet = app.add_flag("-q,--quiet", options.quiet, "Print errors only");
    app.add_flag("-v,--verbose", options.verbose, "Print the stabilizer's log")->excludes(quiet);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
        return std::nullopt;
    }
    return options;
}

void refuse_same_files(const Options& options, int input_fd) {
    if (apps::is_same_file(input_fd, options.output)) {
        throw UsageError("the output is the input file: " + options.input);
    }
    if (options.path_file.empty()) return;
    if (apps::is_same_file(input_fd, options.path_file)) {
        throw UsageError("the camera path would replace the input file: " + options.input);
    }
    if (options.path_file == options.output) {
        throw UsageError("the camera path and the video need different files");
    }
}

// Frames that the rest of the input should hold, or -1.
std::int64_t expected_frames(const apps::FdSource& source, const apps::Y4mHeader& header) {
    constexpr std::int64_t FRAME_LINE_BYTES = 6;
    const auto line_bytes = static_cast<std::int64_t>(header.line.size()) + 1;
    const long long size = source.file_size();
    return size < 0 ? -1 : (size - line_bytes) / (header.frame_bytes() + FRAME_LINE_BYTES);
}

std::string describe(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& error) {
        return error.what();
    }
}

int stabilize(const Options& options) {
    apps::FdSource source(options.input, &cancelled);
    refuse_same_files(options, source.fd());
    apps::Y4mReader reader(source);
    const apps::Y4mHeader& header = reader.header();

    apps::OutputFile video(options.output, &cancelled);
    apps::Y4mWriter writer(video.sink(), header);
    const apps::PictureLayout layout(header.width, header.height);
    std::optional<apps::OutputFile> path;
    std::optional<apps::PathRecorder> recorder;
    if (!options.path_file.empty()) {
        path.emplace(options.path_file, &cancelled);
        recorder.emplace(path->sink(), 0.5 * layout.frame_width(), 0.5 * layout.frame_height());
    }

    apps::StreamResult result;
    {
        apps::Progress progress(!options.quiet && !options.verbose,
                                expected_frames(source, header));
        result = apps::stabilize_stream(reader, writer, layout, recorder ? &*recorder : nullptr,
                                        progress, cancelled);
    }
    if (interrupted) throw apps::InputError("interrupted");
    if (result.input_failure && result.frames == 0) {
        std::rethrow_exception(result.input_failure);  // nothing worth keeping
    }
    if (path) path->commit();
    video.commit();
    if (!result.input_failure) return EXIT_OK;

    std::fprintf(stderr, "stabilize-video: %s; the %lld whole frames before were delivered\n",
                 describe(result.input_failure).c_str(), static_cast<long long>(result.frames));
    return EXIT_TRUNCATED;
}

int report(ExitCode code, const char* what) {
    std::fprintf(stderr, "stabilize-video: %s\n", interrupted ? "interrupted" : what);
    return interrupted ? EXIT_INTERRUPTED : code;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        int status = EXIT_OK;
        const auto options = parse_arguments(argc, argv, status);
        if (!options) return status;
        install_signal_handlers();
        apps::show_library_log(options->verbose);
        return stabilize(*options);
    } catch (const UsageError& error) {
        return report(EXIT_USAGE, error.what());
    } catch (const apps::InputError& error) {
        return report(EXIT_INPUT, error.what());
    } catch (const apps::Y4mError& error) {
        return report(EXIT_INPUT, error.what());
    } catch (const apps::OutputError& error) {
        return report(EXIT_OUTPUT, error.what());
    } catch (const apps::LibraryError& error) {
        return report(EXIT_LIBRARY, error.what());
    } catch (const std::exception& error) {
        return report(EXIT_LIBRARY, error.what());
    }
}
