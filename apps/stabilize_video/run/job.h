#pragma once

#include "apps/stabilize_video/options.h"

namespace apps {

// Steadies options.inputs[0] into options.output. Problems are told on standard error, as is what
// has been done unless options.quiet. Returns the exit status.
int run_job(const Options& options);

}  // namespace apps
