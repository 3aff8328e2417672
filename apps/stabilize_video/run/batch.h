#pragma once

#include "apps/stabilize_video/options.h"

namespace apps {

// Steadies every input into options.output_dir, several at once, each in a process of its own: what
// befalls one file does not touch the others. Tells what happens on standard error and returns the
// exit status. Must be called while the process has one thread.
int run_batch(const Options& options);

}  // namespace apps
