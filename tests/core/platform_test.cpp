// The rounding guard of the float maps: a caller may have changed the
// rounding of one floating-point unit alone, and the call must round to
// nearest and give the caller's modes back on both units.
#include "tests/support/kuv_test.h"

#include <cfenv>

#if defined(__GNUC__) && (defined(__x86_64__) || (defined(__i386__) && defined(__SSE__)))
#include <x86intrin.h>

namespace {

using namespace kuvtest;

unsigned short x87Word() {
    unsigned short cw = 0;
    __asm__ volatile("fnstcw %0" : "=m"(cw));
    return cw;
}

void setX87Word(unsigned short cw) { __asm__ volatile("fldcw %0" : : "m"(cw)); }

TEST(RoundNearest, EachUnitSetAloneIsSetToNearestAndPutBack) {
    // 2.7/255 and 0.6/255 over the range 0..1 become 2.7 and 0.6 in 8U:
    // 3 and 1 to nearest, 2 and 0 rounding down.
    ImagePtr src = makeImage(KUV_DEPTH_32F, 1, 2, 1), dst = makeImage(KUV_DEPTH_8U, 1, 2, 1);
    put(src.get(), 0, 0, 0, 2.7 / 255), put(src.get(), 1, 0, 0, 0.6 / 255);
    const unsigned csr = _mm_getcsr();
    const unsigned short cw = x87Word();
    for (int unit = 0; unit < 2; ++unit) {
        SCOPED_TRACE(unit == 0 ? "SSE rounding down" : "x87 rounding down");
        if (unit == 0) _mm_setcsr((csr & ~0x6000u) | 0x2000u);
        else setX87Word(static_cast<unsigned short>((cw & ~0x0C00u) | 0x0400u));
        const unsigned csrBefore = _mm_getcsr();
        const unsigned short cwBefore = x87Word();
        EXPECT_EQ(kuvScaleFP(src.get(), dst.get(), 0.0f, 1.0f), 0);
        EXPECT_EQ(get(dst.get(), 0, 0, 0), 3.0);
        EXPECT_EQ(get(dst.get(), 1, 0, 0), 1.0);
        EXPECT_EQ(_mm_getcsr() & 0x6000u, csrBefore & 0x6000u);
        EXPECT_EQ(x87Word() & 0x0C00u, cwBefore & 0x0C00u);
        _mm_setcsr(csr);
        setX87Word(cw);
    }
}

}  // namespace
#endif
