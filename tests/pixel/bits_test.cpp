// The bit-row kernels ownLogicBits, ownLogicBitsS and ownCopyBits against a
// bit-by-bit reference: every operator, every pair of source and destination
// bit offsets, widths from 1 to 200, whole destination buffers compared, and
// source rows placed against inaccessible pages so that a read of any byte
// outside a row's needed bytes faults, with or without a sanitizer.
#include "tests/support/kuv_test.h"

#include "kuv_own.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

namespace {

// ------------------------------------------------------------ reference

bool bitOf(const uint8_t* row, int i) { return ((row[i >> 3] >> (7 - (i & 7))) & 1) != 0; }

void putBit(uint8_t* row, int i, bool v) {
    const auto m = static_cast<uint8_t>(0x80u >> (i & 7));
    row[i >> 3] = static_cast<uint8_t>(v ? (row[i >> 3] | m) : (row[i >> 3] & ~m));
}

bool applyOp(OwnBitOp op, bool a, bool b) {
    switch (op) {
        case OWN_BIT_AND: return a && b;
        case OWN_BIT_OR: return a || b;
        case OWN_BIT_XOR: return a != b;
        case OWN_BIT_AND_NOT: return a && !b;
        case OWN_BIT_COPY: return a;
    }
    return false;
}

const char* opName(OwnBitOp op) {
    switch (op) {
        case OWN_BIT_AND: return "AND";
        case OWN_BIT_OR: return "OR";
        case OWN_BIT_XOR: return "XOR";
        case OWN_BIT_AND_NOT: return "AND_NOT";
        case OWN_BIT_COPY: return "COPY";
    }
    return "?";
}

constexpr OwnBitOp kOps[] = {OWN_BIT_AND, OWN_BIT_OR, OWN_BIT_XOR, OWN_BIT_AND_NOT, OWN_BIT_COPY};

// One call's geometry. b < 0 means a constant operand (constBit).
struct Geometry {
    int offA, offB, offD, width, rows;
    ptrdiff_t stepA, stepB, stepD;
};

// dst bits offD + c of each row become op(a bit offA + c, b bit offB + c).
void reference(OwnBitOp op, const uint8_t* a, const uint8_t* b, bool constBit, uint8_t* d,
               const Geometry& g) {
    for (int r = 0; r < g.rows; ++r) {
        const uint8_t* ar = a + r * g.stepA;
        const uint8_t* br = b != nullptr ? b + r * g.stepB : nullptr;
        uint8_t* dr = d + r * g.stepD;
        for (int c = 0; c < g.width; ++c) {
            const bool bv = br != nullptr ? bitOf(br, g.offB + c) : constBit;
            putBit(dr, g.offD + c, applyOp(op, bitOf(ar, g.offA + c), bv));
        }
    }
}

// Bytes a row of `width` bits from bit `off` needs.
int neededBytes(int off, int width) { return (off + width - 1) / 8 + 1; }

// Widths 1..72 each (every head/tail combination over several whole words),
// then a spread up to 200 that crosses more word boundaries.
std::vector<int> sweepWidths() {
    std::vector<int> w;
    for (int i = 1; i <= 72; ++i) w.push_back(i);
    for (int i : {73, 79, 80, 81, 95, 96, 97, 111, 120, 127, 128, 129, 135, 136, 137, 151, 160,
                  167, 176, 183, 191, 192, 193, 199, 200}) {
        w.push_back(i);
    }
    return w;
}

// A fast fixed generator for the byte buffers of the sweeps.
struct XorShift {
    uint64_t s;
    uint8_t byte() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return static_cast<uint8_t>(s >> 24);
    }
    void fill(std::vector<uint8_t>& v) {
        for (auto& b : v) b = byte();
    }
};

std::string describe(const char* kernel, OwnBitOp op, const Geometry& g, int value = 0) {
    std::ostringstream out;
    out << kernel << " op " << opName(op) << " offA " << g.offA << " offB " << g.offB << " offD "
        << g.offD << " width " << g.width << " rows " << g.rows << " steps " << g.stepA << "/"
        << g.stepB << "/" << g.stepD << " value " << value;
    return out.str();
}

std::string firstDifference(const std::vector<uint8_t>& want, const std::vector<uint8_t>& got) {
    for (size_t i = 0; i < want.size(); ++i) {
        if (want[i] != got[i]) {
            std::ostringstream out;
            out << "byte " << i << ": want 0x" << std::hex << int(want[i]) << " got 0x"
                << int(got[i]);
            return out.str();
        }
    }
    return "none";
}

// Buffers with room for `rows` rows of the given steps.
std::vector<uint8_t> rowsBuffer(ptrdiff_t step, int rows) {
    return std::vector<uint8_t>(static_cast<size_t>(step * rows));
}

// ------------------------------------------------------------ sweeps

TEST(BitsLogic, EveryOperatorOffsetTripleAndWidth) {
    XorShift rng{0x5EED1234ull};
    int failures = 0;
    for (OwnBitOp op : kOps) {
        if (op == OWN_BIT_COPY) continue;   // ownCopyBits below; COPY through ownLogicBits too
        for (int width : sweepWidths()) {
            for (int offA = 0; offA < 8; ++offA) {
                for (int offB = 0; offB < 8; ++offB) {
                    for (int offD = 0; offD < 8; ++offD) {
                        // Steps differ per buffer and leave a few bytes between rows.
                        const Geometry g{offA, offB, offD, width, 2,
                                         neededBytes(offA, width) + 1 + (offB & 3),
                                         neededBytes(offB, width) + 2 + (offD & 1),
                                         neededBytes(offD, width) + 3};
                        auto a = rowsBuffer(g.stepA, 2), b = rowsBuffer(g.stepB, 2),
                             d = rowsBuffer(g.stepD, 2);
                        rng.fill(a);
                        rng.fill(b);
                        rng.fill(d);
                        auto want = d;
                        reference(op, a.data(), b.data(), false, want.data(), g);
                        ownLogicBits(op, a.data(), b.data(), d.data(), offA, offB, offD, width,
                                     2, g.stepA, g.stepB, g.stepD);
                        if (want != d && ++failures <= 10) {
                            ADD_FAILURE() << describe("ownLogicBits", op, g) << ": "
                                          << firstDifference(want, d);
                        }
                    }
                }
            }
        }
    }
    EXPECT_EQ(failures, 0);
}

TEST(BitsLogic, CopyOperatorIgnoresSecondSource) {
    // COPY through ownLogicBits with a null second source: only srcA counts.
    XorShift rng{77};
    int failures = 0;
    for (int width : sweepWidths()) {
        for (int offA = 0; offA < 8; ++offA) {
            for (int offD = 0; offD < 8; ++offD) {
                const Geometry g{offA, 0, offD, width, 3, neededBytes(offA, width) + 2, 0,
                                 neededBytes(offD, width) + 1};
                auto a = rowsBuffer(g.stepA, 3), d = rowsBuffer(g.stepD, 3);
                rng.fill(a);
                rng.fill(d);
                auto want = d;
                reference(OWN_BIT_COPY, a.data(), nullptr, false, want.data(), g);
                ownLogicBits(OWN_BIT_COPY, a.data(), nullptr, d.data(), offA, 0, offD, width, 3,
                             g.stepA, 0, g.stepD);
                if (want != d && ++failures <= 10) {
                    ADD_FAILURE() << describe("ownLogicBits", OWN_BIT_COPY, g) << ": "
                                  << firstDifference(want, d);
                }
            }
        }
    }
    EXPECT_EQ(failures, 0);
}

TEST(BitsLogicS, EveryOperatorOffsetPairWidthAndValue) {
    XorShift rng{0xC0FFEEull};
    int failures = 0;
    // Only bit 0 of the value counts: 2 and -2 act as 0, 3 and -1 as all ones.
    const int values[] = {0, 1, 2, 3, -1, -2};
    for (OwnBitOp op : kOps) {
        for (int value : values) {
            for (int width : sweepWidths()) {
                for (int offS = 0; offS < 8; ++offS) {
                    for (int offD = 0; offD < 8; ++offD) {
                        const Geometry g{offS, 0, offD, width, 3, neededBytes(offS, width) + 1,
                                         0, neededBytes(offD, width) + 2};
                        auto s = rowsBuffer(g.stepA, 3), d = rowsBuffer(g.stepD, 3);
                        rng.fill(s);
                        rng.fill(d);
                        auto want = d;
                        reference(op, s.data(), nullptr, (value & 1) != 0, want.data(), g);
                        ownLogicBitsS(op, s.data(), d.data(), offS, offD, width, 3, g.stepA,
                                      g.stepD, value);
                        if (want != d && ++failures <= 10) {
                            ADD_FAILURE() << describe("ownLogicBitsS", op, g, value) << ": "
                                          << firstDifference(want, d);
                        }
                    }
                }
            }
        }
    }
    EXPECT_EQ(failures, 0);
}

TEST(BitsCopy, EveryOffsetPairAndWidth) {
    XorShift rng{0xB17Bull};
    int failures = 0;
    for (int width : sweepWidths()) {
        for (int offS = 0; offS < 8; ++offS) {
            for (int offD = 0; offD < 8; ++offD) {
                for (int rows : {1, 4}) {
                    const Geometry g{offS, 0, offD, width, rows, neededBytes(offS, width) + 3, 0,
                                     neededBytes(offD, width) + 1};
                    auto s = rowsBuffer(g.stepA, rows), d = rowsBuffer(g.stepD, rows);
                    rng.fill(s);
                    rng.fill(d);
                    auto want = d;
                    reference(OWN_BIT_COPY, s.data(), nullptr, false, want.data(), g);
                    ownCopyBits(s.data(), d.data(), offS, offD, width, rows, g.stepA, g.stepD);
                    if (want != d && ++failures <= 10) {
                        ADD_FAILURE() << describe("ownCopyBits", OWN_BIT_COPY, g) << ": "
                                      << firstDifference(want, d);
                    }
                }
            }
        }
    }
    EXPECT_EQ(failures, 0);
}

// ------------------------------------------------------------ edge cases

TEST(BitsEdge, OneBitAtTheLastBitOfARow) {
    // Rows of 3 bytes; the region is bit 23, the last of the row.
    std::vector<uint8_t> a = {0x00, 0x00, 0x01, 0x00, 0x00, 0x00};
    std::vector<uint8_t> b = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    std::vector<uint8_t> d = {0x5A, 0x5A, 0x5A, 0x5B, 0x5B, 0x5B};
    // srcA at bit 23 (byte 2, offset 7), srcB at bit 0 of its row, dst at bit 23.
    ownLogicBits(OWN_BIT_AND, a.data() + 2, b.data(), d.data() + 2, 7, 0, 7, 1, 2, 3, 3, 3);
    // Row 0: 1 AND 1 sets bit 0 of byte 2 (0x5A -> 0x5B); row 1: 0 AND 1 clears it (0x5B -> 0x5A).
    EXPECT_EQ(d, (std::vector<uint8_t>{0x5A, 0x5A, 0x5B, 0x5B, 0x5B, 0x5A}));

    std::vector<uint8_t> c = {0xA5, 0xA5, 0xA4};
    ownLogicBitsS(OWN_BIT_XOR, c.data() + 2, c.data() + 2, 7, 7, 1, 1, 3, 3, 1);
    EXPECT_EQ(c, (std::vector<uint8_t>{0xA5, 0xA5, 0xA5}));
}

TEST(BitsEdge, FourBitRegionInsideOneByte) {
    // Bits 2..5 of one byte: masks 0x3C; the other four bits keep the canary.
    for (OwnBitOp op : kOps) {
        for (int offS = 0; offS < 8; ++offS) {
            uint8_t src[2] = {0xFF, 0xFF};
            uint8_t dst[2] = {0x81, 0x42};
            ownLogicBitsS(op, src, dst, offS, 2, 4, 1, 2, 2, 0);
            // All source bits are 1 and the constant is 0.
            const bool result = applyOp(op, true, false);
            EXPECT_EQ(dst[0], result ? 0xBD : 0x81) << opName(op) << " offS " << offS;
            EXPECT_EQ(dst[1], 0x42) << opName(op) << " offS " << offS;
        }
    }
    uint8_t s[1] = {0x0F};
    uint8_t d[1] = {0xAA};
    ownCopyBits(s, d, 4, 2, 4, 1, 1, 1);   // bits 4..7 of 0x0F are 1111
    EXPECT_EQ(d[0], 0xBE);                   // 10 1111 10
}

TEST(BitsEdge, RowsEndingMidByteKeepTheRestOfTheLastByte) {
    // 13 bits from offset 6: bits 6..18, last byte keeps bits 19..23.
    std::vector<uint8_t> s = {0xFF, 0xFF, 0xFF};
    std::vector<uint8_t> d = {0x00, 0x00, 0x00, 0x00};
    ownCopyBits(s.data(), d.data(), 0, 6, 13, 1, 3, 4);
    EXPECT_EQ(d, (std::vector<uint8_t>{0x03, 0xFF, 0xE0, 0x00}));
    // And the inverse: clearing leaves the ones outside.
    std::vector<uint8_t> e = {0xFF, 0xFF, 0xFF, 0xFF};
    ownLogicBitsS(OWN_BIT_AND, s.data(), e.data(), 0, 6, 13, 1, 3, 4, 0);
    EXPECT_EQ(e, (std::vector<uint8_t>{0xFC, 0x00, 0x1F, 0xFF}));
}

TEST(BitsEdge, ZeroWidthOrZeroRowsTouchNothing) {
    std::vector<uint8_t> s = {0xFF, 0xFF};
    std::vector<uint8_t> d = {0x12, 0x34};
    ownCopyBits(s.data(), d.data(), 3, 5, 0, 2, 1, 1);
    ownLogicBits(OWN_BIT_OR, s.data(), s.data(), d.data(), 1, 2, 3, 9, 0, 1, 1, 1);
    EXPECT_EQ(d, (std::vector<uint8_t>{0x12, 0x34}));
}

TEST(BitsEdge, InPlaceAtTheSameOffset) {
    // dst is srcA at the same bit offset: each bit combines with its own old value.
    XorShift rng{99};
    for (int off = 0; off < 8; ++off) {
        for (int width : {1, 7, 8, 9, 63, 64, 65, 130}) {
            std::vector<uint8_t> d(40), b(40);
            rng.fill(d);
            rng.fill(b);
            auto want = d;
            const Geometry g{off, 3, off, width, 2, 20, 20, 20};
            const auto before = d;
            reference(OWN_BIT_XOR, before.data(), b.data(), false, want.data(), g);
            ownLogicBits(OWN_BIT_XOR, d.data(), b.data(), d.data(), off, 3, off, width, 2, 20, 20,
                         20);
            EXPECT_EQ(want, d) << "offset " << off << " width " << width;
        }
    }
}

// ------------------------------------------------------------ guard pages

// Memory whose usable pages lie between two inaccessible ones: a read of
// the byte before the first usable one or after the last one faults.
class GuardedPages {
public:
    explicit GuardedPages(size_t usable) {
        page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        usablePages_ = (usable + page_ - 1) / page_;
        total_ = (usablePages_ + 2) * page_;
        void* p = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) {
            std::fprintf(stderr, "mmap failed\n");
            std::_Exit(5);
        }
        base_ = static_cast<uint8_t*>(p);
        if (mprotect(base_, page_, PROT_NONE) != 0 ||
            mprotect(base_ + page_ * (usablePages_ + 1), page_, PROT_NONE) != 0) {
            std::fprintf(stderr, "mprotect failed\n");
            std::_Exit(5);
        }
    }
    ~GuardedPages() { munmap(base_, total_); }
    GuardedPages(const GuardedPages&) = delete;
    GuardedPages& operator=(const GuardedPages&) = delete;

    // The first usable byte: the byte before it faults.
    uint8_t* begin() const { return base_ + page_; }
    // One past the last usable byte: it faults.
    uint8_t* end() const { return base_ + page_ * (usablePages_ + 1); }

private:
    size_t page_ = 0, usablePages_ = 0, total_ = 0;
    uint8_t* base_ = nullptr;
};

// Each source row in turn has its last needed byte just before a guard page,
// then its first needed byte just after one; the destination too. Every
// operator, every offset combination, widths 1..200. Runs in a child process
// so that a fault fails this test and not the whole run; the child also
// checks each result against the reference and exits non-zero on a mismatch.
void guardSweep() {
    GuardedPages ga(4096), gb(4096), gd(4096);
    std::vector<uint8_t> want(64);
    XorShift rng{4242};
    int mismatches = 0;
    for (int atEnd = 0; atEnd < 2; ++atEnd) {
        for (OwnBitOp op : kOps) {
            for (int width = 1; width <= 200; ++width) {
                for (int offA = 0; offA < 8; ++offA) {
                    for (int offB = 0; offB < 8; ++offB) {
                        for (int offD = 0; offD < 8; ++offD) {
                            const int na = neededBytes(offA, width), nb = neededBytes(offB, width),
                                      nd = neededBytes(offD, width);
                            uint8_t* a = atEnd ? ga.end() - na : ga.begin();
                            uint8_t* b = atEnd ? gb.end() - nb : gb.begin();
                            uint8_t* d = atEnd ? gd.end() - nd : gd.begin();
                            for (int i = 0; i < na; ++i) a[i] = rng.byte();
                            for (int i = 0; i < nb; ++i) b[i] = rng.byte();
                            for (int i = 0; i < nd; ++i) d[i] = rng.byte();
                            std::memcpy(want.data(), d, size_t(nd));
                            const Geometry g{offA, offB, offD, width, 1, na, nb, nd};
                            reference(op, a, op == OWN_BIT_COPY ? nullptr : b, false, want.data(),
                                      g);
                            ownLogicBits(op, a, op == OWN_BIT_COPY ? nullptr : b, d, offA, offB,
                                         offD, width, 1, na, nb, nd);
                            if (std::memcmp(want.data(), d, size_t(nd)) != 0 &&
                                ++mismatches <= 5) {
                                std::fprintf(stderr, "mismatch: op %s offsets %d %d %d width %d\n",
                                             opName(op), offA, offB, offD, width);
                            }
                            if (offB == 0) {
                                // The constant and copy kernels on the same placement.
                                ownLogicBitsS(op, a, d, offA, offD, width, 1, na, nd, offD & 1);
                                ownCopyBits(a, d, offA, offD, width, 1, na, nd);
                            }
                        }
                    }
                }
            }
        }
    }
    // Several rows whose steps put the last row's last byte against the guard.
    for (int width : {1, 5, 8, 13, 64, 65, 127, 200}) {
        for (int offA = 0; offA < 8; ++offA) {
            for (int offD = 0; offD < 8; ++offD) {
                const int na = neededBytes(offA, width), nd = neededBytes(offD, width);
                const int rows = 5;
                const ptrdiff_t step = na + 3;
                uint8_t* a = ga.end() - (step * (rows - 1) + na);
                uint8_t* d = gd.end() - (ptrdiff_t{nd} * rows);
                for (ptrdiff_t i = 0; i < step * (rows - 1) + na; ++i) a[i] = rng.byte();
                ownCopyBits(a, d, offA, offD, width, rows, step, nd);
                ownLogicBits(OWN_BIT_XOR, a, a, d, offA, offA, offD, width, rows, step, step, nd);
                ownLogicBitsS(OWN_BIT_OR, a, d, offA, offD, width, rows, step, nd, 1);
            }
        }
    }
    std::fflush(stderr);
    std::_Exit(mismatches == 0 ? 0 : 3);
}

TEST(BitsGuard, NoByteOutsideTheNeededBytesIsTouched) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(guardSweep(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
