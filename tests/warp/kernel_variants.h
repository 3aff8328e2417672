#pragma once

// The ways in which the kernel source can be built: all that the library uses on one device or
// another, and the plain definition. Where a device has nothing faster, variants are the same code.
struct KernelVariant {
    const char* name;
    const char* options;
};

// The first is the definition; the others give its bytes. (All have the same freedom of relaxed
// maths, and as yet no compiler uses it differently.)
inline constexpr KernelVariant kernel_variants[] = {
    {"plain", "-cl-mad-enable -cl-fast-relaxed-math -D PLAIN_WARP"},
    {"plain_global", "-cl-mad-enable -cl-fast-relaxed-math -D PLAIN_WARP -D SOURCE_PLANES_GLOBAL"},
    {"fast", "-cl-mad-enable -cl-fast-relaxed-math"},
    {"fast_global", "-cl-mad-enable -cl-fast-relaxed-math -D SOURCE_PLANES_GLOBAL"},
};
