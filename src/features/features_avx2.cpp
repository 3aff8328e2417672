// The corner scan and the tracking windows with AVX2 instructions, for which the build sets the
// options of this file.

#define VS_LEVEL avx2

#include "features/fast16_vector.h"
#include "features/lucas_kanade_vector.h"
