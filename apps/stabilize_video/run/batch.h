// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "apps/stabilize_video/cli/options.h"

namespace apps {

// Stabilises every input into options.output_dir, several at once, each in a process of its own, so
// that a failure does not affect other files. No process is left when it returns. Reports on standard
// error and returns the exit status. Must be called while the process has one thread.
int run_batch(const Options& options);

}  // namespace apps
