// stabilize-video: takes the shake out of video files, cameras and pipes.

#include <unistd.h>

#include <cstdio>
#include <exception>

#include "apps/output_file.h"
#include "apps/stabilize_video/batch.h"
#include "apps/stabilize_video/interruption.h"
#include "apps/stabilize_video/job.h"
#include "apps/stabilize_video/options.h"

namespace {

void tell(const char* what) {
    std::fprintf(stderr, "stabilize-video: %s\n", what);
}

// An exception where none may leave, as when memory runs out in a destructor: no file that looks
// finished stays even then.
[[noreturn]] void end_at_once() {
    apps::PendingFile::remove_all();
    try {
        if (const auto thrown = std::current_exception()) std::rethrow_exception(thrown);
        tell("a fault of its own");
    } catch (const std::exception& error) {
        tell(error.what());
    }
    _exit(apps::EXIT_LIBRARY);
}

}  // namespace

int main(int argc, char** argv) {
    std::set_terminate(end_at_once);
    try {
        int status = apps::EXIT_DONE;
        const auto options = apps::parse_options(argc, argv, status);
        if (!options) return status;
        apps::watch_signals(options->keep_partial);
        return options->output_dir.empty() ? apps::run_job(*options) : apps::run_batch(*options);
    } catch (const std::exception& error) {
        tell(error.what());
        return apps::EXIT_LIBRARY;
    }
}
