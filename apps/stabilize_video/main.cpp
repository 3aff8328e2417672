// SPDX-License-Identifier: Apache-2.0

// stabilize-video: stabilises video files, cameras and pipes.

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "apps/stabilize_video/cli/interruption.h"
#include "apps/stabilize_video/cli/options.h"
#include "apps/stabilize_video/run/batch.h"
#include "apps/stabilize_video/run/job.h"
#include "common/video_io/output_file.h"

namespace {

void tell(const char* what) {
    std::fprintf(stderr, "stabilize-video: %s\n", what);
}

// For an exception that cannot be caught, as when memory runs out in a destructor: removes the
// temporary files even then.
[[noreturn]] void end_at_once() {
    video_io::PendingFile::remove_all();
    try {
        if (const auto thrown = std::current_exception()) {
            std::rethrow_exception(thrown);
        }
        tell("internal error");
    } catch (const std::exception& error) {
        tell(error.what());
    }
    _exit(apps::EXIT_LIBRARY);
}

bool returned = false;  // from main

// Compilers of OpenCL drivers exit or abort when they fail.
void end_of_a_library() {
    video_io::PendingFile::remove_all();
    if (!returned) {
        tell("a library has ended the program");
        _exit(apps::EXIT_LIBRARY);
    }
}

int run(int argc, char** argv) {
    int status = apps::EXIT_DONE;
    const auto options = apps::parse_options(argc, argv, status);
    if (!options) {
        return status;
    }
    return options->output_dir.empty() ? apps::run_job(*options) : apps::run_batch(*options);
}

}  // namespace

int main(int argc, char** argv) {
    std::set_terminate(end_at_once);
    std::atexit(end_of_a_library);
    std::signal(SIGABRT, [](int) { video_io::PendingFile::remove_all(); });
    int status = apps::EXIT_LIBRARY;
    try {
        status = run(argc, argv);
    } catch (const std::exception& error) {
        tell(error.what());
    }
    returned = true;
    return status;
}
