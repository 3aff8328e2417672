#include "tests/faults/memory_faults.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <mutex>
#include <new>
#include <set>

#include "tests/faults/library_calls.h"

namespace fault_support {

namespace {

// Counts calls, and picks those that fail.
class Trap {
  public:
    void set(int n, Failing failing) {
        sprung_ = false;
        calls_ = 0;
        failing_ = failing;
        n_ = n;
    }
    void stop() { n_ = 0; }  // counts go on
    bool fails() {
        const int call = ++calls_;
        const int n = n_;
        const bool hit =
            n > 0 && (call == n || (failing_.load() == Failing::FROM_THEN_ON && call > n));
        if (hit) {
            sprung_ = true;
        }
        return hit;
    }
    int calls() const { return calls_; }
    bool sprung() const { return sprung_; }

  private:
    std::atomic<int> n_{0};
    std::atomic<int> calls_{0};
    std::atomic<Failing> failing_{Failing::ONCE};
    std::atomic<bool> sprung_{false};
};

Trap allocation_trap;
Trap thread_trap;

std::mutex blocks_mutex;
std::set<const void*> blocks;  // under blocks_mutex

void* noted(void* block) {
    if (block != nullptr) {
        const std::lock_guard<std::mutex> lock(blocks_mutex);
        blocks.insert(block);
    }
    return block;
}

void* forgotten(void* block) {
    if (block != nullptr) {
        const std::lock_guard<std::mutex> lock(blocks_mutex);
        EXPECT_EQ(blocks.erase(block), 1U) << "released twice, or never allocated";
    }
    return block;
}

// What the library calls in place of the functions of the same names.

void* watched_malloc(std::size_t bytes) {
    return allocation_trap.fails() ? nullptr : noted(std::malloc(bytes));
}

void* watched_calloc(std::size_t count, std::size_t bytes) {
    return allocation_trap.fails() ? nullptr : noted(std::calloc(count, bytes));
}

void watched_free(void* block) {
    std::free(forgotten(block));
}

void* watched_new(std::size_t bytes) {
    if (allocation_trap.fails()) {
        throw std::bad_alloc();
    }
    return noted(::operator new(bytes));
}

void* watched_new_nothrow(std::size_t bytes, const std::nothrow_t& /*tag*/) {
    return allocation_trap.fails() ? nullptr : noted(::operator new(bytes, std::nothrow));
}

void watched_delete(void* block) {
    ::operator delete(forgotten(block));
}

void watched_delete_sized(void* block, std::size_t /*bytes*/) {
    ::operator delete(forgotten(block));  // clang declares the sized one on request only
}

void watched_delete_nothrow(void* block, const std::nothrow_t& /*tag*/) {
    ::operator delete(forgotten(block), std::nothrow);
}

int watched_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                           void* (*body)(void*), void* argument) {
    return thread_trap.fails() ? EAGAIN : pthread_create(thread, attributes, body, argument);
}

// A library that is built otherwise must not slip past.
void* must_not_be_called(std::size_t /*bytes*/) {
    ADD_FAILURE() << "an allocation that nobody watches";
    std::abort();
}

template <typename Function>
int redirect(const char* symbol, Function* replacement) {
    return redirect_calls(LIBRARY, symbol, reinterpret_cast<void*>(replacement));
}

}  // namespace

void watch_library_memory() {
    static const bool done = [] {
        EXPECT_GT(redirect("malloc", watched_malloc), 0);
        EXPECT_GT(redirect("calloc", watched_calloc), 0);
        EXPECT_GT(redirect("free", watched_free), 0);
        EXPECT_GT(redirect("_Znwm", watched_new), 0);
        EXPECT_GT(redirect("_ZnwmRKSt9nothrow_t", watched_new_nothrow), 0);
        EXPECT_GT(redirect("pthread_create", watched_pthread_create), 0);
        const int deletes = redirect("_ZdlPv", watched_delete) +
                            redirect("_ZdlPvm", watched_delete_sized) +
                            redirect("_ZdlPvRKSt9nothrow_t", watched_delete_nothrow);
        EXPECT_GT(deletes, 0);
        for (const char* other : {"realloc", "aligned_alloc", "posix_memalign", "_Znam",
                                  "_ZnamRKSt9nothrow_t", "_ZnwmSt11align_val_t"}) {
            redirect(other, must_not_be_called);
        }
        return true;
    }();
    static_cast<void>(done);
}

void fail_allocation(int n, Failing failing) {
    allocation_trap.set(n, failing);
}

void fail_thread(int n) {
    thread_trap.set(n, Failing::ONCE);
}

void let_all_succeed() {
    allocation_trap.stop();
    thread_trap.stop();
}

int allocations() {
    return allocation_trap.calls();
}

bool has_failed() {
    return allocation_trap.sprung() || thread_trap.sprung();
}

int live_blocks() {
    const std::lock_guard<std::mutex> lock(blocks_mutex);
    return static_cast<int>(blocks.size());
}

}  // namespace fault_support
