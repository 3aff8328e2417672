// The address space of the source planes. For devices whose constant buffers are too small for a
// picture, the host defines SOURCE_PLANES_GLOBAL; the results are the same.
#ifdef SOURCE_PLANES_GLOBAL
#define SOURCE __global const
#else
#define SOURCE __constant
#endif

// Gathers eight elements: dst.k = ptr[off.k].
#define LOAD8(dst, ptr, off)                                                  \
    ((dst).s0 = (ptr)[(off).s0], (dst).s1 = (ptr)[(off).s1],                  \
     (dst).s2 = (ptr)[(off).s2], (dst).s3 = (ptr)[(off).s3],                  \
     (dst).s4 = (ptr)[(off).s4], (dst).s5 = (ptr)[(off).s5],                  \
     (dst).s6 = (ptr)[(off).s6], (dst).s7 = (ptr)[(off).s7])
