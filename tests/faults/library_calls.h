// SPDX-License-Identifier: Apache-2.0

#pragma once

// The calls that the library makes to others: counted, made to fail, and checked for what is not
// released. They are redirected through the relocations of the loaded objects, which, unlike a
// definition that takes precedence everywhere, leaves alone the drivers and runtimes of the process
// and works beside the sanitizers' own definitions. A block or an OpenCL object that is released
// twice, or was never made, ends the process.

namespace test_support {

constexpr char LIBRARY[] = "libvideostabilizer";

// Redirects the calls of `symbol` (a pattern, as the shell's) that are made by the loaded objects
// whose path contains `object` ("": the program itself). Returns the number of places that were
// changed. Not while other threads run those objects.
int redirect_calls(const char* object, const char* symbol, void* replacement);

// Watch allocations, and everything below. Also have warp stages wait so long that a lost wake-up
// hangs the test. Not while other threads run the library.
void watch_allocations(const char* object);
bool watch_library();

constexpr char ALLOCATION[] = "allocation";  // malloc, calloc and operator new

// Which calls fail. They are not made, except for those that release something and clFinish: these
// are made and report the error. Where a failed call should return an OpenCL object, it returns an
// address that must not be used, as some drivers do.
struct Fault {
    const char* call = "";     // ALLOCATION, "pthread_create" or an OpenCL function; "": none
    int first = 1;             // of the calls of this name, counted from 1 ...
    int last = 1;              // ... the first and last one that fails
    int error = -5;            // CL_OUT_OF_RESOURCES; 0: the call does nothing and reports success
    bool device_lost = false;  // after the first, every OpenCL call fails
};
constexpr int ALL_LATER = 1 << 30;  // as `last`

void fail(const Fault& fault);  // counts from now on
bool let_all_succeed();         // whether a call has failed; counts go on
int calls(const char* call);    // of that name, since fail()

// Blocks, and kernels, command queues and buffers, that the library made and has not released.
// Frames of the host are blocks of the library.
int live_blocks();
long live_bytes();  // of the blocks
int live_opencl_objects();

}  // namespace test_support
