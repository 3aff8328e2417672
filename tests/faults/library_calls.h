#pragma once

// Calls that a shared object makes to others, led elsewhere. Unlike a definition that stands before
// all others, this leaves alone the drivers and runtimes in the same process, which call the same
// functions, and works beside the sanitizers' own definitions.

namespace fault_support {

// Calls of `symbol` made by the loaded objects whose path contains `object`, which for the program
// itself is "", go to `replacement` from now on. Returns the number of places that were changed. Not
// while other threads run those objects.
int redirect_calls(const char* object, const char* symbol, void* replacement);

}  // namespace fault_support
