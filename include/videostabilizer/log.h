// SPDX-License-Identifier: Apache-2.0

#pragma once

#include "videostabilizer/export.h"

// The library logs through the Android log. On Android the platform's liblog receives the messages;
// elsewhere a weak default in the library writes one line per message to standard error. A program
// that defines __android_log_print itself receives them instead.
//
// Priorities in use: 4 (info), 5 (warning), 6 (error). One tag per module, for example
// "video_stabilizer", "warp_affine_ocl", "global_motion", "lk_pyradmid".
//
// Threads: thread-safe; a definition by the host must be too. No lock of the library is held during
//          the call, but OpenCL set-up logs from inside its once-guard: a definition must not call
//          module_init. Processing of the frame waits for the call.
// Returns: ignored by the library.

#if defined(__ANDROID__)
#include <android/log.h>
#else
extern "C" VIDEOSTABILIZER_API int __android_log_print(int priority, const char* tag,
                                                       const char* format, ...)
    __attribute__((format(printf, 3, 4)));
#endif
