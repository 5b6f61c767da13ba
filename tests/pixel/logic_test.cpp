// The logic and shift operations through the engine of arith_test.cpp against element
// rules written here; exact values; every refusal and every count that turns a shift
// into a logic operation; the bit-row kernels against a bit-by-bit reference; guard
// pages that fault on any byte touched outside what a region, a mask or a bit row needs.
#include "tests/pixel/pixel_engine.h"

#include "kuv_own.h"

#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>


namespace {

using namespace kuvtest;
using pixeltest::Call;
using pixeltest::Elem;

const std::vector<uint32_t> kDepths = {KUV_DEPTH_1U, KUV_DEPTH_8U, KUV_DEPTH_8S, KUV_DEPTH_16U,
                                       KUV_DEPTH_16S, KUV_DEPTH_32S};

// An element's raw bits and back: the engine hands values, these rules work on bits.
uint32_t widthMask(uint32_t depth) { return depthBits(depth) >= 32 ? ~0u : (1u << depthBits(depth)) - 1u; }
uint32_t rawOf(uint32_t depth, double v) { return uint32_t(int64_t(v)) & widthMask(depth); }
double valueOf(uint32_t depth, uint32_t raw) {
    raw &= widthMask(depth);
    const uint32_t sign = 1u << (depthBits(depth) - 1);
    return (depth & KUV_DEPTH_SIGN) ? double(int64_t(raw ^ sign) - int64_t(sign)) : double(raw);
}
Elem onBits(uint32_t depth, std::function<uint32_t(uint32_t, uint32_t)> f) {
    return [=](double a, double b) { return valueOf(depth, f(rawOf(depth, a), rawOf(depth, b))); };
}

// Shifts: any count taken as unsigned; at or above the width a left shift
// and an unsigned right shift leave nothing, a signed right shift the sign fill.
uint32_t shiftLeft(uint32_t depth, uint32_t x, int32_t n) {
    return uint32_t(n) >= uint32_t(depthBits(depth)) ? 0 : uint32_t(uint64_t(x) << n);
}
uint32_t shiftRight(uint32_t depth, uint32_t x, int32_t n) {
    const uint32_t bits = depthBits(depth), count = uint32_t(n) >= bits ? bits - 1 : uint32_t(n);
    if (!(depth & KUV_DEPTH_SIGN)) return uint32_t(n) >= bits ? 0 : x >> count;
    return uint32_t(int64_t(valueOf(depth, x)) >> count);
}

// The element rule of each logic or shift operation, on raw bits.
Elem logicRule(const std::string& op, uint32_t depth, int32_t v) {
    const uint32_t k = depth == KUV_DEPTH_1U ? (v & 1) : uint32_t(v);
    const char kind = op == "kuvNot" ? '~' : op[3] == 'L' ? '<' : op[3] == 'R' ? '>' : op[3] == 'A' ? '&'
                    : op[3] == 'O' ? '|' : '^';
    const bool constant = op.back() == 'S';
    return onBits(depth, [=](uint32_t a, uint32_t b) -> uint32_t {
        const uint32_t y = constant ? k : b;
        switch (kind) {
            case '~': return ~a;
            case '<': return shiftLeft(depth, a, v);
            case '>': return shiftRight(depth, a, v);
            case '&': return a & y;
            case '|': return a | y;
            default: return a ^ y;
        }
    });
}

TEST(LogicDifferential, EveryOperationAgainstTheElementRules) {
    const int32_t constants[] = {0, 1, 2, 3, -1, -2, 0x1FF, 0x10000, 0x5A5A5A5A, INT_MIN};
    uint64_t seed = 3000000;
    for (const std::string op : {"kuvAnd", "kuvOr", "kuvXor", "kuvAndS", "kuvOrS", "kuvXorS", "kuvNot",
                                 "kuvLShiftS", "kuvRShiftS"}) {
        const bool shift = op.find("Shift") != std::string::npos;
        const int nSrc = op == "kuvAnd" || op == "kuvOr" || op == "kuvXor" ? 2 : 1;
        for (uint32_t depth : kDepths) {
            const int bits = depthBits(depth);
            const int32_t counts[] = {0, bits, bits + 1, 40, -1, -bits, INT_MIN, INT_MAX};
            auto pick = [&](Rng& rng, std::string* label, Call* call, Elem* elem) {
                int32_t v = rng.chance(0.4) ? constants[rng.uniform(0, 9)] : int32_t(rng.next());
                if (shift) v = rng.chance(0.25) ? counts[rng.uniform(0, 7)] : int32_t(rng.uniform(1, std::max(1, bits - 1)));
                *label = op + " value " + std::to_string(v);
                *call = pixeltest::callOf(op, v, 0, 0), *elem = logicRule(op, depth, v);
            };
            for (int order : {0, 1}) pixeltest::run(nSrc, false, depth, order, seed += 1000, 60, pick);
        }
    }
}

TEST(LogicEdges, ExactValues) {
    const uint32_t U1 = KUV_DEPTH_1U, U8 = KUV_DEPTH_8U, S8 = KUV_DEPTH_8S, U16 = KUV_DEPTH_16U,
                   S16 = KUV_DEPTH_16S, S32 = KUV_DEPTH_32S;
    const char *LSH = "kuvLShiftS", *RSH = "kuvRShiftS", *NOT = "kuvNot", *AND = "kuvAnd", *OR = "kuvOr",
               *XOR = "kuvXor", *ANDS = "kuvAndS", *ORS = "kuvOrS", *XORS = "kuvXorS";
    const struct { const char* op; uint32_t depth; double a, b, want; } edges[] = {
        {LSH, U8, 0x81, 1, 2}, {LSH, S8, 65, 1, -126}, {LSH, S8, -1, 7, -128},
        {LSH, S16, 0x4001, 1, -32766}, {LSH, S32, 1, 31, INT_MIN}, {LSH, S32, -1, 32, 0},
        {LSH, U16, 7, INT_MIN, 0}, {LSH, S8, -77, 0, -77}, {RSH, S8, -128, 9, -1}, {RSH, U8, 128, 9, 0},
        {RSH, S8, -3, 1, -2}, {RSH, U8, 255, 7, 1}, {RSH, S16, -32768, 16, -1}, {RSH, S32, INT_MIN, 40, -1},
        {RSH, S32, INT_MAX, 30, 1}, {RSH, U8, 200, -1, 0}, {RSH, U16, 65535, -1, 0},
        {RSH, S8, -100, -1, -1}, {RSH, S8, 100, -1, 0}, {LSH, U1, 1, 1, 0}, {RSH, U1, 1, 0, 1},
        {NOT, S8, -1, 0, 0}, {NOT, S8, 127, 0, -128}, {NOT, U16, 0, 0, 65535}, {NOT, U1, 1, 0, 0},
        {ANDS, U8, 0xAB, 0x1FF, 0xAB}, {ANDS, U16, 0xFFFF, 0x1FF, 0x1FF},
        {ANDS, S32, 0x12345678, 0x1FF, 0x78}, {ANDS, S16, -1, 0x10000, 0}, {ORS, U1, 0, 2, 0},
        {ORS, U1, 0, 3, 1}, {XORS, U1, 1, 1, 0}, {XORS, S8, 0x0F, 0x1F0, -1}, {AND, U1, 1, 0, 0},
        {OR, S8, -128, 1, -127}, {XOR, S32, -1, INT_MAX, INT_MIN},
    };
    for (const auto& e : edges) pixeltest::expectElement(e.op, e.depth, e.a, e.b, 0, e.want);
}

TEST(LogicRefusal, StatusFunctionContextAndFile) {
    const KuvStatus BAD = KUV_StsBadArgument, NUL = KUV_StsNullHeader;
    const char* img = "Incorrect Image";
    const char* no32F = "This function does not support depth 32F";
    const char* d1 = "(srcImage->depth != dstImage->depth)";
    std::vector<pixeltest::Refusal> rows;
    for (const char* op : {"kuvAnd", "kuvOr", "kuvXor"}) {
        rows.insert(rows.end(), {
            {op, ".bd", 0, NUL, op, img}, {op, "a.d", 0, NUL, op, img}, {op, "ab.", 0, NUL, op, img},
            {op, "anz", 0, KUV_StsBadDataPointers, op, img}, {op, "abo", 0, KUV_StsBadCOI, op, img},
            {op, "Mbd", 0, KUV_StsBadDepth - KUV_StsMaskOffset, op, img},
            {op, "abw", 0, BAD, op, "(srcImageA->depth != dstImage->depth)"},
            {op, "asd", 0, BAD, op, "(srcImageB->depth != dstImage->depth)"},
            {op, "pbd", 0, BAD, op, "(srcImageA->dataOrder != dstImage->dataOrder)"},
            {op, "apd", 0, BAD, op, "(srcImageB->dataOrder != dstImage->dataOrder)"},
            {op, "Aff", 0, BAD, op, "(nChSrcA != nChDst)"}, {op, "fAf", 0, BAD, op, "(nChSrcB != nChDst)"},
            {op, "acd", 0, BAD, op, "(nChSrcB != nChDst)"}, {op, "AAw", 0, BAD, op, "(srcImageA->depth != dstImage->depth)"},
            {op, "FGF", 0, BAD, op, no32F}, {op, "KGL", 0, 0, nullptr, nullptr},   // no common mask area: silent
            {op, "FGL", 0, BAD, op, no32F}, {op, "FFa", 0, BAD, op, "(srcImageA->depth != dstImage->depth)"},
        });
    }
    for (const char* op : {"kuvAndS", "kuvOrS", "kuvXorS", "kuvLShiftS", "kuvRShiftS"}) {
        rows.insert(rows.end(), {
            {op, ".-d", 3, op[5] == 'h' ? BAD : NUL, op, op[5] == 'h' ? "srcImage==0" : img},
            {op, "a-.", 3, NUL, op, img}, {op, "n-z", 3, KUV_StsBadDataPointers, op, img},
            {op, "a-z", 3, KUV_StsBadImageSize, op, img}, {op, "a-T", 3, KUV_StsMaskTiled, op, img},
            {op, "a-w", 3, BAD, op, d1}, {op, "p-a", 3, BAD, op, "(srcImage->dataOrder != dstImage->dataOrder)"},
            {op, "A-f", 3, BAD, op, "(nChSrc != nChDst)"}, {op, "c-d", 3, BAD, op, "(nChSrc != nChDst)"},
            {op, "F-G", 3, BAD, op, no32F}, {op, "K-L", 3, 0, nullptr, nullptr}, {op, "F-L", 3, BAD, op, no32F},
        });
    }
    // kuvNot is kuvXorS with -1; shifts by counts that become logic report under kuvXorS or kuvAndS.
    rows.insert(rows.end(), {
        {"kuvNot", "F-G", 0, BAD, "kuvXorS", no32F}, {"kuvNot", ".-a", 0, NUL, "kuvXorS", img},
        {"kuvLShiftS", "F-G", 0, BAD, "kuvXorS", no32F}, {"kuvLShiftS", "F-G", 40, BAD, "kuvAndS", no32F},
        {"kuvLShiftS", "F-G", 32, BAD, "kuvAndS", no32F}, {"kuvLShiftS", "F-G", -3, BAD, "kuvAndS", no32F},
        {"kuvLShiftS", "F-G", 31, BAD, "kuvLShiftS", no32F}, {"kuvRShiftS", "F-G", 0, BAD, "kuvXorS", no32F},
        {"kuvRShiftS", "F-G", 32, BAD, "kuvAndS", no32F}, {"kuvRShiftS", "F-G", -1, BAD, "kuvAndS", no32F},
        {"kuvRShiftS", "F-G", 31, BAD, "kuvRShiftS", no32F},
        // The width that decides is the source's; a signed source keeps a big count for its sign fill.
        {"kuvLShiftS", "a-w", 8, BAD, "kuvAndS", d1}, {"kuvLShiftS", "w-a", 8, BAD, "kuvLShiftS", d1},
        {"kuvRShiftS", "a-w", 9, BAD, "kuvAndS", d1}, {"kuvRShiftS", "s-w", 9, BAD, "kuvRShiftS", d1},
        {"kuvLShiftS", "s-w", 9, BAD, "kuvAndS", d1}, {"kuvRShiftS", "a-w", 0, BAD, "kuvXorS", d1},
        {"kuvLShiftS", "u-a", 0, BAD, "kuvXorS", d1}, {"kuvLShiftS", "u-a", 1, BAD, "kuvAndS", d1},
        {"kuvRShiftS", "u-a", 1, BAD, "kuvAndS", d1}, {"kuvLShiftS", "a-.", 0, NUL, "kuvXorS", img},
        {"kuvLShiftS", "a-.", 8, NUL, "kuvAndS", img}, {"kuvLShiftS", ".-a", 8, BAD, "kuvLShiftS", "srcImage==0"},
        {"kuvRShiftS", ".-a", 0, BAD, "kuvRShiftS", "srcImage==0"},
    });
    pixeltest::expectRefusals(rows);
}

// ------------------------------------------------------------ guard pages

// Usable pages between two inaccessible ones.
class GuardedPages {
public:
    explicit GuardedPages(size_t usable) {
        page_ = size_t(sysconf(_SC_PAGESIZE));
        total_ = ((usable + page_ - 1) / page_ + 2) * page_;
        void* p = mmap(nullptr, total_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) std::_Exit(5);
        base_ = static_cast<uint8_t*>(p);
        if (mprotect(base_, page_, PROT_NONE) != 0 || mprotect(end(), page_, PROT_NONE) != 0) std::_Exit(5);
    }
    ~GuardedPages() { munmap(base_, total_); }
    uint8_t* begin() const { return base_ + page_; }   // the byte before faults
    uint8_t* end() const { return base_ + total_ - page_; }   // this byte faults

private:
    size_t page_ = 0, total_ = 0;
    uint8_t* base_ = nullptr;
};

// ---------------------------------------------------------- bit-row kernels

bool bitOf(const uint8_t* row, int i) { return (row[i >> 3] >> (7 - (i & 7))) & 1; }
void putBit(uint8_t* row, int i, bool v) {
    row[i >> 3] = uint8_t(v ? row[i >> 3] | (0x80u >> (i & 7)) : row[i >> 3] & ~(0x80u >> (i & 7)));
}
bool applyOp(OwnBitOp op, bool a, bool b) {
    return op == OWN_BIT_AND ? a && b : op == OWN_BIT_OR ? a || b : op == OWN_BIT_XOR ? a != b
         : op == OWN_BIT_AND_NOT ? a && !b : a;
}

// Every operator of ownLogicBits, ownLogicBitsS (value 0..3: only bit 0
// counts) and ownCopyBits, every offset triple, widths 1..72 and a spread to
// 200, two rows with gaps between them. The rows lie against a guard page
// (first needed byte after one, or last needed byte before one), so that a
// read or write of any other byte faults. Runs in a child, which checks every
// result against the bit-by-bit reference and exits non-zero on a mismatch.
void kernelSweep() {
    GuardedPages ga(4096), gb(4096), gd(4096);
    std::mt19937 rng(4242);
    std::vector<int> widths;
    for (int i = 1; i <= 72; ++i) widths.push_back(i);
    for (int i : {79, 80, 81, 96, 97, 127, 128, 129, 135, 160, 183, 191, 192, 193, 200}) widths.push_back(i);
    int mismatches = 0;
    for (int atEnd = 0; atEnd < 2; ++atEnd) {
        for (int kernel = 0; kernel < 3; ++kernel) {
            for (OwnBitOp op : {OWN_BIT_AND, OWN_BIT_OR, OWN_BIT_XOR, OWN_BIT_AND_NOT, OWN_BIT_COPY}) {
                if (kernel == 2 && op != OWN_BIT_COPY) continue;
                for (int width : widths) {
                    for (int off = 0; off < 512; ++off) {
                        const int oa = off & 7, ob = kernel == 0 ? (off >> 3) & 7 : 0, od = off >> 6;
                        if (kernel != 0 && (off & 0x38) != 0) continue;
                        const int value = off % 4;
                        const int na = (oa + width + 7) / 8, nb = (ob + width + 7) / 8, nd = (od + width + 7) / 8;
                        const int sa = na + 1 + (off & 3), sb = nb + 2, sd = nd + 3;   // two rows each
                        uint8_t* a = atEnd ? ga.end() - sa - na : ga.begin();
                        uint8_t* b = atEnd ? gb.end() - sb - nb : gb.begin();
                        uint8_t* d = atEnd ? gd.end() - sd - nd : gd.begin();
                        for (int i = 0; i < sa + na; ++i) a[i] = uint8_t(rng());
                        for (int i = 0; i < sb + nb; ++i) b[i] = uint8_t(rng());
                        for (int i = 0; i < sd + nd; ++i) d[i] = uint8_t(rng());
                        std::vector<uint8_t> want(d, d + sd + nd);
                        for (int r = 0; r < 2; ++r) {
                            for (int c = 0; c < width; ++c) {
                                const bool second = kernel == 1 ? value & 1 : bitOf(b + r * sb, ob + c);
                                const bool first = bitOf(a + r * sa, oa + c);
                                putBit(want.data() + r * sd, od + c, applyOp(op, first, second));
                            }
                        }
                        const uint8_t* bb = op == OWN_BIT_COPY ? nullptr : b;
                        if (kernel == 0) ownLogicBits(op, a, bb, d, oa, ob, od, width, 2, sa, sb, sd);
                        if (kernel == 1) ownLogicBitsS(op, a, d, oa, od, width, 2, sa, sd, value);
                        if (kernel == 2) ownCopyBits(a, d, oa, od, width, 2, sa, sd);
                        if (std::memcmp(want.data(), d, want.size()) != 0 && ++mismatches <= 5) {
                            std::fprintf(stderr, "kernel %d op %d offsets %d %d %d width %d value %d at %s\n", kernel,
                                         int(op), oa, ob, od, width, value, atEnd ? "end" : "begin");
                        }
                    }
                }
            }
        }
    }
    std::fflush(stderr);
    std::_Exit(mismatches == 0 ? 0 : 3);
}

TEST(BitKernels, EveryOperatorOffsetAndWidthTouchesOnlyItsBits) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(kernelSweep(), ::testing::ExitedWithCode(0), "");
}

// ------------------------------------------------------- guarded regions

// A header over guarded memory whose region's last needed byte (last row,
// last channel) is the last accessible byte, or whose first needed byte is
// the first accessible one. The pixels and any mask belong to the guards.
struct Guarded {
    ImagePtr header;
    std::unique_ptr<GuardedPages> pages;
    ~Guarded() {
        if (header) header->imageData = nullptr, header->maskROI = nullptr;
    }
};

std::unique_ptr<Guarded> guarded(uint32_t depth, int nCh, int order, int width, int height, const KuvROI* roi,
                                 bool atEnd, Rng& rng) {
    auto g = std::make_unique<Guarded>();
    g->header = ImagePtr(kuvCreateImageHeader(nCh, 0, depth, "GRAY", "G\0\0", order, 0, 4, width, height,
                                              nullptr, nullptr, 0, nullptr));
    if (!g->header) std::_Exit(6);
    int64_t begin = 0, end = g->header->imageSize;   // no region: the flat path may take every byte
    if (roi != nullptr) {
        g->header->roi = kuvCreateROI(roi->coi, roi->xOffset, roi->yOffset, roi->width, roi->height);
        const int first = roi->coi ? roi->coi - 1 : 0, last = roi->coi ? roi->coi - 1 : nCh - 1;
        begin = elementPos(g->header.get(), roi->xOffset, roi->yOffset, first).byte;
        const int x = roi->xOffset + roi->width - 1, y = roi->yOffset + roi->height - 1;
        end = elementPos(g->header.get(), x, y, last).byte + std::max(1, depthBits(depth) / 8);
    }
    g->pages = std::make_unique<GuardedPages>(size_t(end));
    uint8_t* data = atEnd ? g->pages->end() - end : g->pages->begin() - begin;
    g->header->imageData = reinterpret_cast<char*>(data);
    for (int64_t i = begin; i < end; ++i) data[i] = uint8_t(rng.next());
    return g;
}

// Regions (and masks, alone and merged) whose needed bytes touch inaccessible
// pages, for every operation that runs the pattern. Runs in a child: a fault
// ends it; a report makes it exit non-zero.
void guardedRegions() {
    ReportCapture capture;
    Rng rng(31337);
    for (const std::string op : {"kuvAnd", "kuvOr", "kuvXor", "kuvAndS", "kuvOrS", "kuvXorS", "kuvLShiftS", "kuvRShiftS",
                                 "kuvAdd", "kuvSubtract", "kuvMultiply", "kuvSquare", "kuvAddS", "kuvSubtractS",
                                 "kuvMultiplyS", "kuvAddSFP", "kuvAbs"}) {
        for (uint32_t depth : allDepths()) {
            const bool bits = depth == KUV_DEPTH_1U, f32 = depth == KUV_DEPTH_32F;
            const bool any = op == "kuvAdd" || op == "kuvSubtract" || op == "kuvMultiply" || op == "kuvSquare";
            if (op == "kuvAbs" ? !f32 && !(depth & KUV_DEPTH_SIGN) : !any && f32 != (op == "kuvAddSFP")) continue;
            const Call call = pixeltest::callOf(op, 3, 0, 3.0f);
            for (int atEnd = 0; atEnd < 2; ++atEnd) {
                for (int variant = 0; variant < (bits ? 16 : 12); ++variant) {
                    const int nCh = bits ? 1 : 1 + variant % 3, order = bits ? 0 : variant / 6;
                    const int coi = !bits && variant % 4 == 3 ? 1 + variant % nCh : 0;
                    const int width = bits ? 61 + variant : 37 + variant % 5, height = 3 + variant % 4;
                    auto region = [&](int shift) {   // bit regions end inside a byte at every offset
                        const int x = bits ? (variant + shift) % 8 + 8 * (variant % 2) : 1 + shift % 3;
                        const int w = bits ? 9 + variant + shift : width - x - variant % 3;
                        return KuvROI{coi, x, 1 + shift % 2, w, height - 2};
                    };
                    const KuvROI ra = region(0), rb = region(3), rd = region(5);
                    const KuvROI m1r{0, variant % 8, 1, 33 + variant, height - 1};
                    const KuvROI m2r{0, (variant + 5) % 8, 0, 40 - variant, height};
                    const bool flat = variant % 6 == 5;   // one geometry, no regions
                    auto a = guarded(depth, nCh, order, width, height, flat ? nullptr : &ra, atEnd, rng);
                    auto b = guarded(depth, nCh, order, width + 3 * !flat, height, flat ? nullptr : &rb, atEnd, rng);
                    auto d = guarded(depth, nCh, order, width + !flat, height + !flat, flat ? nullptr : &rd, atEnd, rng);
                    auto m1 = guarded(KUV_DEPTH_1U, 1, 0, 80, height, &m1r, atEnd, rng);
                    auto m2 = guarded(KUV_DEPTH_1U, 1, 0, 70, height, &m2r, atEnd, rng);
                    call(a->header.get(), b->header.get(), d->header.get());
                    d->header->maskROI = m1->header.get();
                    call(a->header.get(), b->header.get(), d->header.get());
                    a->header->maskROI = m2->header.get();
                    call(a->header.get(), b->header.get(), d->header.get());
                    // Two masks to merge whose rows end at every bit of a byte, read from every offset.
                    for (int mask = 0; variant == 0 && mask < 64; ++mask) {
                        const KuvROI r1{0, mask % 8, 0, 33 + mask / 8, height};
                        const KuvROI r2{0, (mask + 3) % 8, 0, 33 + mask / 8, height};
                        auto n1 = guarded(KUV_DEPTH_1U, 1, 0, 60, height, &r1, atEnd, rng);
                        auto n2 = guarded(KUV_DEPTH_1U, 1, 0, 60, height, &r2, atEnd, rng);
                        a->header->maskROI = n1->header.get(), d->header->maskROI = n2->header.get();
                        call(a->header.get(), b->header.get(), d->header.get());
                    }
                }
            }
        }
    }
    for (const Report& r : capture.reports()) std::fprintf(stderr, "%s: %s\n", r.func.c_str(), r.context.c_str());
    std::fflush(stderr);
    std::_Exit(capture.count() == 0 ? 0 : 4);
}

TEST(LogicGuard, RegionsAndMasksReadAndWriteNoByteOutsideTheirNeededBytes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(guardedRegions(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
