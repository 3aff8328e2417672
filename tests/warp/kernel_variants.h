// SPDX-License-Identifier: Apache-2.0

#pragma once

// The build options of the kernel source: all that the library uses on some device, and the plain
// definition. On a device without a faster variant, all are the same code.
struct KernelVariant {
    const char* name;
    const char* options;
};

// The first is the definition; the others give the same bytes. (Relaxed maths would allow a
// difference, but no compiler so far makes one.)
inline constexpr KernelVariant kernel_variants[] = {
    {"plain", "-cl-mad-enable -cl-fast-relaxed-math -D PLAIN_WARP"},
    {"plain_global", "-cl-mad-enable -cl-fast-relaxed-math -D PLAIN_WARP -D SOURCE_PLANES_GLOBAL"},
    {"fast", "-cl-mad-enable -cl-fast-relaxed-math"},
    {"fast_global", "-cl-mad-enable -cl-fast-relaxed-math -D SOURCE_PLANES_GLOBAL"},
};
