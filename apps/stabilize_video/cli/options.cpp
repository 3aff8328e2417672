// SPDX-License-Identifier: Apache-2.0

#include "apps/stabilize_video/cli/options.h"

#include <videostabilizer/version.h>

extern "C" {
#include <libavutil/parseutils.h>
}

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "apps/stabilize_video/pictures/ffmpeg.h"
#include "apps/stabilize_video/results/path_plot.h"

namespace apps {

namespace {

constexpr const char* DESCRIPTION =
    "Stabilises a video: one steady picture for each shaky one, of the same bit depth, chroma and\n"
    "colours; sound, subtitles, time stamps and metadata are kept. The steady pictures show the\n"
    "middle of the shaky ones, enlarged to full size.";

constexpr const char* USAGE =
    "stabilize-video [OPTION]... IN OUT\n"
    "  or:  stabilize-video [OPTION]... --output-dir DIR IN...";

constexpr const char* FOOTER =
    "IN and OUT are files of any format that FFmpeg supports, devices (/dev/video0), pipes or "
    "URLs;\n"
    "- is standard input or output, where the default format is YUV4MPEG2. An output file appears\n"
    "under its name only when it is complete.\n"
    "\n"
    "Exit status:\n"
    "  0    done\n"
    "  1    the command line is wrong, or asks for a format, codec or option that there is not\n"
    "  2    the input cannot be read, or holds no video\n"
    "  3    an output cannot be written, or exists already\n"
    "  4    memory has run out, or --engine opencl found no OpenCL or one that fails\n"
    "  5    the input is damaged or cut short; everything that could be decoded was written\n"
    "  6    the picture size changes within the input; everything before was written\n"
    "  7    some files of a batch failed\n"
    "  130  interrupted\n"
    "\n"
    "Environment:\n"
    "  OCL_ICD_VENDORS           where the drivers of OpenCL are listed\n"
    "  POCL_CACHE_DIR, XDG_CACHE_HOME, HOME\n"
    "                            where such a driver keeps what it has compiled; the native "
    "engine\n"
    "                            needs none of it\n"
    "  DISPLAY, WAYLAND_DISPLAY  the display for --preview\n"
    "  FONTCONFIG_FILE           fonts for the captions of --compare\n"
    "  http_proxy                for inputs and outputs that are URLs\n"
    "\n"
    "Examples:\n"
    "  stabilize-video shaky.mp4 steady.mp4\n"
    "                            a file\n"
    "  stabilize-video shaky.mp4 steady.mp4 --compare both.mp4 --plot path.png\n"
    "                            with a comparison and a plot of the camera path\n"
    "  stabilize-video --output-dir steady holiday/*.mp4\n"
    "                            a batch\n"
    "  stabilize-video --input-option framerate=25 in/%04d.png steady.mp4\n"
    "                            numbered pictures\n"
    "  stabilize-video /dev/video0 - --output-format mpegts | ffplay -\n"
    "                            a camera, live";

// Help in the GNU format, which help2man can turn into a manual page.
class HelpFormatter : public CLI::Formatter {
  public:
    std::string make_description(const CLI::App* app) const override {
        return app->get_description() + "\n\n";
    }
    std::string make_footer(const CLI::App* app) const override { return app->get_footer() + "\n"; }
    std::string make_group(std::string group, bool is_positional,
                           std::vector<const CLI::Option*> options) const override {
        std::string text = group + ":\n";
        for (const CLI::Option* option : options) {
            text += make_option(option, is_positional);
        }
        return text;
    }
    std::string make_usage(const CLI::App*, std::string) const override {
        return std::string("Usage: ") + USAGE + "\n\n";
    }
    std::string make_option_name(const CLI::Option* option, bool is_positional) const override {
        std::string name = CLI::Formatter::make_option_name(option, is_positional);
        const std::size_t comma = name.find(",--");
        if (comma != std::string::npos) {
            name.insert(comma + 1, " ");
        }
        if (name.rfind("--", 0) == 0) {
            name.insert(0, "    ");
        }
        return name;
    }
    std::string make_option_opts(const CLI::Option* option) const override {
        const std::string name = option->get_type_name();  // "RATIO:FLOAT in [0.5 - 1]"
        return option->get_type_size() == 0 ? "" : " " + name.substr(0, name.find(':'));
    }
    std::string make_option(const CLI::Option* option, bool is_positional) const override {
        constexpr std::size_t NAME_COLUMNS = 28;
        constexpr std::size_t LAST_COLUMN = 96;
        std::string text =
            "  " + make_option_name(option, is_positional) + make_option_opts(option);
        text += text.size() < NAME_COLUMNS - 1 ? std::string(NAME_COLUMNS - text.size(), ' ')
                                               : "\n" + std::string(NAME_COLUMNS, ' ');
        std::size_t column = NAME_COLUMNS;
        std::string rest = option->get_description();
        while (!rest.empty()) {
            std::string word = rest.substr(0, rest.find(' '));
            rest.erase(0, word.size() + 1);
            if (column + word.size() > LAST_COLUMN) {
                text += "\n" + std::string(NAME_COLUMNS, ' ');
                column = NAME_COLUMNS;
            }
            if (column > NAME_COLUMNS) {
                word.insert(0, " ");
            }
            text += word;
            column += word.size();
        }
        return text + "\n";
    }
};

std::vector<std::pair<std::string, std::string>> key_values(const char* option,
                                                            const std::vector<std::string>& texts) {
    std::vector<std::pair<std::string, std::string>> result;
    for (const std::string& text : texts) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw CLI::ValidationError(option, "'" + text + "' is not KEY=VALUE");
        }
        result.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    }
    return result;
}

// A time as FFmpeg writes it, in microseconds.
std::int64_t time_of(const char* option, const std::string& text) {
    std::int64_t time = 0;
    if (av_parse_time(&time, text.c_str(), 1) < 0 || time < 0) {
        throw CLI::ValidationError(option, "'" + text + "' is no time; write 90.5 or 1:30.5");
    }
    return time;
}

// A number with k or M for thousands or millions.
std::int64_t bitrate_of(const std::string& text) {
    constexpr double MOST = 1e10;
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    const std::string unit = end;
    const double factor = unit == "M" ? 1e6 : (unit == "k" || unit == "K" ? 1e3 : 1);
    const bool known = unit.empty() || factor > 1;
    if (!known || !(number * factor >= 1000 && number * factor <= MOST)) {
        throw CLI::ValidationError("--bitrate", "'" + text + "' is no bit rate; write 8M or 2500k");
    }
    return static_cast<std::int64_t>(number * factor);
}

// CLI11 takes NaN for a number within any range.
CLI::Validator number_in(double least, double most, const char* word = "a number") {
    return {[least, most, word](std::string& text) -> std::string {
                double value = 0;
                if (text == word ||
                    (CLI::detail::lexical_cast(text, value) && value >= least && value <= most)) {
                    return "";
                }
                char message[96];
                std::snprintf(message, sizeof message, "'%.40s' is not %s or not in %g to %g",
                              text.c_str(), word, least, most);
                return message;
            },
            ""};
}

// So that a batch need not begin.
void refuse_unknown(const Options& options) {
    const char* codec = options.codec.c_str();
    if (!options.codec.empty() && avcodec_find_encoder_by_name(codec) == nullptr &&
        avcodec_descriptor_get_by_name(codec) == nullptr) {
        throw CLI::ValidationError("--codec", "there is no video encoder '" + options.codec + "'");
    }
    const char* container = options.output_format.c_str();
    if (!options.output_format.empty() && av_guess_format(container, nullptr, nullptr) == nullptr) {
        throw CLI::ValidationError("--output-format",
                                   "there is no output format '" + options.output_format + "'");
    }
}

// Checks beyond those of CLI11.
void check(Options& options, std::vector<std::string>& files) {
    if (!options.output_dir.empty()) {
        if (options.preview) {
            throw CLI::ValidationError("--preview", "is for a single file, not for --output-dir");
        }
        for (const auto& [name, file] : {std::pair{"--path", &options.path_file},
                                         {"--json", &options.json_file},
                                         {"--plot", &options.plot_file},
                                         {"--compare", &options.compare_file}}) {
            if (!file->empty()) {
                throw CLI::ValidationError(name, "is for a single file, not for --output-dir");
            }
        }
    } else if (options.jobs > 0) {
        throw CLI::ValidationError("--jobs", "is for --output-dir");
    } else if (files.size() == 2) {
        options.output = files.back();
        files.pop_back();
    } else {
        constexpr const char* WRONG[] = {"IN and OUT are required", "OUT is required"};
        throw CLI::ValidationError(files.size() < 2 ? WRONG[files.size()]
                                                    : "more than one input needs --output-dir");
    }
    if (files.empty()) {
        throw CLI::ValidationError("IN is required");
    }
    options.inputs = files;
    if (!options.plot_file.empty() && !PathPlot::knows(options.plot_file)) {
        throw CLI::ValidationError("--plot", "the file name must end in .png or .svg");
    }
}

// What the command line says and Options has in another form.
struct RawOptions {
    std::vector<std::string> files;
    std::vector<std::string> input_options;
    std::string crop;  // a number or "auto"
    std::string rolling_shutter;
    std::vector<std::string> encoder_options;
    std::string start;
    std::string duration;
    std::string bitrate;
    bool overwrite = false;
    bool no_audio = false;
};

void refuse_stated_opencl(const Options& options) {
    const bool stated =
        options.sampling == "stated" || (options.sampling.empty() && options.strength == "gentle");
    if (options.engine == "opencl" && stated) {
        throw CLI::ValidationError("--engine opencl",
                                   "is not for the stated sampling, which gentle has");
    }
}

void read_texts(const RawOptions& raw, Options& options) {
    options.input_options = key_values("--input-option", raw.input_options);
    options.encoder_options = key_values("--encoder-option", raw.encoder_options);
    if (!raw.start.empty()) {
        options.start_us = time_of("--start", raw.start);
    }
    if (!raw.duration.empty()) {
        options.duration_us = time_of("--duration", raw.duration);
        if (*options.duration_us == 0) {
            throw CLI::ValidationError("--duration", "is 0");
        }
    }
    if (!raw.bitrate.empty()) {
        options.bitrate = bitrate_of(raw.bitrate);
    }
    options.audio = !raw.no_audio;
}

void read_crop(const std::string& crop, Options& options) {
    if (crop == "auto") {
        if (options.strength == "gentle") {
            throw CLI::ValidationError("--crop", "auto is not for gentle");
        }
        options.auto_crop = true;
    } else if (options.crop_least != 0 || options.crop_most != 0) {
        throw CLI::ValidationError("--crop-least and --crop-most", "need --crop auto");
    } else if (!crop.empty()) {
        options.crop = std::stof(crop);
    }
    if (options.crop_most != 0 && options.crop_least > options.crop_most) {
        throw CLI::ValidationError("--crop-least", "is more than --crop-most");
    }
}

// auto, off, a readout of rows, or columns=READOUT.
void read_rolling_shutter(const std::string& text, Options& options) {
    const std::string name = "--rolling-shutter";
    const bool gives_readout = !text.empty() && text != "auto" && text != "off";
    if (text == "off") {
        options.rolling_shutter = text;
    } else if (gives_readout) {
        const std::string prefix = "columns=";
        const bool columns = text.compare(0, prefix.size(), prefix) == 0;
        const std::string number = columns ? text.substr(prefix.size()) : text;
        const std::string fault = number_in(-1, 1)(number);
        if (!fault.empty()) {
            throw CLI::ValidationError(name, fault);
        }
        options.rolling_shutter = columns ? "columns" : "rows";
        options.readout = std::stof(number);
    }
    if (gives_readout && options.strength == "gentle") {
        throw CLI::ValidationError(name, "is not for gentle");
    }
    if (gives_readout && options.sampling == "stated") {
        throw CLI::ValidationError(name, "is not for the stated sampling");
    }
}

void add_steadiness(CLI::App& app, Options& options, RawOptions& raw) {
    const auto add = [&app](const char* name, auto& value, const char* description) {
        return app.add_option(name, value, description)->group("Steadiness");
    };
    add("--strength", options.strength,
        "gentle: reduces the shake; standard (the default): removes the shake; strong and maximum: "
        "also remove slow sways, as far as the edges of the picture allow")
        ->type_name("STRENGTH")
        ->check(CLI::IsMember({"gentle", "standard", "strong", "maximum"}));
    add("--look-ahead", options.look_ahead,
        "Frames of look-ahead (1 to 120): more is steadier, and adds the same delay. Default by "
        "strength: for pipes and cameras 10, 10, 20 or 30, which at 30 frames per second is 333, "
        "333, 667 or "
        "1000 ms; for files 10, 20, 28 or 40")
        ->type_name("FRAMES")
        ->check(CLI::Range(1, 120));
    add("--crop", raw.crop,
        "Part of the width and height that stays visible: less leaves more room for corrections "
        "(0.5 to 1; default: 0.9; with 1 nothing can be corrected but for gentle), or auto: as "
        "much "
        "as the shake allows, slowly changing")
        ->type_name("RATIO")
        ->check(number_in(0.5, 1, "auto"));
    add("--rolling-shutter", raw.rolling_shutter,
        "What is done about a sensor that is read line by line, so that pictures of a moving "
        "camera "
        "are bent: auto (the default but for gentle): how long reading takes is found out, and "
        "each "
        "line is put where it belongs; off; or the time from the first row to the last as a share "
        "of "
        "that from frame to frame (-1 to 1, negative where the last row comes first), or with "
        "columns=READOUT of columns, in pictures that were turned")
        ->type_name("READOUT");
    add("--crop-least", options.crop_least, "The least that --crop auto shows (default: 0.65)")
        ->type_name("RATIO")
        ->check(number_in(0.5, 0.99));
    add("--crop-most", options.crop_most, "The most that --crop auto shows (default: 0.95)")
        ->type_name("RATIO")
        ->check(number_in(0.5, 0.99));
}

void add_pictures(CLI::App& app, Options& options) {
    const auto add = [&app](const char* name, auto& value, const char* description) {
        return app.add_option(name, value, description)->group("Pictures");
    };
    add("--sampling", options.sampling,
        "sharp (the default but for gentle): Lanczos, which keeps fine detail; bilinear; stated "
        "(the "
        "default for gentle, only with the native engine): bilinear with the nearest chroma")
        ->type_name("METHOD")
        ->check(CLI::IsMember({"stated", "bilinear", "sharp"}));
    add("--engine", options.engine,
        "What moves the pictures. native (the default): the processor; opencl: an OpenCL device; "
        "auto: OpenCL if it has a GPU, else native")
        ->type_name("ENGINE")
        ->check(CLI::IsMember({"native", "auto", "opencl"}));
    add("--threads", options.threads,
        "Threads of the native engine (1 to 64; default: 0, one per core)")
        ->type_name("COUNT")
        ->check(CLI::Range(0, 64));
}

void add_encoding(CLI::App& app, Options& options, RawOptions& raw) {
    const auto add = [&app](const char* name, auto& value, const char* description) {
        return app.add_option(name, value, description)->group("Encoding");
    };
    add("--codec", options.codec,
        "Video codec or encoder (default: h264, or hevc for pictures of more than 8 bits, where "
        "the "
        "output format can hold it)")
        ->type_name("NAME");
    add("--crf", options.crf,
        "Quality for encoders that have it; smaller is better (default: 18 for h264, 20 for hevc)")
        ->type_name("NUMBER")
        ->check(number_in(0, 63));
    add("--preset", options.preset,
        "Speed for encoders that have it, from ultrafast to veryslow (default: fast)")
        ->type_name("NAME");
    add("--bitrate", raw.bitrate, "Bits per second, such as 8M or 2500k, in place of a quality")
        ->type_name("RATE")
        ->excludes("--crf");
    add("--encoder-option", raw.encoder_options,
        "FFmpeg option for the encoder, such as g=60; may be repeated")
        ->type_name("KEY=VALUE")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1)
        ->allow_extra_args(false);
}

void add_output(CLI::App& app, Options& options, RawOptions& raw) {
    const auto add = [&app](const char* name, auto& value, const char* description) {
        return app.add_option(name, value, description)->group("Output");
    };
    app.add_flag("--no-audio", raw.no_audio, "Leave the sound out")->group("Output");
    add("--output-format", options.output_format, "Container (default: by the file name)")
        ->type_name("NAME");
    add("--output-dir", options.output_dir,
        "Stabilise every input into this folder, under its own name")
        ->type_name("DIR");
    add("--jobs", options.jobs, "Files at once with --output-dir (default: one per core)")
        ->type_name("COUNT")
        ->check(CLI::Range(1, 1024));
    app.add_flag("--overwrite", raw.overwrite, "Replace existing files")->group("Output");
    app.add_flag("--skip-existing", options.skip_existing,
                 "Leave out files whose output exists, as when a batch is run again")
        ->group("Output")
        ->excludes("--overwrite");
    app.add_flag("--keep-partial", options.keep_partial,
                 "When interrupted, keep what is done as OUT with .partial before its ending")
        ->group("Output");
}

void add_input(CLI::App& app, Options& options, RawOptions& raw) {
    app.add_option("--input-format", options.input_format,
                   "Container or kind of device, where it is not detected")
        ->group("Input")
        ->type_name("NAME");
    app.add_option("--input-option", raw.input_options,
                   "FFmpeg option for the input, such as framerate=30; may be repeated")
        ->group("Input")
        ->type_name("KEY=VALUE")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1)
        ->allow_extra_args(false);
}

void add_part(CLI::App& app, Options& options, RawOptions& raw) {
    app.add_option("--stream", options.stream,
                   "Number of the video stream, as ffprobe shows it (default: the one with the "
                   "largest pictures)")
        ->group("Input")
        ->type_name("NUMBER")
        ->check(CLI::Range(0, 1 << 16));
    app.add_option("--start", raw.start,
                   "Begin at this time of the input, in seconds or as H:MM:SS")
        ->group("Input")
        ->type_name("TIME");
    app.add_option("--duration", raw.duration, "End after this time")
        ->group("Input")
        ->type_name("TIME");
    app.add_option("--interlaced", options.interlaced,
                   "What becomes of interlaced video. full-rate (the default): a picture for each "
                   "field, 50 per second of 50i; keep-rate: one for both; ignore: taken for "
                   "progressive")
        ->group("Input")
        ->type_name("MODE")
        ->check(CLI::IsMember({"full-rate", "keep-rate", "ignore"}));
}

void add_more_results(CLI::App& app, Options& options) {
    const auto add = [&app](const char* name, std::string& file, const char* description) {
        app.add_option(name, file, description)->group("More results")->type_name("FILE");
    };
    add("--compare", options.compare_file,
        "Video of the shaky and the steady pictures side by side");
    app.add_flag(
           "--preview", options.preview,
           "Show both side by side in a window while they are made; needs ffplay and a display")
        ->group("More results");
    add("--plot", options.plot_file, "Plot of the camera path before and after, .png or .svg");
    add("--path", options.path_file,
        "The camera path as CSV: per frame the measured and the steady position (pixels, degrees, "
        "zoom) and how well the motion from the previous frame was found (status 0: found; 1: not "
        "found, assumed to be none), and the part of the picture that is shown");
    add("--json", options.json_file,
        "Figures: frames, shake before and after, motions not found, time");
}

void add_messages(CLI::App& app, Options& options) {
    app.set_help_flag("-h,--help", "Print this help and exit")->group("Messages");
    app.set_version_flag("--version", std::string("stabilize-video ") + videostabilizer::version(),
                         "Print the version and exit")
        ->group("Messages");
    CLI::Option* quiet =
        app.add_flag("-q,--quiet", options.quiet, "Print errors only")->group("Messages");
    app.add_flag("-v,--verbose", options.verbose, "Print the library's and FFmpeg's messages")
        ->group("Messages")
        ->excludes(quiet);
}

// Prints help, version or what is wrong with the command line. Returns the exit status.
int tell(const CLI::App& app, const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {
        return app.exit(error);
    }
    std::fprintf(stderr,
                 "stabilize-video: %s\n"
                 "Usage: %s\n"
                 "stabilize-video --help explains the options.\n",
                 error.what(), USAGE);
    return EXIT_USAGE;
}

}  // namespace

std::optional<Options> parse_options(int argc, char** argv, int& status) {
    Options options;
    RawOptions raw;
    CLI::App app{DESCRIPTION, "stabilize-video"};
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(FOOTER);
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.set_help_flag();  // moved to the other messages
    app.add_option("FILES", raw.files)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->group("");
    add_steadiness(app, options, raw);
    add_pictures(app, options);
    add_encoding(app, options, raw);
    add_output(app, options, raw);
    add_input(app, options, raw);
    add_part(app, options, raw);
    add_more_results(app, options);
    add_messages(app, options);
    try {
        app.parse(argc, argv);
        read_texts(raw, options);
        read_crop(raw.crop, options);
        read_rolling_shutter(raw.rolling_shutter, options);
        refuse_stated_opencl(options);
        check(options, raw.files);
        refuse_unknown(options);
    } catch (const CLI::ParseError& error) {
        status = tell(app, error);
        return std::nullopt;
    }
    if (raw.overwrite) {
        options.existing = video_io::Existing::REPLACE;
    }
    return options;
}

}  // namespace apps
