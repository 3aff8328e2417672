// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "apps/stabilize_video/cli/options.h"

namespace apps {

// Stabilises options.inputs[0] into options.output, until a signal ends it. Reports errors on standard
// error, and the result unless options.quiet. Returns the exit status.
int run_job(const Options& options);

}  // namespace apps
