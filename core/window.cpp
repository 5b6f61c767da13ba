// Readers that apply an image's border rules beyond its edge: windows copied
// out of an image into a fresh block (also the library's way of reading a
// rectangle of a tiled image as plain memory), and bordered lines of one
// channel for morphology.
//
// Both readers cut their coordinates into spans that one border mode maps to
// one run of image coordinates (forward, backward, one repeated coordinate or
// no pixel at all), and move whole runs: row copies, and spreading of a pixel
// along a row or of a row down a band. Coordinates and addresses are 64-bit
// throughout, so that rectangles near the 32-bit limits cannot wrap.
#include "core/platform.h"
#include "kuv_own.h"

#include <algorithm>
#include <cstring>
#include <memory>

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#endif

namespace {

// ------------------------------------------------------------------ spans

enum SpanKind : int {
    SPAN_FORWARD,    // src, src + 1, ...
    SPAN_BACKWARD,   // src, src - 1, ...
    SPAN_REPEAT,     // src for every point
    SPAN_CONSTANT,   // no pixel: the side's constant
};

struct Span {
    int64_t src;
    int64_t len;
    SpanKind kind;
};

int64_t floorMod(int64_t k, int64_t n) {
    const int64_t m = k % n;
    return m < 0 ? m + n : m;
}

// The longest piece of [k, end) starting at k that `mode` maps, on an axis of
// n pixels, to one run. Inside the image every mode maps a coordinate to
// itself; outside, pieces end at multiples of n, so no piece ever crosses
// into the image or out of it, nor from one half of a reflection's period
// into the other.
Span nextSpan(int mode, int64_t n, int64_t k, int64_t end) {
    if (k >= 0 && k < n) return {k, std::min(end, n) - k, SPAN_FORWARD};
    const int64_t outside = (k < 0 ? std::min<int64_t>(end, 0) : end) - k;
    switch (mode) {
        case KUV_BORDER_CONSTANT: return {0, outside, SPAN_CONSTANT};
        case KUV_BORDER_REPLICATE: return {k < 0 ? 0 : n - 1, outside, SPAN_REPEAT};
        case KUV_BORDER_REFLECT: {
            const int64_t m = floorMod(k, 2 * n);
            if (m < n) return {m, std::min(n - m, end - k), SPAN_FORWARD};
            return {2 * n - 1 - m, std::min(2 * n - m, end - k), SPAN_BACKWARD};
        }
        default: {   // KUV_BORDER_WRAP
            const int64_t m = floorMod(k, n);
            return {m, std::min(n - m, end - k), SPAN_FORWARD};
        }
    }
}

// ------------------------------------------------------------------ bits

inline int getBit(const uint8_t* row, int64_t i) { return (row[i >> 3] >> (7 - (i & 7))) & 1; }

// Bits start .. start + n - 1 of a row set to value; other bits stay.
void setBits(uint8_t* row, int64_t start, int64_t n, int value) {
    if (n <= 0) return;
    const int64_t first = start >> 3, last = (start + n - 1) >> 3;
    const auto head = static_cast<uint8_t>(0xFFu >> (start & 7));
    const auto tail = static_cast<uint8_t>(0xFFu << (7 - ((start + n - 1) & 7)));
    const uint8_t fill = value ? 0xFF : 0x00;
    auto merge = [&](int64_t j, uint8_t keep) {
        row[j] = static_cast<uint8_t>((row[j] & ~keep) | (fill & keep));
    };
    if (first == last) return merge(first, static_cast<uint8_t>(head & tail));
    merge(first, head);
    std::memset(row + first + 1, fill, static_cast<size_t>(last - first - 1));
    merge(last, tail);
}

inline uint8_t reverse8(uint32_t b) {
    b = ((b & 0xF0u) >> 4) | ((b & 0x0Fu) << 4);
    b = ((b & 0xCCu) >> 2) | ((b & 0x33u) << 2);
    b = ((b & 0xAAu) >> 1) | ((b & 0x55u) << 1);
    return static_cast<uint8_t>(b);
}

// k (1..8) bits from bit pos on, the first of them the most significant.
// Reads the second byte only when the bits reach into it.
inline uint32_t loadBits(const uint8_t* row, int64_t pos, int k) {
    const int64_t q = pos >> 3;
    const int r = static_cast<int>(pos & 7);
    uint32_t w = uint32_t{row[q]} << 8;
    if (r + k > 8) w |= row[q + 1];
    return (w >> (16 - r - k)) & ((1u << k) - 1);
}

inline void storeBits(uint8_t* row, int64_t pos, int k, uint32_t v) {
    const int64_t q = pos >> 3;
    const int r = static_cast<int>(pos & 7);
    const uint32_t mask = ((1u << k) - 1) << (16 - r - k);
    const uint32_t bits = v << (16 - r - k);
    row[q] = static_cast<uint8_t>((row[q] & ~(mask >> 8)) | ((bits & mask) >> 8));
    if (r + k > 8) {
        row[q + 1] = static_cast<uint8_t>((row[q + 1] & ~mask) | (bits & mask & 0xFFu));
    }
}

// n bits read from bit `from` downwards, stored from bit `to` upwards, a byte
// at a time.
void copyBitsBackward(const uint8_t* src, int64_t from, uint8_t* dst, int64_t to, int64_t n) {
    while (n > 0) {
        const int k = static_cast<int>(std::min<int64_t>(n, 8));
        const uint32_t v = loadBits(src, from - k + 1, k);
        storeBits(dst, to, k, static_cast<uint32_t>(reverse8(v) >> (8 - k)));
        from -= k;
        to += k;
        n -= k;
    }
}

void copyBitsForward(const uint8_t* src, int64_t from, uint8_t* dst, int64_t to, int64_t n) {
    ownCopyBits(src + (from >> 3), dst + (to >> 3), static_cast<int32_t>(from & 7),
                static_cast<int32_t>(to & 7), static_cast<int32_t>(n), 1, 0, 0);
}

// ------------------------------------------------------------------ units

// Copies and fills of a few bytes, the usual width of a border, done as two
// overlapping fixed-size moves instead of a call.
inline void copySmall(char* dst, const char* src, int64_t bytes) {
    if (bytes >= 8) {
        uint64_t a, b;
        std::memcpy(&a, src, 8);
        std::memcpy(&b, src + bytes - 8, 8);
        std::memcpy(dst, &a, 8);
        std::memcpy(dst + bytes - 8, &b, 8);
    } else if (bytes >= 4) {
        uint32_t a, b;
        std::memcpy(&a, src, 4);
        std::memcpy(&b, src + bytes - 4, 4);
        std::memcpy(dst, &a, 4);
        std::memcpy(dst + bytes - 4, &b, 4);
    } else if (bytes >= 2) {
        uint16_t a, b;
        std::memcpy(&a, src, 2);
        std::memcpy(&b, src + bytes - 2, 2);
        std::memcpy(dst, &a, 2);
        std::memcpy(dst + bytes - 2, &b, 2);
    } else if (bytes == 1) {
        *dst = *src;
    }
}

// Rows of a window are copied to destinations at any byte offset. A copy
// whose 32-byte stores are all aligned, with one unaligned store at each end,
// beats the library memcpy on rows of a few thousand bytes, which aligns its
// stores too but reads 64 bytes at a time, most of them across two cache
// lines. The processor is asked once per call; tests withhold AVX2 to force
// the memcpy.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#define KUV_WINDOW_HAVE_AVX2 1

__attribute__((target("avx2"))) inline __m256i load32(const char* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// bytes >= 32; source and destination apart.
__attribute__((target("avx2"))) void copyRowAvx2(char* dst, const char* src, int64_t bytes) {
    const __m256i head = load32(src);
    const __m256i tail = load32(src + bytes - 32);
    int64_t i = 32 - static_cast<int64_t>(reinterpret_cast<uintptr_t>(dst) & 31);
    for (; i + 128 <= bytes; i += 128) {
        const __m256i a = load32(src + i), b = load32(src + i + 32);
        const __m256i c = load32(src + i + 64), d = load32(src + i + 96);
        _mm256_store_si256(reinterpret_cast<__m256i*>(dst + i), a);
        _mm256_store_si256(reinterpret_cast<__m256i*>(dst + i + 32), b);
        _mm256_store_si256(reinterpret_cast<__m256i*>(dst + i + 64), c);
        _mm256_store_si256(reinterpret_cast<__m256i*>(dst + i + 96), d);
    }
    for (; i + 32 <= bytes; i += 32) {
        _mm256_store_si256(reinterpret_cast<__m256i*>(dst + i), load32(src + i));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), head);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + bytes - 32), tail);
}
#endif

// wide: the AVX2 rows may run (Source::wideRows).
inline void copyBytes(char* dst, const char* src, int64_t bytes, bool wide) {
    if (bytes <= 16) return copySmall(dst, src, bytes);
#ifdef KUV_WINDOW_HAVE_AVX2
    if (bytes >= 256 && wide) return copyRowAvx2(dst, src, bytes);
#else
    (void)wide;
#endif
    std::memcpy(dst, src, static_cast<size_t>(bytes));
}

// n bytes set to v; a few of them as fixed-size stores.
inline void fillBytes(char* p, uint8_t v, int64_t n) {
    if (n > 8) {
        std::memset(p, v, static_cast<size_t>(n));
        return;
    }
    const uint64_t word = 0x0101010101010101ull * v;
    char bytes[8];
    std::memcpy(bytes, &word, 8);
    copySmall(p, bytes, n);
}

// n units of `unit` bytes, the first of which is already in place, made
// copies of it by doubling.
inline void spreadUnits(char* p, int64_t n, int64_t unit) {
    if (n <= 1) return;
    if (unit == 1) return fillBytes(p + 1, static_cast<uint8_t>(p[0]), n - 1);
    const int64_t total = n * unit;
    int64_t done = unit;
    while (done < total) {
        const int64_t chunk = std::min(done, total - done);
        std::memcpy(p + done, p, static_cast<size_t>(chunk));
        done += chunk;
    }
}

// Units read from `first` downwards into dst upwards. Units of the common
// pixel sizes are moved as fixed-size copies.
using ReverseFn = void (*)(char* dst, const char* first, int64_t n, int64_t unit);

template <int U>
void reverseFixed(char* dst, const char* first, int64_t n, int64_t) {
    for (int64_t i = 0; i < n; ++i) std::memcpy(dst + i * U, first - i * U, U);
}

void reverseAny(char* dst, const char* first, int64_t n, int64_t unit) {
    for (int64_t i = 0; i < n; ++i) {
        std::memcpy(dst + i * unit, first - i * unit, static_cast<size_t>(unit));
    }
}

ReverseFn reverseFor(int64_t unit) {
    switch (unit) {
        case 1: return reverseFixed<1>;
        case 2: return reverseFixed<2>;
        case 3: return reverseFixed<3>;
        case 4: return reverseFixed<4>;
        case 6: return reverseFixed<6>;
        case 8: return reverseFixed<8>;
        case 12: return reverseFixed<12>;
        case 16: return reverseFixed<16>;
        default: return reverseAny;
    }
}

// ------------------------------------------------------------------ source

// Element bytes of a depth: 0 for bits, -1 for an unknown depth.
int elementBytes(uint32_t depth) {
    switch (ownDepthIndex(depth)) {
        case OWN_1U: return 0;
        case OWN_8U:
        case OWN_8S: return 1;
        case OWN_16U:
        case OWN_16S: return 2;
        case OWN_32S:
        case OWN_32F: return 4;
        default: return -1;
    }
}

bool knownAlign(int32_t align) { return align == 4 || align == 8 || align == 16 || align == 32; }

// A row of `width` pixels in bytes, rounded up to align.
int64_t alignedRow(int64_t rowBytes, int64_t align) {
    return (rowBytes + align - 1) / align * align;
}

// What the readers need of an image, in 64 bits.
struct Source {
    const KuvImage* image;
    const KuvImage* owner;   // the record the tile procedure is given
    int64_t width, height;
    int nChannels;
    bool pixelOrder;
    bool bits;
    int element;        // bytes of one channel element (0 for bits)
    int64_t unit;       // bytes of one pixel within one plane (0 for bits)
    int planes;
    ReverseFn reverse;
    bool wideRows;      // rows of 256 bytes or more copied by the AVX2 loop
    // untiled
    const char* data;
    int64_t step, planeBytes;
    // tiled
    KuvTileInfo* tiles;
    int64_t tileWidth, tileHeight, tileStep, tilePlaneBytes;
};

// false for a layout that the readers cannot address.
bool describe(const KuvImage* image, Source* s) {
    const int element = elementBytes(image->depth);
    if (element < 0) return false;
    if (image->dataOrder != KUV_DATA_ORDER_PIXEL && image->dataOrder != KUV_DATA_ORDER_PLANE)
        return false;
    if (!knownAlign(image->align)) return false;
    if (image->width < 1 || image->height < 1 || image->nChannels < 1) return false;
    if (element == 0 && image->nChannels != 1) return false;
    *s = Source{};
    s->image = image;
    s->owner = image;
    s->width = image->width;
    s->height = image->height;
    s->nChannels = image->nChannels;
    s->pixelOrder = image->dataOrder == KUV_DATA_ORDER_PIXEL;
    s->bits = element == 0;
    s->element = element;
    s->unit = s->pixelOrder ? int64_t{element} * image->nChannels : element;
    s->planes = s->pixelOrder ? 1 : image->nChannels;
    s->reverse = reverseFor(s->unit);
#ifdef KUV_WINDOW_HAVE_AVX2
    s->wideRows = (ownPlatformCpuFeatures() & OWN_CPU_AVX2) != 0;
#endif
    s->tiles = image->tileInfo;
    if (s->tiles == nullptr) {
        if (image->imageData == nullptr || image->widthStep < 1) return false;
        s->data = image->imageData;
        s->step = image->widthStep;
        s->planeBytes = s->step * s->height;
        return true;
    }
    if (s->tiles->callBack == nullptr || s->tiles->width < 1 || s->tiles->height < 1) return false;
    s->tileWidth = s->tiles->width;
    s->tileHeight = s->tiles->height;
    const int64_t rowBytes = s->bits ? (s->tileWidth + 7) / 8 : s->tileWidth * s->unit;
    s->tileStep = alignedRow(rowBytes, image->align);
    s->tilePlaneBytes = s->tileStep * s->tileHeight;
    return true;
}

// One row of one plane: n pixels from source pixel `from` (forwards, or
// backwards when backward is set) to destination pixel `to` onwards.
inline void copyRun(const Source& s, const char* srcRow, int64_t from, bool backward,
                    char* dstRow, int64_t to, int64_t n) {
    if (s.bits) {
        const auto* src = reinterpret_cast<const uint8_t*>(srcRow);
        auto* dst = reinterpret_cast<uint8_t*>(dstRow);
        if (backward) copyBitsBackward(src, from, dst, to, n);
        else copyBitsForward(src, from, dst, to, n);
        return;
    }
    if (backward) s.reverse(dstRow + to * s.unit, srcRow + from * s.unit, n, s.unit);
    else copyBytes(dstRow + to * s.unit, srcRow + from * s.unit, n * s.unit, s.wideRows);
}

// Hands back tiles granted[0 .. count-1] of one tile row, last to first, each
// with its pointer put back into tileData for the procedure to find.
void releaseTiles(const Source& s, char* const* granted, int64_t count, int64_t firstCol,
                  int64_t row) {
    for (int64_t i = count - 1; i >= 0; --i) {
        s.tiles->tileData = granted[i];
        s.tiles->callBack(s.owner, static_cast<int32_t>(firstCol + i), static_cast<int32_t>(row),
                          KUV_TILE_RELEASE);
    }
}

template <class T>
using Block = OwnBlock<T>;

// ------------------------------------------------------------------ window

struct Window {
    char* block;
    int64_t x, y;   // image coordinates of the window's first pixel
    int64_t width;
    int64_t step, planeBytes, rowBytes;

    char* row(int plane, int64_t r) const { return block + plane * planeBytes + r * step; }
};

// A rectangle of the image into the window at (col, row): nx source columns
// from sx on (backwards when backX), ny source rows from sy on in direction
// dy, all planes. false when a tile request failed.
bool readRect(const Source& s, const Window& w, int64_t sx, bool backX, int64_t nx, int64_t sy,
              int dy, int64_t ny, int64_t col, int64_t row) {
    if (s.tiles == nullptr) {
        for (int p = 0; p < s.planes; ++p) {
            const char* plane = s.data + p * s.planeBytes;
            for (int64_t r = 0; r < ny; ++r) {
                copyRun(s, plane + (sy + r * dy) * s.step, sx, backX, w.row(p, row + r), col, nx);
            }
        }
        return true;
    }
    const int64_t xLow = backX ? sx - (nx - 1) : sx, xHigh = xLow + nx - 1;
    const int64_t yLow = dy < 0 ? sy - (ny - 1) : sy, yHigh = yLow + ny - 1;
    const int64_t firstCol = xLow / s.tileWidth, lastCol = xHigh / s.tileWidth;
    const int64_t count = lastCol - firstCol + 1;
    const int64_t tableBytes = count * static_cast<int64_t>(sizeof(char*));
    if (tableBytes > INT32_MAX) return false;
    Block<char*> table(static_cast<char**>(kuvMalloc(static_cast<int32_t>(tableBytes))));
    if (!table) return false;   // as a failed request: nothing is held yet
    for (int64_t u = yLow / s.tileHeight; u <= yHigh / s.tileHeight; ++u) {
        for (int64_t t = 0; t < count; ++t) {
            s.tiles->callBack(s.owner, static_cast<int32_t>(firstCol + t),
                              static_cast<int32_t>(u), KUV_TILE_READ);
            table.get()[t] = s.tiles->tileData;
            if (table.get()[t] == nullptr) {
                releaseTiles(s, table.get(), t, firstCol, u);
                return false;
            }
        }
        const int64_t top = u * s.tileHeight;
        const int64_t ya = std::max(yLow, top), yb = std::min(yHigh, top + s.tileHeight - 1);
        for (int64_t t = 0; t < count; ++t) {
            const int64_t left = (firstCol + t) * s.tileWidth;
            const int64_t xa = std::max(xLow, left), xb = std::min(xHigh, left + s.tileWidth - 1);
            const int64_t from = backX ? xb : xa;
            const int64_t to = col + (backX ? sx - xb : xa - sx);
            const char* tile = table.get()[t];
            for (int p = 0; p < s.planes; ++p) {
                for (int64_t sr = ya; sr <= yb; ++sr) {
                    const char* srcRow = tile + p * s.tilePlaneBytes + (sr - top) * s.tileStep;
                    char* dstRow = w.row(p, row + (sr - sy) * dy);
                    copyRun(s, srcRow, from - left, backX, dstRow, to, xb - xa + 1);
                }
            }
        }
        releaseTiles(s, table.get(), count, firstCol, u);
    }
    return true;
}

// The constant of a side as the element of the image's depth.
struct Constant {
    uint8_t bytes[4];
    int bit;
};

Constant constantOf(uint32_t depth, int32_t value) {
    Constant c{};
    c.bit = value & 1;
    switch (elementBytes(depth)) {
        case 1: c.bytes[0] = static_cast<uint8_t>(value); break;
        case 2: {
            const auto v = static_cast<uint16_t>(value);
            std::memcpy(c.bytes, &v, 2);
            break;
        }
        case 4:
            if (depth == KUV_DEPTH_32F) {
                const auto f = static_cast<float>(value);
                std::memcpy(c.bytes, &f, 4);
            } else {
                std::memcpy(c.bytes, &value, 4);
            }
            break;
        default: break;
    }
    return c;
}

// n pixels of one plane's row from pixel `at` on set to the constant.
void fillConstantRun(const Source& s, char* row, int64_t at, int64_t n, const Constant& c) {
    if (s.bits) return setBits(reinterpret_cast<uint8_t*>(row), at, n, c.bit);
    char* p = row + at * s.unit;
    const int64_t perPixel = s.unit / s.element;
    const auto* element = reinterpret_cast<const char*>(c.bytes);
    for (int64_t i = 0; i < perPixel; ++i) copySmall(p + i * s.element, element, s.element);
    spreadUnits(p, n, s.unit);
}

// Window columns [col, col + n) of rows [row, row + rows) set to the constant.
void fillConstant(const Source& s, const Window& w, int64_t col, int64_t n, int64_t row,
                  int64_t rows, const Constant& c) {
    for (int p = 0; p < s.planes; ++p) {
        fillConstantRun(s, w.row(p, row), col, n, c);
        for (int64_t r = 1; r < rows; ++r) {
            if (s.bits) {
                setBits(reinterpret_cast<uint8_t*>(w.row(p, row + r)), col, n, c.bit);
            } else {
                copyBytes(w.row(p, row + r) + col * s.unit, w.row(p, row) + col * s.unit,
                          n * s.unit, s.wideRows);
            }
        }
    }
}

// Window rows of a constant band: whole rows, and in a bit window whole
// bytes up to the step, so that the row ends carry the constant too.
void fillConstantRows(const Source& s, const Window& w, int64_t row, int64_t rows,
                      const Constant& c) {
    if (!s.bits) return fillConstant(s, w, 0, w.width, row, rows, c);
    for (int64_t r = 0; r < rows; ++r) {
        std::memset(w.row(0, row + r), c.bit ? 0xFF : 0x00, static_cast<size_t>(w.step));
    }
}

// The pixel at window column col of each row spread over n columns.
void spreadColumns(const Source& s, const Window& w, int64_t col, int64_t n, int64_t row,
                   int64_t rows) {
    for (int p = 0; p < s.planes; ++p) {
        for (int64_t r = row; r < row + rows; ++r) {
            char* line = w.row(p, r);
            if (s.bits) {
                auto* bitsRow = reinterpret_cast<uint8_t*>(line);
                setBits(bitsRow, col + 1, n - 1, getBit(bitsRow, col));
            } else {
                spreadUnits(line + col * s.unit, n, s.unit);
            }
        }
    }
}

// Window row `row` (all of it) copied to the rows - 1 rows below it.
void copyRowDown(const Source& s, const Window& w, int64_t row, int64_t rows) {
    for (int p = 0; p < s.planes; ++p) {
        for (int64_t r = 1; r < rows; ++r) {
            copyBytes(w.row(p, row + r), w.row(p, row), w.rowBytes, s.wideRows);
        }
    }
}

// Window area of image rows [y0, y1) and columns [x0, x1), with rowMode on
// y and colMode on x; constant pieces (only ever columns here) take c.
bool buildArea(const Source& s, const Window& w, int rowMode, int64_t y0, int64_t y1, int colMode,
               int64_t x0, int64_t x1, const Constant& c) {
    for (int64_t ky = y0; ky < y1;) {
        const Span rs = nextSpan(rowMode, s.height, ky, y1);
        const int64_t row = ky - w.y;
        // A repeated row is built once and copied down the band.
        const int64_t rows = rs.kind == SPAN_REPEAT ? 1 : rs.len;
        const int dy = rs.kind == SPAN_BACKWARD ? -1 : 1;
        for (int64_t kx = x0; kx < x1;) {
            const Span cs = nextSpan(colMode, s.width, kx, x1);
            const int64_t col = kx - w.x;
            switch (cs.kind) {
                case SPAN_CONSTANT: fillConstant(s, w, col, cs.len, row, rows, c); break;
                case SPAN_REPEAT:
                    if (!readRect(s, w, cs.src, false, 1, rs.src, dy, rows, col, row)) return false;
                    spreadColumns(s, w, col, cs.len, row, rows);
                    break;
                default:
                    if (!readRect(s, w, cs.src, cs.kind == SPAN_BACKWARD, cs.len, rs.src, dy, rows,
                                  col, row)) {
                        return false;
                    }
                    break;
            }
            kx += cs.len;
        }
        if (rs.kind == SPAN_REPEAT) copyRowDown(s, w, row, rs.len);
        ky += rs.len;
    }
    return true;
}

// A band above or below the image: its side's mode on both coordinates.
bool buildBand(const Source& s, const Window& w, int side, int64_t y0, int64_t y1) {
    if (y0 >= y1) return true;
    const int mode = s.image->borderMode[side] & 3;
    const Constant c = constantOf(s.image->depth, s.image->borderConst[side]);
    if (mode == KUV_BORDER_CONSTANT) {
        fillConstantRows(s, w, y0 - w.y, y1 - y0, c);
        return true;
    }
    return buildArea(s, w, mode, y0, y1, mode, w.x, w.x + w.width, c);
}

// Rows inside the image in three column ranges: left of the image by the
// left side's rule, the pixels themselves, right of it by the right side's.
bool buildRows(const Source& s, const Window& w, int64_t y0, int64_t y1) {
    const KuvImage* image = s.image;
    const int64_t x0 = w.x, x1 = w.x + w.width;
    const int64_t bounds[4] = {x0, std::clamp<int64_t>(0, x0, x1), std::clamp(s.width, x0, x1),
                               x1};
    const int sides[3] = {KUV_SIDE_LEFT_INDEX, -1, KUV_SIDE_RIGHT_INDEX};
    for (int range = 0; range < 3; ++range) {
        const int64_t a = bounds[range], b = bounds[range + 1];
        if (a >= b) continue;
        const int side = sides[range];
        if (side < 0) {
            if (!readRect(s, w, a, false, b - a, y0, 1, y1 - y0, a - w.x, y0 - w.y)) return false;
            continue;
        }
        const Constant c = constantOf(image->depth, image->borderConst[side]);
        // Rows inside map to themselves under any mode but the constant.
        if (!buildArea(s, w, KUV_BORDER_WRAP, y0, y1, image->borderMode[side] & 3, a, b, c))
            return false;
    }
    return true;
}

// A span of the rows inside, at a window column: the same for every row.
// Its offsets are kept in bytes so that a row's work has no products.
struct RowSpan {
    int64_t col;
    Span span;
    Constant c;
    int64_t to, from, bytes;   // window offset, source offset, span length
};

// More spans than this (a window many times wider than the image) go by strips.
constexpr int maxRowSpans = 16;

// The spans of one row inside the image: the pixels first, so that a row's
// source is in cache when the sides read from it, then the left range and
// the right range. false when there are too many of them.
bool rowSpans(const Source& s, const Window& w, RowSpan* spans, int* count) {
    const KuvImage* image = s.image;
    const int64_t x0 = w.x, x1 = w.x + w.width;
    const int64_t bounds[4] = {x0, std::clamp<int64_t>(0, x0, x1), std::clamp(s.width, x0, x1),
                               x1};
    const int sides[3] = {KUV_SIDE_LEFT_INDEX, -1, KUV_SIDE_RIGHT_INDEX};
    int n = 0;
    for (int range : {1, 0, 2}) {
        const int side = sides[range];
        const int mode = side < 0 ? KUV_BORDER_WRAP : image->borderMode[side] & 3;
        const Constant c = constantOf(image->depth, side < 0 ? 0 : image->borderConst[side]);
        for (int64_t k = bounds[range]; k < bounds[range + 1];) {
            if (n == maxRowSpans) return false;
            const Span span = nextSpan(mode, s.width, k, bounds[range + 1]);
            spans[n++] = RowSpan{k - w.x,           span,
                                 c,                 (k - w.x) * s.unit,
                                 span.src * s.unit, span.len * s.unit};
            k += span.len;
        }
    }
    *count = n;
    return true;
}

// Rows inside an untiled byte image, one row at a time, each finished while
// it is in cache; U is the pixel size when it is one of the common ones (0
// otherwise), so that moves of single pixels are fixed-size moves. Constant
// runs of wider pixels are filled in the first row and copied down.
template <int U>
void buildRowByRow(const Source& s, const Window& w, int64_t y0, int64_t y1,
                   const RowSpan* spans, int count) {
    const int64_t unit = U > 0 ? U : s.unit;
    for (int p = 0; p < s.planes; ++p) {
        const char* src = s.data + p * s.planeBytes + y0 * s.step;
        char* dst = w.row(p, y0 - w.y);
        for (int64_t y = y0; y < y1; ++y, src += s.step, dst += w.step) {
            for (const RowSpan* rs = spans; rs != spans + count; ++rs) {
                char* to = dst + rs->to;
                const char* from = src + rs->from;
                switch (rs->span.kind) {
                    case SPAN_FORWARD: copyBytes(to, from, rs->bytes, s.wideRows); break;
                    case SPAN_BACKWARD:
                        if constexpr (U > 0) {
                            for (int64_t i = 0; i < rs->span.len; ++i) {
                                std::memcpy(to + i * U, from - i * U, U);
                            }
                        } else {
                            s.reverse(to, from, rs->span.len, unit);
                        }
                        break;
                    case SPAN_REPEAT:
                        if constexpr (U == 1) {
                            fillBytes(to, static_cast<uint8_t>(*from), rs->bytes);
                        } else {
                            if constexpr (U > 0) std::memcpy(to, from, U);
                            else std::memcpy(to, from, static_cast<size_t>(unit));
                            spreadUnits(to, rs->span.len, unit);
                        }
                        break;
                    case SPAN_CONSTANT:
                        if constexpr (U == 1) {
                            fillBytes(to, rs->c.bytes[0], rs->bytes);
                        } else {
                            if (y == y0) fillConstantRun(s, dst, rs->col, rs->span.len, rs->c);
                            else copyBytes(to, to - w.step, rs->bytes, s.wideRows);
                        }
                        break;
                }
            }
        }
    }
}

using RowByRowFn = void (*)(const Source&, const Window&, int64_t, int64_t, const RowSpan*, int);

RowByRowFn rowByRowFor(int64_t unit) {
    switch (unit) {
        case 1: return buildRowByRow<1>;
        case 2: return buildRowByRow<2>;
        case 3: return buildRowByRow<3>;
        case 4: return buildRowByRow<4>;
        case 6: return buildRowByRow<6>;
        case 8: return buildRowByRow<8>;
        case 12: return buildRowByRow<12>;
        case 16: return buildRowByRow<16>;
        default: return buildRowByRow<0>;
    }
}

// Otherwise the rows inside go in strips, so that the ranges of a strip are
// written while its rows are still in cache; a tiled image's strips are its
// tile rows, so that each tile is requested once per range.
constexpr int64_t stripRows = 16;

bool buildMiddle(const Source& s, const Window& w, int64_t y0, int64_t y1) {
    if (y0 >= y1) return true;
    RowSpan spans[maxRowSpans];
    int count = 0;
    if (s.tiles == nullptr && !s.bits && rowSpans(s, w, spans, &count)) {
        rowByRowFor(s.unit)(s, w, y0, y1, spans, count);
        return true;
    }
    for (int64_t top = y0; top < y1;) {
        const int64_t end = s.tiles != nullptr ? (top / s.tileHeight + 1) * s.tileHeight
                                               : top + stripRows;
        const int64_t bottom = std::min(end, y1);
        if (!buildRows(s, w, top, bottom)) return false;
        top = bottom;
    }
    return true;
}

// ------------------------------------------------------------------ line

// Where one channel's elements of a row lie.
struct LineSource {
    const Source* s;
    int64_t stride;   // bytes between elements of the channel
    int64_t offset;   // bytes of the channel's element within its pixel
    int plane;
};

// n elements of one row (given by its address) from column `from`, forwards
// or backwards, into buffer element `to` onwards.
template <class T>
void copyElements(const char* row, const LineSource& ls, int64_t from, int dir, char* buffer,
                  int64_t to, int64_t n) {
    const char* p = row + from * ls.stride + ls.offset;
    const int64_t step = dir * ls.stride;
    char* d = buffer + to * static_cast<int64_t>(sizeof(T));
    for (int64_t i = 0; i < n; ++i, p += step, d += sizeof(T)) std::memcpy(d, p, sizeof(T));
}

void copyLineRun(const char* row, const LineSource& ls, int64_t from, int dir, char* buffer,
                 int64_t to, int64_t n) {
    const auto* bitsRow = reinterpret_cast<const uint8_t*>(row);
    auto* bitsBuffer = reinterpret_cast<uint8_t*>(buffer);
    switch (ls.s->element) {
        case 0:
            if (dir < 0) copyBitsBackward(bitsRow, from, bitsBuffer, to, n);
            else copyBitsForward(bitsRow, from, bitsBuffer, to, n);
            break;
        case 1: copyElements<uint8_t>(row, ls, from, dir, buffer, to, n); break;
        case 2: copyElements<uint16_t>(row, ls, from, dir, buffer, to, n); break;
        default: copyElements<uint32_t>(row, ls, from, dir, buffer, to, n); break;
    }
}

// Elements of row y from column `from` (forwards or backwards) into the
// buffer; a tiled image is read tile column by tile column, one tile held at
// a time. false when a tile request failed.
bool readLine(const LineSource& ls, int64_t y, int64_t from, int dir, int64_t n, char* buffer,
              int64_t to) {
    const Source& s = *ls.s;
    if (s.tiles == nullptr) {
        const char* row = s.data + ls.plane * s.planeBytes + y * s.step;
        copyLineRun(row, ls, from, dir, buffer, to, n);
        return true;
    }
    const int64_t u = y / s.tileHeight;
    while (n > 0) {
        const int64_t t = from / s.tileWidth;
        const int64_t left = t * s.tileWidth;
        const int64_t len = std::min(n, dir > 0 ? left + s.tileWidth - from : from - left + 1);
        s.tiles->callBack(s.owner, static_cast<int32_t>(t), static_cast<int32_t>(u), KUV_TILE_READ);
        char* tile = s.tiles->tileData;
        if (tile == nullptr) return false;
        const char* row = tile + ls.plane * s.tilePlaneBytes + (y - u * s.tileHeight) * s.tileStep;
        copyLineRun(row, ls, from - left, dir, buffer, to, len);
        s.tiles->tileData = tile;
        s.tiles->callBack(s.owner, static_cast<int32_t>(t), static_cast<int32_t>(u),
                          KUV_TILE_RELEASE);
        from += dir * len;
        to += len;
        n -= len;
    }
    return true;
}

// Buffer elements [at, at + n) made copies of element `at`.
void spreadLine(const Source& s, char* buffer, int64_t at, int64_t n) {
    if (s.bits) {
        auto* b = reinterpret_cast<uint8_t*>(buffer);
        return setBits(b, at + 1, n - 1, getBit(b, at));
    }
    spreadUnits(buffer + at * s.element, n, s.element);
}

void fillLineConstant(const Source& s, char* buffer, int64_t at, int64_t n, const Constant& c) {
    if (s.bits) return setBits(reinterpret_cast<uint8_t*>(buffer), at, n, c.bit);
    std::memcpy(buffer + at * s.element, c.bytes, s.element);
    spreadUnits(buffer + at * s.element, n, s.element);
}

}  // namespace

char* ownCopyWindow(const KuvImage* image, int32_t x, int32_t y, int32_t width, int32_t height,
                    int32_t* step) {
    return ownCopyWindowAs(image, image, x, y, width, height, step);
}

char* ownCopyWindowAs(const KuvImage* image, const KuvImage* owner, int32_t x, int32_t y,
                      int32_t width, int32_t height, int32_t* step) {
    if (image == nullptr || owner == nullptr || width < 1 || height < 1) return nullptr;
    Source s;
    if (!describe(image, &s)) return nullptr;
    s.owner = owner;

    const int64_t rowBytes = s.bits ? (int64_t{width} + 7) / 8 : width * s.unit;
    const int64_t windowStep = alignedRow(rowBytes, image->align);
    const int64_t size = windowStep * height * s.planes;
    if (size > INT32_MAX) return nullptr;
    Block<char> block(static_cast<char*>(kuvMalloc(static_cast<int32_t>(size))));
    if (!block) return nullptr;
    // Bits are set singly below, so a bit window starts from a clean block.
    if (s.bits) std::memset(block.get(), 0, static_cast<size_t>(size));

    const Window w{block.get(), x, y, width, windowStep, windowStep * height, rowBytes};
    const int64_t y0 = y, y1 = y0 + height;
    if (!buildBand(s, w, KUV_SIDE_TOP_INDEX, y0, std::min<int64_t>(y1, 0))) return nullptr;
    if (!buildMiddle(s, w, std::max<int64_t>(y0, 0), std::min(y1, s.height))) return nullptr;
    if (!buildBand(s, w, KUV_SIDE_BOTTOM_INDEX, std::max(y0, s.height), y1)) return nullptr;

    if (step != nullptr) *step = static_cast<int32_t>(windowStep);
    return block.release();
}

void ownFreeWindow(char* window) { kuvFree(window); }

void ownGetBorderedLine(const KuvImage* image, int32_t x, int32_t y, int32_t channel,
                        void* buffer, int32_t count) {
    if (image == nullptr || buffer == nullptr || count < 1) return;
    if (image->depth == KUV_DEPTH_32F) return;   // morphology, the only user, refuses floats
    Source s;
    if (!describe(image, &s)) return;
    if (channel < 1 || channel > s.nChannels) return;

    LineSource ls{&s, s.element, 0, 0};
    if (s.pixelOrder) {
        ls.stride = s.unit;
        ls.offset = int64_t{channel - 1} * s.element;
    } else {
        ls.plane = channel - 1;
    }
    auto* out = static_cast<char*>(buffer);

    // Above or below the image the side's rule maps both coordinates; in rows
    // inside, the left and right rules map x alone.
    int side = -1;
    if (y < 0) side = KUV_SIDE_TOP_INDEX;
    else if (y >= s.height) side = KUV_SIDE_BOTTOM_INDEX;
    int64_t row = y;
    if (side >= 0) {
        const int mode = image->borderMode[side] & 3;
        if (mode == KUV_BORDER_CONSTANT) {
            fillLineConstant(s, out, 0, count, constantOf(image->depth, image->borderConst[side]));
            return;
        }
        row = nextSpan(mode, s.height, y, int64_t{y} + 1).src;
    }

    const int64_t end = int64_t{x} + count;
    for (int64_t k = x; k < end;) {
        int pieceSide = side;
        if (pieceSide < 0 && k < 0) pieceSide = KUV_SIDE_LEFT_INDEX;
        if (pieceSide < 0 && k >= s.width) pieceSide = KUV_SIDE_RIGHT_INDEX;
        const int mode = pieceSide >= 0 ? image->borderMode[pieceSide] & 3 : KUV_BORDER_WRAP;
        const Span span = nextSpan(mode, s.width, k, end);
        const int64_t at = k - x;
        switch (span.kind) {
            case SPAN_CONSTANT:
                fillLineConstant(s, out, at, span.len,
                                 constantOf(image->depth, image->borderConst[pieceSide]));
                break;
            case SPAN_REPEAT:
                if (!readLine(ls, row, span.src, 1, 1, out, at)) return;
                spreadLine(s, out, at, span.len);
                break;
            default:
                if (!readLine(ls, row, span.src, span.kind == SPAN_BACKWARD ? -1 : 1, span.len, out,
                              at)) {
                    return;
                }
                break;
        }
        k += span.len;
    }
}
