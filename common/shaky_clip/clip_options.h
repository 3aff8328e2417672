// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "common/synthetic/scene.h"

namespace synthetic {

// A clip as it is described on a command line.
struct ClipOptions {
    std::string size = "1280x720";
    std::string rate = "30";
    int frames = 180;
    double roll_degrees = 0;
    ClipSettings settings;
};

// Adds the options that describe a clip; `options` outlives the parsing.
void add_clip_options(CLI::App& app, ClipOptions& options);

// To be called after the parsing: completes the settings, and makes the rate a ratio, n:m. Throws
// CLI::ValidationError.
void check_clip_options(ClipOptions& options);

}  // namespace synthetic
