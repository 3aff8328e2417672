#pragma once

#include "videostabilizer/export.h"

// The library reports through the Android log. On Android the platform's own liblog receives the
// messages; elsewhere the library carries a weak default that writes one line per message to
// standard error. A program that defines __android_log_print itself receives them instead: the
// library calls it through the dynamic linker.
//
// Priorities in use: 4 (info), 5 (warning), 6 (error). One tag per module, for example
// "video_stabilizer", "warp_affine_ocl", "global_motion", "lk_pyradmid".
//
// Threads: called from any thread of the library, several at once; a definition of the host's must
//          allow that. No lock of the library is held while it runs, but the set-up of OpenCL logs
//          from within its once-guard: a definition must not call module_init. The frame waits for
//          as long as a call takes.
// Returns: ignored by the library.

#if defined(__ANDROID__)
#include <android/log.h>
#else
extern "C" VIDEOSTABILIZER_API int __android_log_print(int priority, const char* tag,
                                                       const char* format, ...)
    __attribute__((format(printf, 3, 4)));
#endif
