#include "apps/stabilize_video/options.h"

#include <videostabilizer/version.h>

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "apps/stabilize_video/path_plot.h"

namespace apps {

namespace {

constexpr const char* DESCRIPTION =
    "Takes the shake out of a video: one steady picture for each shaky one, with sound, "
    "subtitles,\n"
    "time stamps and titles as they were. The steady pictures show the middle of the shaky ones,\n"
    "enlarged to full size.";

constexpr const char* USAGE =
    "stabilize-video [OPTION]... IN OUT\n"
    "  or:  stabilize-video [OPTION]... --output-dir DIR IN...";

constexpr const char* FOOTER =
    "IN and OUT are files of any kind that FFmpeg knows, devices (/dev/video0), pipes or URLs; -\n"
    "stands for standard input and output; the output is YUV4MPEG2 there unless a format is "
    "given.\n"
    "A file appears under its name only when it is finished.\n"
    "\n"
    "Exit status:\n"
    "  0    done\n"
    "  1    the command line is wrong\n"
    "  2    the input cannot be read, or holds no video\n"
    "  3    the output cannot be written, or exists already\n"
    "  4    OpenCL is missing or has failed\n"
    "  5    the input is damaged or cut short; all that could be decoded was delivered\n"
    "  6    the size of the pictures changes in the middle; all before that was delivered\n"
    "  7    some files of a batch failed\n"
    "  130  interrupted\n"
    "\n"
    "Examples:\n"
    "  stabilize-video shaky.mp4 steady.mp4\n"
    "                            sound, subtitles and all else are kept\n"
    "  stabilize-video shaky.mp4 steady.mp4 --compare both.mp4 --plot path.png\n"
    "                            to see what has been done\n"
    "  stabilize-video --output-dir steady holiday/*.mp4\n"
    "                            a batch\n"
    "  stabilize-video /dev/video0 - --output-format mpegts | ffplay -\n"
    "                            a camera, live";

// Help as other programs print it, which help2man can turn into a manual page.
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
        if (comma != std::string::npos) name.insert(comma + 1, " ");
        if (name.rfind("--", 0) == 0) name.insert(0, "    ");
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

std::vector<std::pair<std::string, std::string>> key_values(const std::vector<std::string>& texts) {
    std::vector<std::pair<std::string, std::string>> result;
    for (const std::string& text : texts) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos || equals == 0) {
            throw CLI::ValidationError("--input-option", "'" + text + "' is not KEY=VALUE");
        }
        result.emplace_back(text.substr(0, equals), text.substr(equals + 1));
    }
    return result;
}

// What CLI11 cannot check by itself.
void check(Options& options, std::vector<std::string>& files) {
    if (!options.output_dir.empty()) {
        for (const auto& [name, file] : {std::pair{"--path", &options.path_file},
                                         {"--json", &options.json_file},
                                         {"--plot", &options.plot_file},
                                         {"--compare", &options.compare_file}}) {
            if (!file->empty()) {
                throw CLI::ValidationError(name, "is for a single file, not for --output-dir");
            }
        }
    } else if (files.size() == 2) {
        options.output = files.back();
        files.pop_back();
    } else {
        throw CLI::ValidationError(files.size() == 1 ? "OUT is required"
                                                     : "more than one input needs --output-dir");
    }
    options.inputs = files;
    if (!options.plot_file.empty() && !PathPlot::knows(options.plot_file)) {
        throw CLI::ValidationError("--plot", "the file name has to end in .png or .svg");
    }
}

}  // namespace

std::optional<Options> parse_options(int argc, char** argv, int& status) {
    Options options;
    std::vector<std::string> files;
    std::vector<std::string> input_options;
    bool overwrite = false;

    CLI::App app{DESCRIPTION, "stabilize-video"};
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(FOOTER);
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.set_help_flag();  // it comes with the other messages
    app.add_option("FILES", files)
        ->required()
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->group("");

    const auto steadiness = [&](CLI::Option* option) { return option->group("Steadiness"); };
    steadiness(app.add_option(
                   "--strength", options.strength,
                   "gentle takes the edge off; standard (the default) takes the shake out; strong "
                   "and maximum keep slow sways out too, as far as the edges of the picture allow"))
        ->type_name("STRENGTH")
        ->check(CLI::IsMember({"gentle", "standard", "strong", "maximum"}));
    steadiness(app.add_option(
                   "--look-ahead", options.look_ahead,
                   "So many later frames are known before a frame is corrected (1 to 120): more is "
                   "steadier, and later. Default by strength: for pipes and cameras 10, 10, 20 or "
                   "30, which at 30 frames a second is 333, 333, 667 or 1000 ms; for files 10, 20, "
                   "28 or 40"))
        ->type_name("FRAMES")
        ->check(CLI::Range(1, 120));
    steadiness(app.add_option("--crop", options.crop,
                              "Part of the width and height that stays visible: less leaves more "
                              "room for corrections (0.5 to 1; default: 0.9)"))
        ->type_name("RATIO")
        ->check(CLI::Range(0.5, 1.0));

    const auto output = [&](CLI::Option* option) { return option->group("Output"); };
    output(app.add_option("--codec", options.codec,
                          "Video codec or encoder (default: h264 where the file can hold it)"))
        ->type_name("NAME");
    output(app.add_option("--crf", options.crf,
                          "Quality for encoders that know it; smaller is better (default: 18 for "
                          "h264)"))
        ->type_name("NUMBER")
        ->check(CLI::Range(0.0, 63.0));
    output(app.add_option("--preset", options.preset,
                          "Speed for encoders that know it, from ultrafast to veryslow (default: "
                          "fast)"))
        ->type_name("NAME");
    output(app.add_option("--output-format", options.output_format,
                          "Container, where the name does not tell it"))
        ->type_name("NAME");
    output(app.add_option("--output-dir", options.output_dir,
                          "Steady every input into this folder, under its own name"))
        ->type_name("DIR");
    output(app.add_option("--jobs", options.jobs,
                          "Files at once with --output-dir (default: one for each core)"))
        ->type_name("COUNT")
        ->check(CLI::Range(1, 1024));
    output(app.add_flag("--overwrite", overwrite, "Replace files that exist already"));
    output(app.add_flag("--keep-partial", options.keep_partial,
                        "When interrupted, keep what is done as OUT with .partial before its "
                        "ending"));

    const auto input = [&](CLI::Option* option) { return option->group("Input"); };
    input(app.add_option("--input-format", options.input_format,
                         "Container or device kind, where it cannot be found out"))
        ->type_name("NAME");
    input(app.add_option("--input-option", input_options,
                         "An option of FFmpeg for it, such as framerate=30; may be repeated"))
        ->type_name("KEY=VALUE")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1);

    const auto more = [&](CLI::Option* option) { return option->group("More results"); };
    more(app.add_option("--compare", options.compare_file,
                        "Video with the shaky and the steady pictures side by side"))
        ->type_name("FILE");
    more(app.add_option("--plot", options.plot_file,
                        "Drawing of the camera path before and after, .png or .svg"))
        ->type_name("FILE");
    more(app.add_option("--path", options.path_file,
                        "The camera path as CSV: per frame the measured and the steadied position "
                        "(pixels, degrees, zoom) and how well the motion from the frame before was "
                        "found (status 0: found; 1: not found, taken as none)"))
        ->type_name("FILE");
    more(app.add_option("--json", options.json_file,
                        "Figures: frames, shake before and after, motions not found, time"))
        ->type_name("FILE");

    app.set_help_flag("-h,--help", "Print this help and exit")->group("Messages");
    app.set_version_flag("--version", std::string("stabilize-video ") + videostabilizer::version(),
                         "Print the version and exit")
        ->group("Messages");
    CLI::Option* quiet =
        app.add_flag("-q,--quiet", options.quiet, "Print errors only")->group("Messages");
    app.add_flag("-v,--verbose", options.verbose, "Print the library's and FFmpeg's messages")
        ->group("Messages")
        ->excludes(quiet);
    try {
        app.parse(argc, argv);
        options.input_options = key_values(input_options);
        check(options, files);
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? EXIT_DONE : EXIT_USAGE;
        return std::nullopt;
    }
    if (overwrite) options.existing = Existing::REPLACE;
    return options;
}

}  // namespace apps
