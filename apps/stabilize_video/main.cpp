// stabilize-video: takes the shake out of video files, cameras and pipes.

#include <cstdio>
#include <exception>

#include "apps/stabilize_video/batch.h"
#include "apps/stabilize_video/interruption.h"
#include "apps/stabilize_video/job.h"
#include "apps/stabilize_video/options.h"

int main(int argc, char** argv) {
    try {
        int status = apps::EXIT_DONE;
        const auto options = apps::parse_options(argc, argv, status);
        if (!options) return status;
        apps::watch_signals(options->keep_partial);
        return options->output_dir.empty() ? apps::run_job(*options) : apps::run_batch(*options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "stabilize-video: %s\n", error.what());
        return apps::EXIT_LIBRARY;
    }
}
