// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>

// Receives the stabilizer library's log: silent unless shown, the first errors are kept for messages
// to the user. Threads: thread-safe.

namespace apps {

// Shows all messages on standard error, or none (the default).
void show_library_log(bool show);

// Discards the errors kept so far.
void forget_library_errors();

// The errors since then in one line; "" if there were none.
std::string library_errors();

}  // namespace apps
