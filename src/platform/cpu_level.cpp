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
    // The operating system's part, saving the wide registers, is asked as well.
    return level == CpuLevel::AVX2   ? __builtin_cpu_supports("avx2") != 0
           : level == CpuLevel::SSE2 ? __builtin_cpu_supports("sse2") != 0
                                     : false;
#elif defined(__ARM_NEON)
    return level == CpuLevel::NEON;
#else
    return false;
#endif
}

}  // namespace videostabilizer
