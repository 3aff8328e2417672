// SPDX-License-Identifier: Apache-2.0

#include "platform/cpu_level.h"

namespace videostabilizer {

bool cpu_supports(CpuLevel level) {
    if (level == CpuLevel::PLAIN || VIDEOSTABILIZER_PLAIN) {
        return level == CpuLevel::PLAIN;
    }
    if (level == CpuLevel::SCALAR) {
        return true;
    }
#if defined(__x86_64__) || defined(__i386__)
    // Also checks that the operating system saves the wide registers.
    return level == CpuLevel::AVX2    ? static_cast<bool>(__builtin_cpu_supports("avx2"))
           : level == CpuLevel::SSE41 ? static_cast<bool>(__builtin_cpu_supports("sse4.1"))
           : level == CpuLevel::SSE2  ? static_cast<bool>(__builtin_cpu_supports("sse2"))
                                      : false;
#elif defined(__ARM_NEON)
    return level == CpuLevel::NEON;
#else
    return false;
#endif
}

}  // namespace videostabilizer
