#pragma once

// The library's own use of the heap and of threads: counted, made to fail, and checked for what is
// not given back. What drivers and runtimes allocate is not touched.

namespace fault_support {

constexpr char LIBRARY[] = "libvideostabilizer";

// Leads the library's calls through here; once per process, before its threads run.
void watch_library_memory();

enum class Failing {
    ONCE,         // the n-th allocation
    FROM_THEN_ON  // that and all later ones
};

// Counts the library's allocations from now on, and has the n-th (from 1) fail; 0: none fails.
void fail_allocation(int n, Failing failing = Failing::ONCE);
// Likewise for the threads that it starts.
void fail_thread(int n);

// Ends both; what they found stays.
void let_all_succeed();

// Since the last fail_...
int allocations();
bool has_failed();

// Blocks that the library allocated and has not released. Hosts' frames are among them. A block that
// is released twice fails the test at once.
int live_blocks();

}  // namespace fault_support
