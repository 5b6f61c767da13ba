// What the blur shares with its tests.
#ifndef KUV_FILTER_BLUR_H
#define KUV_FILTER_BLUR_H

#include "kuv_own.h"

// Test hook: -1 lets the CPU check choose, 0 forces the portable worker, 1 the
// AVX2 one where the CPU has it.
void ownBlurSelectPath(int path);

#endif
