// Bit-row kernels: rows of bits at any bit offset, combined whole bytes at a
// time (eight at a time in the middle of a row), with the destination's
// first and last bytes merged through masks.
#include "pixel/bitwork.h"

#include <cstring>

namespace {

inline uint64_t loadBigEndian(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return __builtin_bswap64(v);
}

inline void storeBigEndian(uint8_t* p, uint64_t v) {
    v = __builtin_bswap64(v);
    std::memcpy(p, &v, sizeof v);
}

// A source row read as a stream aligned to the destination's bits. shift is
// the source's bit offset less the destination's (-7..7); last is the index
// of the last source byte the row needs. Bytes before 0 or after last are
// never read: the bits they would give lie outside the rectangle.
struct BitStream {
    const uint8_t* row;
    int32_t shift;
    int32_t last;

    // Destination byte j as eight source bits.
    uint8_t byteAt(int32_t j) const {
        const int32_t pos = 8 * j + shift;
        const int32_t q = pos >> 3;   // floor, also for negative positions
        const int32_t r = pos & 7;
        uint32_t hi = q >= 0 ? row[q] : 0u;
        if (r == 0) return static_cast<uint8_t>(hi);
        uint32_t lo = q + 1 <= last ? row[q + 1] : 0u;
        return static_cast<uint8_t>((hi << r) | (lo >> (8 - r)));
    }

    // Whether destination bytes j .. j + 7 can be read as one word: the
    // source bytes q .. q + 8 all lie inside the row's needed bytes.
    bool wordFits(int32_t j) const {
        const int32_t q = (8 * j + shift) >> 3;
        return q >= 0 && q + 8 <= last;
    }

    uint64_t wordAt(int32_t j) const {
        const int32_t pos = 8 * j + shift;
        const int32_t q = pos >> 3;
        const int32_t r = pos & 7;
        const uint64_t hi = loadBigEndian(row + q);
        if (r == 0) return hi;
        return (hi << r) | (uint64_t{row[q + 8]} >> (8 - r));
    }
};

// One row. b is ignored for OWN_BIT_COPY; a constant operand comes in as a
// stream whose bytes are all the constant (constByte >= 0).
template <OwnBitOp Op>
void logicRow(const BitStream& a, const BitStream& b, int constByte, uint8_t* dst, int32_t d,
              int32_t width) {
    const int32_t lastByte = (d + width - 1) >> 3;
    const auto head = static_cast<uint8_t>(0xFFu >> d);
    const auto tail = static_cast<uint8_t>(0xFFu << (7 - ((d + width - 1) & 7)));
    auto bByte = [&](int32_t j) -> uint8_t {
        return constByte >= 0 ? static_cast<uint8_t>(constByte) : b.byteAt(j);
    };
    auto merge = [&](int32_t j, uint8_t keep) {
        const uint8_t v = kuv::combineBits<Op, uint8_t>(a.byteAt(j), bByte(j));
        dst[j] = static_cast<uint8_t>((dst[j] & ~keep) | (v & keep));
    };
    if (lastByte == 0) {
        merge(0, static_cast<uint8_t>(head & tail));
        return;
    }
    merge(0, head);
    int32_t j = 1;
    const uint64_t constWord = constByte >= 0 ? 0x0101010101010101ull * static_cast<uint64_t>(constByte) : 0;
    for (; j + 8 <= lastByte; j += 8) {
        if (!a.wordFits(j) || (constByte < 0 && Op != OWN_BIT_COPY && !b.wordFits(j))) break;
        const uint64_t bw = constByte >= 0 || Op == OWN_BIT_COPY ? constWord : b.wordAt(j);
        storeBigEndian(dst + j, kuv::combineBits<Op, uint64_t>(a.wordAt(j), bw));
    }
    for (; j < lastByte; ++j) dst[j] = kuv::combineBits<Op, uint8_t>(a.byteAt(j), bByte(j));
    merge(lastByte, tail);
}

template <OwnBitOp Op>
void logicRows(const uint8_t* srcA, const uint8_t* srcB, int constByte, uint8_t* dst,
               int32_t offA, int32_t offB, int32_t offDst, int32_t width, int32_t rows,
               ptrdiff_t stepA, ptrdiff_t stepB, ptrdiff_t stepDst) {
    if (width <= 0) return;
    for (int32_t y = 0; y < rows; ++y) {
        const BitStream a{srcA + y * stepA, offA - offDst, (offA + width - 1) >> 3};
        const BitStream b{srcB != nullptr ? srcB + y * stepB : nullptr, offB - offDst,
                          (offB + width - 1) >> 3};
        logicRow<Op>(a, b, constByte, dst + y * stepDst, offDst, width);
    }
}

void dispatch(OwnBitOp op, const uint8_t* srcA, const uint8_t* srcB, int constByte, uint8_t* dst,
              int32_t offA, int32_t offB, int32_t offDst, int32_t width, int32_t rows,
              ptrdiff_t stepA, ptrdiff_t stepB, ptrdiff_t stepDst) {
    switch (op) {
        case OWN_BIT_AND:
            return logicRows<OWN_BIT_AND>(srcA, srcB, constByte, dst, offA, offB, offDst, width,
                                          rows, stepA, stepB, stepDst);
        case OWN_BIT_OR:
            return logicRows<OWN_BIT_OR>(srcA, srcB, constByte, dst, offA, offB, offDst, width,
                                         rows, stepA, stepB, stepDst);
        case OWN_BIT_XOR:
            return logicRows<OWN_BIT_XOR>(srcA, srcB, constByte, dst, offA, offB, offDst, width,
                                          rows, stepA, stepB, stepDst);
        case OWN_BIT_AND_NOT:
            return logicRows<OWN_BIT_AND_NOT>(srcA, srcB, constByte, dst, offA, offB, offDst,
                                              width, rows, stepA, stepB, stepDst);
        case OWN_BIT_COPY:
            return logicRows<OWN_BIT_COPY>(srcA, nullptr, 0, dst, offA, 0, offDst, width, rows,
                                           stepA, 0, stepDst);
    }
}

}  // namespace

void ownLogicBits(OwnBitOp op, const uint8_t* srcA, const uint8_t* srcB, uint8_t* dst,
                  int32_t offA, int32_t offB, int32_t offDst, int32_t width, int32_t rows,
                  ptrdiff_t stepA, ptrdiff_t stepB, ptrdiff_t stepDst) {
    dispatch(op, srcA, srcB, -1, dst, offA, offB, offDst, width, rows, stepA, stepB, stepDst);
}

void ownLogicBitsS(OwnBitOp op, const uint8_t* src, uint8_t* dst, int32_t offSrc,
                   int32_t offDst, int32_t width, int32_t rows, ptrdiff_t stepSrc,
                   ptrdiff_t stepDst, int32_t value) {
    dispatch(op, src, nullptr, (value & 1) ? 0xFF : 0x00, dst, offSrc, 0, offDst, width, rows,
             stepSrc, 0, stepDst);
}

void ownCopyBits(const uint8_t* src, uint8_t* dst, int32_t offSrc, int32_t offDst, int32_t width,
                 int32_t rows, ptrdiff_t stepSrc, ptrdiff_t stepDst) {
    dispatch(OWN_BIT_COPY, src, nullptr, 0, dst, offSrc, 0, offDst, width, rows, stepSrc, 0,
             stepDst);
}
