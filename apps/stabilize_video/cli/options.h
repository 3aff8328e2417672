// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <videostabilizer/stabilizer_options.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/stabilize_video/cli/progress.h"
#include "common/video_io/output_file.h"

namespace apps {

// Exit status, see the help text.
enum ExitCode {
    EXIT_DONE = 0,
    EXIT_USAGE = 1,
    EXIT_INPUT = 2,
    EXIT_OUTPUT = 3,
    EXIT_LIBRARY = 4,
    EXIT_DAMAGED = 5,
    EXIT_SIZE_CHANGED = 6,
    EXIT_BATCH = 7,
    EXIT_INTERRUPTED = 130,  // as shells report SIGINT
};

struct Options {
    std::vector<std::string> inputs;
    std::string output;      // of a single input; "-": standard output
    std::string output_dir;  // of a batch; "" for a single input
    int jobs = 0;            // of a batch, at once; 0: one per core

    std::string input_format;
    std::vector<std::pair<std::string, std::string>> input_options;
    std::optional<int> stream;  // of the input, as FFmpeg counts
    std::string interlaced = "full-rate";
    std::int64_t start_us = 0;
    std::optional<std::int64_t> duration_us;

    std::string output_format;
    std::string codec;
    std::optional<double> crf;
    std::string preset;
    std::int64_t bitrate = 0;  // bits per second; 0: by quality
    std::vector<std::pair<std::string, std::string>> encoder_options;
    bool audio = true;
    video_io::Existing existing = video_io::Existing::KEEP;
    bool keep_partial = false;
    bool skip_existing = false;

    std::string strength = "standard";
    std::optional<int> look_ahead;  // frames
    std::optional<float> crop;
    bool auto_crop = false;       // in place of it
    float crop_least = 0;         // bounds of that; 0: the library's
    float crop_most = 0;          //
    float readout = 0;            // with rolling_shutter "rows" and "columns"
    std::string rolling_shutter;  // also "off"; "": the readout is estimated
    std::string engine = "native";
    std::string sampling;  // "": by the strength
    int threads = 0;       // of the native engine; 0: one per core

    // Files; "": none.
    std::string path_file;
    std::string json_file;
    std::string plot_file;
    std::string compare_file;
    bool preview = false;

    bool quiet = false;
    bool verbose = false;
    bool progress = true;                       // unless quiet
    SharedProgress* shared_progress = nullptr;  // of a file of a batch
};

// Parses the command line. Returns nothing, and the exit status, after help or an error was printed.
std::optional<Options> parse_options(int argc, char** argv, int& status);

}  // namespace apps
