// SPDX-License-Identifier: Apache-2.0

#define CL_TARGET_OPENCL_VERSION 120
#define CL_USE_DEPRECATED_OPENCL_1_2_APIS
#include "tests/faults/library_calls.h"

#include <CL/cl.h>
#include <dlfcn.h>
#include <fnmatch.h>
#include <link.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>

#include "videostabilizer/affine_transformer_ocl.h"

namespace test_support {

namespace {

// NOLINTBEGIN(performance-no-int-to-ptr): the loader gives addresses as numbers

// From the dynamic section of an object; 0 if it has no such entry.
std::uintptr_t entry(const link_map& object, int tag) {
    const ElfW(Dyn)* entry = object.l_ld;
    while (entry->d_tag != DT_NULL && entry->d_tag != tag) {
        ++entry;
    }
    return entry->d_tag == tag ? entry->d_un.d_ptr : 0;
}

// Writes to memory that the loader may have made read-only.
void overwrite(std::uintptr_t slot, void* value) {
    const auto page_bytes = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    mprotect(reinterpret_cast<void*>(slot & ~(page_bytes - 1)), page_bytes, PROT_READ | PROT_WRITE);
    *reinterpret_cast<void**>(slot) = value;
}

int redirect_in(const link_map& object, const char* symbol, void* replacement) {
    const auto* const symbols = reinterpret_cast<const ElfW(Sym)*>(entry(object, DT_SYMTAB));
    const auto* const names = reinterpret_cast<const char*>(entry(object, DT_STRTAB));
    if (symbols == nullptr || names == nullptr) {
        return 0;
    }
    // A processor has relocations with addends or without; both begin alike.
    const std::size_t bytes = entry(object, DT_REL) == 0 ? sizeof(ElfW(Rela)) : sizeof(ElfW(Rel));
    int changed = 0;
    for (const auto& [table, size] :
         {std::pair{DT_JMPREL, DT_PLTRELSZ}, {DT_RELA, DT_RELASZ}, {DT_REL, DT_RELSZ}}) {
        const std::uintptr_t start = entry(object, table);
        const std::uintptr_t end = start + (start != 0 ? entry(object, size) : 0);
        for (std::uintptr_t at = start; at < end; at += bytes) {
            const auto& slot = *reinterpret_cast<const ElfW(Rel)*>(at);
            const auto& imported = symbols[slot.r_info >> (sizeof(slot.r_info) == 8 ? 32 : 8)];
            if (fnmatch(symbol, names + imported.st_name, 0) == 0) {
                overwrite(object.l_addr + slot.r_offset, replacement);
                ++changed;
            }
        }
    }
    return changed;
}

// NOLINTEND(performance-no-int-to-ptr)

template <typename Function>
void redirect(const char* object, const char* symbol, Function* replacement) {
    redirect_calls(object, symbol, reinterpret_cast<void*>(replacement));
}

using Ledger = std::set<const void*>;

struct Books {
    std::mutex mutex;  // guards the rest
    Fault fault;
    bool failed = false;
    std::map<std::string, int> counts;
    Ledger blocks;
    Ledger objects;
};

// Never destroyed: calls are redirected until the process has ended.
Books& books = *new Books;

// Counts a call, and returns the error with which it is to fail.
std::optional<int> next_call(const char* call) {
    const std::lock_guard<std::mutex> lock(books.mutex);
    const Fault& fault = books.fault;
    const int number = ++books.counts[call];
    const bool chosen =
        std::strcmp(fault.call, call) == 0 && number >= fault.first && number <= fault.last;
    const bool lost = fault.device_lost && books.failed && std::strncmp(call, "cl", 2) == 0;
    books.failed = books.failed || chosen;
    return chosen || lost ? std::optional(fault.error) : std::nullopt;
}

template <typename Pointer>
Pointer made(Ledger& ledger, Pointer what) {
    const std::lock_guard<std::mutex> lock(books.mutex);
    if (what != nullptr) {
        ledger.insert(what);
    }
    return what;
}

template <typename Pointer>
Pointer released(Ledger& ledger, Pointer what) {
    const std::lock_guard<std::mutex> lock(books.mutex);
    if (what != nullptr && ledger.erase(what) == 0) {
        std::fprintf(stderr, "released twice, or never made\n");
        std::abort();
    }
    return what;
}

// What the library calls in place of the functions of the same names.

void* watched_malloc(std::size_t bytes) {
    return next_call(ALLOCATION) ? nullptr : made(books.blocks, std::malloc(bytes));
}

void* watched_calloc(std::size_t count, std::size_t bytes) {
    return next_call(ALLOCATION) ? nullptr : made(books.blocks, std::calloc(count, bytes));
}

void watched_free(void* block) {
    std::free(released(books.blocks, block));
}

void* watched_new_nothrow(std::size_t bytes, const std::nothrow_t& /*tag*/) {
    return next_call(ALLOCATION) ? nullptr : made(books.blocks, ::operator new(bytes));
}

void* watched_new(std::size_t bytes) {
    void* const block = watched_new_nothrow(bytes, std::nothrow);
    return block != nullptr ? block : throw std::bad_alloc();
}

void watched_delete(void* block) {
    ::operator delete(released(books.blocks, block));
}

void watched_delete_sized(void* block, std::size_t /*bytes*/) {
    watched_delete(block);
}

int watched_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                           void* (*body)(void*), void* argument) {
    return next_call("pthread_create") ? EAGAIN
                                       : pthread_create(thread, attributes, body, argument);
}

videostabilizer::AffineTransformerOcl* create_patiently(
    int in_place, void* user, videostabilizer::AffineTransformerCallbacks callbacks, int capacity) {
    auto* const t =
        videostabilizer::affine_transformer_ocl_create(in_place, user, callbacks, capacity);
    if (t != nullptr) {
        t->timeout_ms = 600'000;
    }
    return t;
}

// The context and the program, which live until the process ends, are no objects of a stream.
template <typename T>
constexpr bool OF_A_STREAM = std::is_same_v<T, cl_kernel> || std::is_same_v<T, cl_command_queue> ||
                             std::is_same_v<T, cl_mem>;

// One function of OpenCL. Those that make an object return it, and their error through their last
// argument; the others return their error.
template <auto FUNCTION>
struct Watched;

template <typename Result, typename First, typename... Others, Result (*FUNCTION)(First, Others...)>
struct Watched<FUNCTION> {
    static inline const char* name = nullptr;
    static inline decltype(FUNCTION) loaded = nullptr;

    static Result call(First first, Others... others) {
        const std::optional<int> error = next_call(name);
        if constexpr (std::is_pointer_v<Result>) {
            if (error) {
                *std::get<sizeof...(Others) - 1>(std::tie(others...)) = *error;
                // NOLINTNEXTLINE(performance-no-int-to-ptr): not null, and nothing is there
                return reinterpret_cast<Result>(std::uintptr_t{0x10});
            }
            Result object = loaded(first, others...);
            return OF_A_STREAM<Result> ? made(books.objects, object) : object;
        } else {
            const bool releases = std::strncmp(name, "clRelease", 9) == 0;
            if constexpr (OF_A_STREAM<First>) {
                released(books.objects, releases ? first : nullptr);
            }
            const bool ends = releases || std::strcmp(name, "clFinish") == 0;
            const Result result = ends || !error ? loaded(first, others...) : CL_SUCCESS;
            return error.value_or(result);
        }
    }
};

template <auto FUNCTION>
void watch(const char* name) {
    Watched<FUNCTION>::name = name;
    // The program's own calls, these here among them, are redirected too.
    Watched<FUNCTION>::loaded = reinterpret_cast<decltype(FUNCTION)>(dlsym(RTLD_DEFAULT, name));
    redirect("", name, Watched<FUNCTION>::call);
    redirect(LIBRARY, name, Watched<FUNCTION>::call);
}

}  // namespace

int redirect_calls(const char* object, const char* symbol, void* replacement) {
    int changed = 0;
    const link_map* const program = _r_debug.r_map;
    for (const link_map* o = program; o != nullptr; o = o->l_next) {
        if (*object == '\0' ? o == program : std::strstr(o->l_name, object) != nullptr) {
            changed += redirect_in(*o, symbol, replacement);
        }
    }
    return changed;
}

void watch_allocations(const char* object) {
    redirect(object, "malloc", watched_malloc);
    redirect(object, "calloc", watched_calloc);
    redirect(object, "_Zn[wa]?", watched_new);
    redirect(object, "_Znw?RKSt9nothrow_t", watched_new_nothrow);
}

bool watch_library() {
    watch_allocations(LIBRARY);
    redirect(LIBRARY, "free", watched_free);
    redirect(LIBRARY, "_Zd[la]Pv", watched_delete);
    redirect(LIBRARY, "_ZdlPv?", watched_delete_sized);
    redirect(LIBRARY, "pthread_create", watched_pthread_create);
    redirect(LIBRARY, "*affine_transformer_ocl_create*", create_patiently);
#define WATCH(function) watch<&(function)>(#function)
    WATCH(clBuildProgram);
    WATCH(clCreateBuffer);
    WATCH(clCreateCommandQueue);
    WATCH(clCreateContextFromType);
    WATCH(clCreateKernel);
    WATCH(clCreateProgramWithSource);
    WATCH(clEnqueueNDRangeKernel);
    WATCH(clEnqueueReadBuffer);
    WATCH(clEnqueueReadBufferRect);
    WATCH(clEnqueueWriteBuffer);
    WATCH(clEnqueueWriteBufferRect);
    WATCH(clFinish);
    WATCH(clFlush);
    WATCH(clGetContextInfo);
    WATCH(clGetDeviceInfo);
    WATCH(clGetKernelWorkGroupInfo);
    WATCH(clGetPlatformIDs);
    WATCH(clGetPlatformInfo);
    WATCH(clGetProgramBuildInfo);
    WATCH(clReleaseCommandQueue);
    WATCH(clReleaseKernel);
    WATCH(clReleaseMemObject);
    WATCH(clSetKernelArg);
    WATCH(clWaitForEvents);
#undef WATCH
    return true;
}

void fail(const Fault& fault) {
    const std::lock_guard<std::mutex> lock(books.mutex);
    books.fault = fault;
    books.counts.clear();
    books.failed = false;
}

bool let_all_succeed() {
    const std::lock_guard<std::mutex> lock(books.mutex);
    books.fault = {};
    return books.failed;
}

int calls(const char* call) {
    const std::lock_guard<std::mutex> lock(books.mutex);
    return books.counts[call];
}

int live_blocks() {
    const std::lock_guard<std::mutex> lock(books.mutex);
    return static_cast<int>(books.blocks.size());
}

long live_bytes() {
    const std::lock_guard<std::mutex> lock(books.mutex);
    std::size_t bytes = 0;
    for (const void* block : books.blocks) {
        bytes += malloc_usable_size(const_cast<void*>(block));
    }
    return static_cast<long>(bytes);
}

int live_opencl_objects() {
    const std::lock_guard<std::mutex> lock(books.mutex);
    return static_cast<int>(books.objects.size());
}

}  // namespace test_support
