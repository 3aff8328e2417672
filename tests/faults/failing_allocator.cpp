// SPDX-License-Identifier: Apache-2.0

// Loaded before a program, this makes one of its own allocations fail, or one of the stabilisation
// library's; other libraries have their memory.
//
//   FAIL_ALLOCATION   which, counted from 1 where main begins; 0 or not set: none
//   COUNT_FILE        receives the number of allocations at the end, if it is set

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "tests/faults/library_calls.h"

namespace {

using test_support::ALLOCATION;
using Main = int(int, char**, char**);

Main* program_main = nullptr;

// What initialisers of globals throw, nobody could catch: the count starts here.
int watched_main(int argc, char** argv, char** environment) {
    const char* const number = std::getenv("FAIL_ALLOCATION");      // NOLINT(concurrency-mt-unsafe)
    const int failing = number != nullptr ? std::atoi(number) : 0;  // NOLINT(cert-err34-c)
    test_support::fail({ALLOCATION, failing, failing});
    return program_main(argc, argv, environment);
}

using Start = int(Main*, int, char**, void (*)(), void (*)(), void (*)(), void*);

int watched_start(Main* run, int argc, char** argv, void (*init)(), void (*fini)(),
                  void (*rtld_fini)(), void* stack_end) {
    program_main = run;
    auto* const start = reinterpret_cast<Start*>(dlsym(RTLD_NEXT, "__libc_start_main"));
    return start(watched_main, argc, argv, init, fini, rtld_fini, stack_end);
}

[[gnu::constructor]] void begin() {
    // Not for what the program starts: PoCL calls the linker.
    unsetenv("LD_PRELOAD");  // NOLINT(concurrency-mt-unsafe)
    test_support::redirect_calls("", "__libc_start_main", reinterpret_cast<void*>(watched_start));
    test_support::watch_allocations("");
    test_support::watch_allocations(test_support::LIBRARY);
}

[[gnu::destructor]] void end() {
    const char* const path = std::getenv("COUNT_FILE");  // NOLINT(concurrency-mt-unsafe)
    std::FILE* const file = path != nullptr ? std::fopen(path, "w") : nullptr;
    if (file != nullptr) {
        std::fprintf(file, "%d\n", test_support::calls(ALLOCATION));
        std::fclose(file);
    }
}

}  // namespace
