#pragma once

#include <videostabilizer/stabilizer_options.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "apps/output_file.h"

namespace apps {

// How the program ends. The command line's help lists them.
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
    std::string output;      // of a single input; "-" for standard output
    std::string output_dir;  // of a batch; "" if there is one input
    int jobs = 0;            // of a batch, at once; 0: as many as there are cores

    std::string input_format;
    std::vector<std::pair<std::string, std::string>> input_options;

    std::string output_format;
    std::string codec;
    std::optional<double> crf;
    std::string preset;
    Existing existing = Existing::KEEP;
    bool keep_partial = false;

    std::string strength = "standard";
    std::optional<int> look_ahead;  // frames
    std::optional<float> crop;

    // Files; "" for none.
    std::string path_file;
    std::string json_file;
    std::string plot_file;
    std::string compare_file;

    bool quiet = false;
    bool verbose = false;
    bool progress = true;  // unless quiet
};

// Reads the command line. Returns nothing when it has been dealt with (help, or an error, both
// printed), with the exit status.
std::optional<Options> parse_options(int argc, char** argv, int& status);

}  // namespace apps
