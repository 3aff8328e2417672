// Loaded before a program, this makes one of its own allocations fail, or one of the stabilisation
// library's; other libraries have their memory.
//
//   FAIL_ALLOCATION   which, counted from 1 where main begins; 0 or not set: none
//   COUNT_FILE        receives the number of allocations at the end, if it is set

#include <dlfcn.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <limits>
#include <new>

#include "tests/faults/library_calls.h"

namespace {

std::atomic<long> calls{0};
long failing = 0;

bool fails() {
    return ++calls == failing;
}

void* watched_malloc(std::size_t bytes) {
    return fails() ? nullptr : std::malloc(bytes);
}

void* watched_calloc(std::size_t count, std::size_t bytes) {
    return fails() ? nullptr : std::calloc(count, bytes);
}

void* watched_new(std::size_t bytes) {
    if (fails()) {
        throw std::bad_alloc();
    }
    return ::operator new(bytes);
}

void* watched_new_nothrow(std::size_t bytes, const std::nothrow_t& /*tag*/) {
    return fails() ? nullptr : ::operator new(bytes, std::nothrow);
}

template <typename Function>
void redirect(const char* symbol, Function* replacement) {
    for (const char* object : {"", "libvideostabilizer"}) {
        fault_support::redirect_calls(object, symbol, reinterpret_cast<void*>(replacement));
    }
}

// Initialisers of globals run before anybody could catch what they throw.
int (*program_main)(int, char**, char**) = nullptr;

int watched_main(int argc, char** argv, char** environment) {
    calls = 0;
    return program_main(argc, argv, environment);
}

using Start = int(int (*)(int, char**, char**), int, char**, void (*)(), void (*)(), void (*)(),
                  void*);

int watched_start(int (*run)(int, char**, char**), int argc, char** argv, void (*init)(),
                  void (*fini)(), void (*rtld_fini)(), void* stack_end) {
    program_main = run;
    auto* const start = reinterpret_cast<Start*>(dlsym(RTLD_NEXT, "__libc_start_main"));
    return start(watched_main, argc, argv, init, fini, rtld_fini, stack_end);
}

[[gnu::constructor]] void begin() {
    const char* const number = std::getenv("FAIL_ALLOCATION");  // NOLINT(concurrency-mt-unsafe)
    failing = number != nullptr ? std::atol(number) : 0;        // NOLINT(cert-err34-c)
    // Not for what the program starts: PoCL calls the linker.
    unsetenv("LD_PRELOAD");  // NOLINT(concurrency-mt-unsafe)
    calls = std::numeric_limits<long>::min();
    redirect("__libc_start_main", watched_start);
    redirect("malloc", watched_malloc);
    redirect("calloc", watched_calloc);
    redirect("_Znwm", watched_new);
    redirect("_ZnwmRKSt9nothrow_t", watched_new_nothrow);
}

[[gnu::destructor]] void end() {
    const char* const path = std::getenv("COUNT_FILE");  // NOLINT(concurrency-mt-unsafe)
    std::FILE* const file = path != nullptr ? std::fopen(path, "w") : nullptr;
    if (file != nullptr) {
        std::fprintf(file, "%ld\n", calls.load());
        std::fclose(file);
    }
}

}  // namespace
