// Shared test support: image builders, naive element access written from the
// layout rules, seeded fills, canary snapshots, report capture, a tile store
// and the per-test block count. Every test binary source may include this.
//
// Include as "tests/support/kuv_test.h".
//
// Conventions: coordinates are absolute image coordinates (x column, y stored
// row, c channel from 0), never relative to a region. Nothing here calls the
// library's own layout helpers, so that a fault in them cannot hide itself.
#ifndef KUV_TESTS_SUPPORT_KUV_TEST_H
#define KUV_TESTS_SUPPORT_KUV_TEST_H

#include "core/platform.h"
#include "kuv.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace kuvtest {

// ------------------------------------------------------------------ depths

// All seven depths, in the order 1U, 8U, 8S, 16U, 16S, 32S, 32F.
const std::vector<uint32_t>& allDepths();
// "8U", "16S", "32F", ... ; "depth 0x..." for an unknown value.
std::string depthName(uint32_t depth);
// Bits per element: the depth without its sign bit.
int depthBits(uint32_t depth);
// Smallest and largest element value of a depth (32F: -FLT_MAX, FLT_MAX; 1U: 0, 1).
double depthMin(uint32_t depth);
double depthMax(uint32_t depth);
// Limits v to the depth's range (integer depths, no rounding) or rounds it to float (32F).
double saturateTo(uint32_t depth, double v);

// ------------------------------------------------------------------ images

// Deleter of every image the support makes: kuvDeallocate(img, KUV_IMAGE_ALL).
struct ImageDeleter {
    void operator()(KuvImage* image) const;
};
using ImagePtr = std::unique_ptr<KuvImage, ImageDeleter>;

// A new allocated image, pixels (padding included) set to 0; fails the test and returns null on refusal.
ImagePtr makeImage(uint32_t depth, int nChannels, int width, int height,
                   int dataOrder = KUV_DATA_ORDER_PIXEL, int alphaChannel = 0, int align = 4);
// A header of the same fields as image (depth, channels, alpha, order, origin, align, size), new pixels set to 0, no roi/mask/tile.
ImagePtr makeLike(const KuvImage* image);
// A copy of image: same fields, same roi values (own record), same pixel bytes; no mask, no tile.
ImagePtr copyImage(const KuvImage* image);
// Gives image a region: frees a previous roi record, then kuvCreateROI (freed by KUV_IMAGE_ROI).
void setRoi(KuvImage* image, int coi, int x, int y, int width, int height);
// Removes and frees the image's roi record.
void clearRoi(KuvImage* image);
// A 1U mask image (one channel), all bits (padding included) set to `fill` (0 or 1).
ImagePtr makeMask(int width, int height, int fill = 0, int align = 4);
// Hangs mask on image->maskROI (freed with the image through KUV_IMAGE_MASK); frees a previous mask.
void attachMask(KuvImage* image, ImagePtr mask);

// ------------------------------------------------------------ element access

// Byte offset of element (x, y, c) from imageData and, for 1U, its bit (7 = most significant).
struct ElementPos {
    int64_t byte;
    int bit;   // 7 - x % 8 for 1U, else -1
};
ElementPos elementPos(const KuvImage* image, int x, int y, int c);
// Element (x, y, c) of an untiled image read as a double (1U gives 0 or 1).
double get(const KuvImage* image, int x, int y, int c);
// Stores v in element (x, y, c): integers by plain conversion (v must be in range), 32F rounded to float, 1U bit = v != 0.
void put(KuvImage* image, int x, int y, int c, double v);
// Raw bits of element (x, y, c) (for 32F the float's bit pattern), for exact comparisons.
uint32_t getBits(const KuvImage* image, int x, int y, int c);

// ------------------------------------------------------------------ random

// A seeded generator; the seed is what a failing case prints.
class Rng {
public:
    explicit Rng(uint64_t seed) : engine_(seed) {}
    uint32_t next() { return static_cast<uint32_t>(engine_()); }
    // Uniform integer in [lo, hi].
    int64_t uniform(int64_t lo, int64_t hi);
    // Uniform double in [lo, hi).
    double real(double lo, double hi);
    // True with probability p.
    bool chance(double p) { return real(0.0, 1.0) < p; }

private:
    std::mt19937_64 engine_;
};

// Fills all imageSize bytes (padding too) from seed: random bytes; 32F gets finite floats in [-1e4, 1e4] instead.
void fillRandom(KuvImage* image, uint64_t seed);
// Fills every element slot of all imageSize bytes (padding slots too) with integers in [lo, hi] (32F: reals in [lo, hi)).
void fillRandomRange(KuvImage* image, uint64_t seed, double lo, double hi);

// ------------------------------------------------------------ canary checks

// A copy of a header, its roi record and all imageSize pixel bytes, taken before a call.
struct Snapshot {
    const KuvImage* image = nullptr;
    KuvImage header{};
    bool hasRoi = false;
    KuvROI roi{};
    std::vector<uint8_t> bytes;
};
Snapshot snapshot(const KuvImage* image);

// Which elements an operation may write: absolute (x, y, c).
using ElementPredicate = std::function<bool(int x, int y, int c)>;

enum class Padding { MustStay, MayChange };

// Every element for which mayChange is false is bit-identical to the snapshot, padding bits too
// unless padding is MayChange, and the header and roi are unchanged. Lists the first differences.
::testing::AssertionResult unchangedExcept(const Snapshot& before, const KuvImage* image,
                                           const ElementPredicate& mayChange,
                                           Padding padding = Padding::MustStay);
// EXPECT_TRUE(unchangedExcept(...)) in one call.
void expectUnchangedExcept(const Snapshot& before, const KuvImage* image,
                           const ElementPredicate& mayChange, Padding padding = Padding::MustStay);

// Snapshots up to three images (any may be null): pixels, headers, roi and tile records, mask headers.
// intact() then tells whether a refused call left all of it byte-identical.
class RefusalGuard {
public:
    RefusalGuard(const KuvImage* a, const KuvImage* b = nullptr, const KuvImage* c = nullptr);
    ::testing::AssertionResult intact() const;

private:
    struct Taken {
        const KuvImage* image = nullptr;
        std::vector<uint8_t> header, roi, tile, mask, pixels;
    };
    static Taken take(const KuvImage* image);
    Taken taken_[3];
};

// ------------------------------------------------------------------ reports

// One call of the report handler.
struct Report {
    KuvStatus status;
    std::string func, context, file;
    int line;
};
std::ostream& operator<<(std::ostream& out, const Report& report);

// Installs a recording handler by kuvRedirectError and Parent mode, clears the status;
// the destructor restores handler and mode and clears the status again. Nestable.
class ReportCapture {
public:
    ReportCapture();
    ~ReportCapture();
    ReportCapture(const ReportCapture&) = delete;
    ReportCapture& operator=(const ReportCapture&) = delete;
    // The calls recorded so far on this thread, oldest first.
    const std::vector<Report>& reports() const;
    size_t count() const { return reports().size(); }
    void clear();

private:
    KuvErrorCallBack previousHandler_;
    int32_t previousMode_;
    std::vector<Report>* previousSink_;
    std::vector<Report> sink_;
};

// Limits the processor features the library's dispatchers see for the life of
// the object: 0 runs every family's plain rows, the reference for the vector
// ones. Puts the previous limit back.
class FeatureLimit {
public:
    explicit FeatureLimit(unsigned allowed) : previous_(ownPlatformLimitFeatures(allowed)) {}
    ~FeatureLimit() { ownPlatformLimitFeatures(previous_); }
    FeatureLimit(const FeatureLimit&) = delete;
    FeatureLimit& operator=(const FeatureLimit&) = delete;

private:
    unsigned previous_;
};

// The report has these status, function, context and file texts (line not compared).
::testing::AssertionResult isReport(const Report& report, KuvStatus status, const char* func,
                                    const char* context, const char* file);
// Exactly one report was recorded and it matches; the thread's status equals `status`.
::testing::AssertionResult oneReport(const ReportCapture& capture, KuvStatus status,
                                     const char* func, const char* context, const char* file);

// -------------------------------------------------------- block accounting

// ownOutstandingBlocks() now. A listener registered for the whole binary fails every
// test that ends with a count other than the one it started with.
long outstandingBlocks();

// ------------------------------------------------------------------- tiles

// A tiled image served from a plain backing image of the same fields. Each READ or
// WRITE request copies the tile's part inside the image from the backing image into
// a fresh buffer of the full tile size (the rest of the buffer is a canary); a RELEASE
// of a WRITE tile copies it back. Every request is logged; the k-th READ/WRITE request
// (counting from 1) can be made to fail by leaving tileData null.
class TileStore {
public:
    struct Request {
        int col, row, mode;
        bool operator==(const Request&) const = default;
    };

    // Takes the backing image (untiled, no roi/mask) and builds the tiled header over it.
    TileStore(ImagePtr backing, int tileWidth, int tileHeight);
    ~TileStore();
    TileStore(const TileStore&) = delete;
    TileStore& operator=(const TileStore&) = delete;

    // The tiled header to pass to operations (set its roi/mask with setRoi/attachMask).
    KuvImage* image() const { return tiled_.get(); }
    // The plain image that holds the pixels; read and write it with get/put.
    KuvImage* backing() const { return backing_.get(); }
    // This store's requests, oldest first.
    const std::vector<Request>& log() const { return log_; }
    void clearLog() {
        log_.clear();
    }
    // Requests of all stores in the order they were made, each with its store's id().
    struct Call {
        int32_t store;
        Request request;
        bool operator==(const Call&) const = default;
    };
    static const std::vector<Call>& calls();
    static void clearCalls();
    // The id kept in tileInfo->id, which names this store in calls().
    int32_t id() const { return id_; }
    // The k-th READ or WRITE request from now (1-based) leaves tileData null; 0 for none.
    void failRequest(int k);
    // Tiles granted and not yet released.
    int held() const { return static_cast<int>(held_.size()); }
    // Faults the store saw: a release of a tile it never gave, a tile buffer written
    // beyond the image's edge, tileData not null on a request. Empty when all was well.
    const std::vector<std::string>& faults() const { return faults_; }

private:
    struct Held {
        std::vector<uint8_t> buffer;
        std::vector<uint8_t> original;   // READ tiles: what was handed out
        int col, row, mode;
    };
    static void callBack(const KuvImage* image, int32_t col, int32_t row, int32_t mode);
    void serve(int col, int row, int mode);
    void giveBack();
    void checkBeyondImage(const Held& held);
    // Copies the part of tile (col, row) inside the image between buffer and backing.
    void copyTile(std::vector<uint8_t>& buffer, int col, int row, bool toTile);
    int64_t tileBytes() const;

    ImagePtr backing_;
    ImagePtr tiled_;
    int tileWidth_, tileHeight_;
    int32_t id_;
    std::vector<Request> log_;
    std::vector<std::unique_ptr<Held>> held_;
    std::vector<std::string> faults_;
    int failAt_ = 0;
    int requests_ = 0;
};

}  // namespace kuvtest

#endif
