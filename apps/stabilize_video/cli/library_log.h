#pragma once

#include <string>

// The stabilizer library's log, which this program receives instead of the library's own default.
// Silent unless shown; errors are remembered for the program's own messages. Thread-safe.

namespace apps {

// Shows every message on standard error, or none (as at the start).
void show_library_log(bool show);

// Forgets the errors so far: what comes next belongs to the next step.
void forget_library_errors();

// The errors since then, as one line; empty if there were none.
std::string library_errors();

// Whether a thread of the library has reported that it ended with an error. The stabilizer then
// delivers nothing more.
bool library_thread_failed();

}  // namespace apps
