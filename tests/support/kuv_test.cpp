// Shared test support. The element arithmetic here is written from the
// layout rules on purpose, never through the library's helpers.
#include "tests/support/kuv_test.h"

#include "kuv_own.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <map>
#include <sstream>

namespace kuvtest {

// ------------------------------------------------------------------ depths

const std::vector<uint32_t>& allDepths() {
    static const std::vector<uint32_t> depths = {KUV_DEPTH_1U,  KUV_DEPTH_8U,  KUV_DEPTH_8S,
                                                 KUV_DEPTH_16U, KUV_DEPTH_16S, KUV_DEPTH_32S,
                                                 KUV_DEPTH_32F};
    return depths;
}

std::string depthName(uint32_t depth) {
    switch (depth) {
        case KUV_DEPTH_1U: return "1U";
        case KUV_DEPTH_8U: return "8U";
        case KUV_DEPTH_8S: return "8S";
        case KUV_DEPTH_16U: return "16U";
        case KUV_DEPTH_16S: return "16S";
        case KUV_DEPTH_32S: return "32S";
        case KUV_DEPTH_32F: return "32F";
        default: {
            std::ostringstream out;
            out << "depth 0x" << std::hex << depth;
            return out.str();
        }
    }
}

int depthBits(uint32_t depth) { return static_cast<int>(depth & ~KUV_DEPTH_SIGN); }

double depthMin(uint32_t depth) {
    switch (depth) {
        case KUV_DEPTH_8S: return -128.0;
        case KUV_DEPTH_16S: return -32768.0;
        case KUV_DEPTH_32S: return -2147483648.0;
        case KUV_DEPTH_32F: return -static_cast<double>(FLT_MAX);
        default: return 0.0;
    }
}

double depthMax(uint32_t depth) {
    switch (depth) {
        case KUV_DEPTH_1U: return 1.0;
        case KUV_DEPTH_8U: return 255.0;
        case KUV_DEPTH_8S: return 127.0;
        case KUV_DEPTH_16U: return 65535.0;
        case KUV_DEPTH_16S: return 32767.0;
        case KUV_DEPTH_32S: return 2147483647.0;
        case KUV_DEPTH_32F: return static_cast<double>(FLT_MAX);
        default: return 0.0;
    }
}

double saturateTo(uint32_t depth, double v) {
    if (depth == KUV_DEPTH_32F) return static_cast<double>(static_cast<float>(v));
    if (v < depthMin(depth)) return depthMin(depth);
    if (v > depthMax(depth)) return depthMax(depth);
    return v;
}

// ------------------------------------------------------------------ images

namespace {

thread_local std::vector<Report>* tlsSink = nullptr;

KuvStatus recordReport(KuvStatus status, const char* funcName, const char* context,
                       const char* fileName, int32_t line) {
    if (tlsSink != nullptr) {
        tlsSink->push_back(Report{status, funcName != nullptr ? funcName : "(null)",
                                  context != nullptr ? context : "(null)",
                                  fileName != nullptr ? fileName : "(null)", line});
    }
    return status;
}

// Builds images with a recording handler, so that an unexpected refusal
// fails the test instead of ending the process, and leaves the thread's
// handler, mode and status as they were.
class QuietBuild {
public:
    QuietBuild()
        : handler_(kuvRedirectError(&recordReport)),
          mode_(kuvGetErrMode()),
          status_(kuvGetErrStatus()),
          sink_(tlsSink) {
        kuvSetErrMode(KUV_ErrorModeParent);
        tlsSink = &reports_;
    }
    ~QuietBuild() {
        for (const Report& r : reports_) ADD_FAILURE() << "building a test image: " << r;
        tlsSink = sink_;
        kuvRedirectError(handler_);
        kuvSetErrMode(mode_);
        kuvSetErrStatus(status_);
    }

private:
    KuvErrorCallBack handler_;
    int32_t mode_;
    KuvStatus status_;
    std::vector<Report>* sink_;
    std::vector<Report> reports_;
};

const char* colorModelFor(int nChannels) {
    switch (nChannels) {
        case 1: return "GRAY";
        case 3: return "RGB\0";
        case 4: return "RGBA";
        default: return "MULT";
    }
}

const char* channelSeqFor(int nChannels) {
    switch (nChannels) {
        case 1: return "G\0\0\0";
        case 3: return "BGR\0";
        case 4: return "BGRA";
        default: return "CCCC";
    }
}

ImagePtr build(uint32_t depth, int nChannels, int alphaChannel, int dataOrder, int origin,
               int align, int width, int height, const char* colorModel,
               const char* channelSeq) {
    QuietBuild quiet;
    ImagePtr image(kuvCreateImageHeader(nChannels, alphaChannel, depth, colorModel, channelSeq,
                                        dataOrder, origin, align, width, height, nullptr,
                                        nullptr, 0, nullptr));
    if (!image) {
        ADD_FAILURE() << "kuvCreateImageHeader refused " << depthName(depth) << " x"
                      << nChannels << " " << width << "x" << height;
        return image;
    }
    if (depth == KUV_DEPTH_32F) {
        kuvAllocateImageFP(image.get(), 1, 0.0f);
    } else {
        kuvAllocateImage(image.get(), 1, 0);
    }
    if (image->imageData == nullptr) {
        ADD_FAILURE() << "no pixels for " << depthName(depth) << " " << width << "x" << height;
        return nullptr;
    }
    return image;
}

int64_t rowBytesOf(int dataOrder, uint32_t depth, int align, int nChannels, int width) {
    int64_t bits = int64_t{width} * depthBits(depth);
    if (dataOrder == KUV_DATA_ORDER_PIXEL) bits *= nChannels;
    const int64_t unit = int64_t{align} * 8;
    return (bits + unit - 1) / unit * unit / 8;
}

}  // namespace

void ImageDeleter::operator()(KuvImage* image) const { kuvDeallocate(image, KUV_IMAGE_ALL); }

ImagePtr makeImage(uint32_t depth, int nChannels, int width, int height, int dataOrder,
                   int alphaChannel, int align) {
    return build(depth, nChannels, alphaChannel, dataOrder, KUV_ORIGIN_TOP_LEFT, align, width,
                 height, colorModelFor(nChannels), channelSeqFor(nChannels));
}

ImagePtr makeLike(const KuvImage* image) {
    return build(image->depth, image->nChannels, image->alphaChannel, image->dataOrder,
                 image->origin, image->align, image->width, image->height, image->colorModel,
                 image->channelSeq);
}

ImagePtr copyImage(const KuvImage* image) {
    ImagePtr copy = makeLike(image);
    if (!copy) return copy;
    if (image->roi != nullptr) {
        const KuvROI& r = *image->roi;
        setRoi(copy.get(), r.coi, r.xOffset, r.yOffset, r.width, r.height);
    }
    if (image->imageData != nullptr) {
        std::memcpy(copy->imageData, image->imageData, static_cast<size_t>(copy->imageSize));
    }
    return copy;
}

void setRoi(KuvImage* image, int coi, int x, int y, int width, int height) {
    clearRoi(image);
    image->roi = kuvCreateROI(coi, x, y, width, height);
    if (image->roi == nullptr) ADD_FAILURE() << "kuvCreateROI gave null";
}

void clearRoi(KuvImage* image) {
    if (image->roi != nullptr) kuvDeleteROI(image->roi);
    image->roi = nullptr;
}

ImagePtr makeMask(int width, int height, int fill, int align) {
    ImagePtr mask = makeImage(KUV_DEPTH_1U, 1, width, height, KUV_DATA_ORDER_PIXEL, 0, align);
    if (mask) std::memset(mask->imageData, fill ? 0xFF : 0x00, static_cast<size_t>(mask->imageSize));
    return mask;
}

void attachMask(KuvImage* image, ImagePtr mask) {
    if (image->maskROI != nullptr) ImageDeleter{}(image->maskROI);
    image->maskROI = mask.release();
}

// ------------------------------------------------------------ element access

ElementPos elementPos(const KuvImage* image, int x, int y, int c) {
    const int bits = depthBits(image->depth);
    const int64_t step = image->widthStep;
    int64_t bitIndex = 0;
    int64_t base = 0;
    if (image->dataOrder == KUV_DATA_ORDER_PIXEL) {
        base = step * y;
        bitIndex = (int64_t{x} * image->nChannels + c) * bits;
    } else {
        base = step * image->height * c + step * y;
        bitIndex = int64_t{x} * bits;
    }
    ElementPos pos{base + bitIndex / 8, -1};
    if (bits == 1) pos.bit = 7 - static_cast<int>(bitIndex % 8);
    return pos;
}

uint32_t getBits(const KuvImage* image, int x, int y, int c) {
    const ElementPos pos = elementPos(image, x, y, c);
    const auto* p = reinterpret_cast<const uint8_t*>(image->imageData) + pos.byte;
    switch (depthBits(image->depth)) {
        case 1: return (*p >> pos.bit) & 1u;
        case 8: return *p;
        case 16: {
            uint16_t v;
            std::memcpy(&v, p, 2);
            return v;
        }
        default: {
            uint32_t v;
            std::memcpy(&v, p, 4);
            return v;
        }
    }
}

double get(const KuvImage* image, int x, int y, int c) {
    const uint32_t raw = getBits(image, x, y, c);
    switch (image->depth) {
        case KUV_DEPTH_1U:
        case KUV_DEPTH_8U:
        case KUV_DEPTH_16U: return raw;
        case KUV_DEPTH_8S: return static_cast<int8_t>(raw);
        case KUV_DEPTH_16S: return static_cast<int16_t>(raw);
        case KUV_DEPTH_32S: return static_cast<int32_t>(raw);
        case KUV_DEPTH_32F: {
            float f;
            std::memcpy(&f, &raw, 4);
            return f;
        }
        default: ADD_FAILURE() << "get on " << depthName(image->depth); return 0.0;
    }
}

void put(KuvImage* image, int x, int y, int c, double v) {
    const ElementPos pos = elementPos(image, x, y, c);
    auto* p = reinterpret_cast<uint8_t*>(image->imageData) + pos.byte;
    switch (image->depth) {
        case KUV_DEPTH_1U:
            if (v != 0.0) *p = static_cast<uint8_t>(*p | (1u << pos.bit));
            else *p = static_cast<uint8_t>(*p & ~(1u << pos.bit));
            break;
        case KUV_DEPTH_8U: *p = static_cast<uint8_t>(v); break;
        case KUV_DEPTH_8S: *p = static_cast<uint8_t>(static_cast<int8_t>(v)); break;
        case KUV_DEPTH_16U: {
            const auto e = static_cast<uint16_t>(v);
            std::memcpy(p, &e, 2);
            break;
        }
        case KUV_DEPTH_16S: {
            const auto e = static_cast<int16_t>(v);
            std::memcpy(p, &e, 2);
            break;
        }
        case KUV_DEPTH_32S: {
            const auto e = static_cast<int32_t>(v);
            std::memcpy(p, &e, 4);
            break;
        }
        case KUV_DEPTH_32F: {
            const auto e = static_cast<float>(v);
            std::memcpy(p, &e, 4);
            break;
        }
        default: ADD_FAILURE() << "put on " << depthName(image->depth); break;
    }
}

// ------------------------------------------------------------------ random

int64_t Rng::uniform(int64_t lo, int64_t hi) {
    return std::uniform_int_distribution<int64_t>(lo, hi)(engine_);
}

double Rng::real(double lo, double hi) {
    return std::uniform_real_distribution<double>(lo, hi)(engine_);
}

void fillRandom(KuvImage* image, uint64_t seed) {
    Rng rng(seed);
    auto* bytes = reinterpret_cast<uint8_t*>(image->imageData);
    const size_t size = static_cast<size_t>(image->imageSize);
    if (image->depth == KUV_DEPTH_32F) {
        for (size_t i = 0; i + 4 <= size; i += 4) {
            const auto f = static_cast<float>(rng.real(-1.0e4, 1.0e4));
            std::memcpy(bytes + i, &f, 4);
        }
        return;
    }
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(rng.next());
}

void fillRandomRange(KuvImage* image, uint64_t seed, double lo, double hi) {
    Rng rng(seed);
    auto* bytes = reinterpret_cast<uint8_t*>(image->imageData);
    const int bits = depthBits(image->depth);
    if (bits == 1) {
        for (int32_t i = 0; i < image->imageSize; ++i) bytes[i] = static_cast<uint8_t>(rng.next());
        return;
    }
    const size_t elementBytes = static_cast<size_t>(bits / 8);
    const size_t count = static_cast<size_t>(image->imageSize) / elementBytes;
    for (size_t i = 0; i < count; ++i) {
        uint8_t* p = bytes + i * elementBytes;
        switch (image->depth) {
            case KUV_DEPTH_8U: *p = static_cast<uint8_t>(rng.uniform(int64_t(lo), int64_t(hi))); break;
            case KUV_DEPTH_8S: *p = static_cast<uint8_t>(static_cast<int8_t>(rng.uniform(int64_t(lo), int64_t(hi)))); break;
            case KUV_DEPTH_16U: {
                const auto e = static_cast<uint16_t>(rng.uniform(int64_t(lo), int64_t(hi)));
                std::memcpy(p, &e, 2);
                break;
            }
            case KUV_DEPTH_16S: {
                const auto e = static_cast<int16_t>(rng.uniform(int64_t(lo), int64_t(hi)));
                std::memcpy(p, &e, 2);
                break;
            }
            case KUV_DEPTH_32S: {
                const auto e = static_cast<int32_t>(rng.uniform(int64_t(lo), int64_t(hi)));
                std::memcpy(p, &e, 4);
                break;
            }
            default: {
                const auto e = static_cast<float>(rng.real(lo, hi));
                std::memcpy(p, &e, 4);
                break;
            }
        }
    }
}

// ------------------------------------------------------------ canary checks

Snapshot snapshot(const KuvImage* image) {
    Snapshot s;
    s.image = image;
    std::memcpy(&s.header, image, sizeof(KuvImage));
    if (image->roi != nullptr) {
        s.hasRoi = true;
        s.roi = *image->roi;
    }
    if (image->imageData != nullptr && image->imageSize > 0) {
        const auto* p = reinterpret_cast<const uint8_t*>(image->imageData);
        s.bytes.assign(p, p + image->imageSize);
    }
    return s;
}

namespace {

// Per byte of the image, the bits that belong to some element.
std::vector<uint8_t> elementBits(const KuvImage* layout) {
    std::vector<uint8_t> covered(static_cast<size_t>(layout->imageSize), 0);
    const int bits = depthBits(layout->depth);
    const int planes = layout->dataOrder == KUV_DATA_ORDER_PLANE ? layout->nChannels : 1;
    const int perPixel = layout->dataOrder == KUV_DATA_ORDER_PLANE ? 1 : layout->nChannels;
    for (int p = 0; p < planes; ++p) {
        for (int y = 0; y < layout->height; ++y) {
            const int64_t row = int64_t{layout->widthStep} * (int64_t{layout->height} * p + y);
            const int64_t rowBits = int64_t{layout->width} * perPixel * bits;
            for (int64_t b = 0; b < rowBits / 8; ++b) covered[static_cast<size_t>(row + b)] = 0xFF;
            if (rowBits % 8 != 0) {
                covered[static_cast<size_t>(row + rowBits / 8)] =
                    static_cast<uint8_t>(0xFF00u >> (rowBits % 8));
            }
        }
    }
    return covered;
}

}  // namespace

::testing::AssertionResult unchangedExcept(const Snapshot& before, const KuvImage* image,
                                           const ElementPredicate& mayChange, Padding padding) {
    std::ostringstream fail;
    int problems = 0;
    auto note = [&](const std::string& what) {
        if (problems < 12) fail << "\n  " << what;
        ++problems;
    };
    if (std::memcmp(&before.header, image, sizeof(KuvImage)) != 0) note("the header changed");
    if (before.hasRoi != (image->roi != nullptr)) {
        note("the roi pointer changed");
    } else if (before.hasRoi && std::memcmp(&before.roi, image->roi, sizeof(KuvROI)) != 0) {
        note("the roi record changed");
    }
    if (image->imageData == nullptr || before.bytes.size() != size_t(image->imageSize)) {
        note("the pixel buffer is gone or was resized");
        return ::testing::AssertionFailure() << fail.str();
    }
    const KuvImage* layout = &before.header;
    const auto* now = reinterpret_cast<const uint8_t*>(image->imageData);
    const int channels = layout->nChannels;
    for (int y = 0; y < layout->height; ++y) {
        for (int x = 0; x < layout->width; ++x) {
            for (int c = 0; c < channels; ++c) {
                if (mayChange(x, y, c)) continue;
                const ElementPos pos = elementPos(layout, x, y, c);
                const int n = std::max(1, depthBits(layout->depth) / 8);
                bool same = true;
                if (pos.bit >= 0) {
                    same = ((before.bytes[size_t(pos.byte)] ^ now[pos.byte]) >> pos.bit & 1) == 0;
                } else {
                    same = std::memcmp(&before.bytes[size_t(pos.byte)], now + pos.byte, size_t(n)) == 0;
                }
                if (!same) {
                    std::ostringstream what;
                    KuvImage old = before.header;
                    old.imageData = reinterpret_cast<char*>(const_cast<uint8_t*>(before.bytes.data()));
                    what << "element (" << x << "," << y << "," << c << ") changed: " << get(&old, x, y, c)
                         << " -> " << get(image, x, y, c);
                    note(what.str());
                }
            }
        }
    }
    if (padding == Padding::MustStay) {
        const std::vector<uint8_t> covered = elementBits(layout);
        for (size_t i = 0; i < covered.size(); ++i) {
            if (((before.bytes[i] ^ now[i]) & ~covered[i]) != 0) {
                std::ostringstream what;
                what << "padding byte " << i << " changed: " << int(before.bytes[i]) << " -> "
                     << int(now[i]);
                note(what.str());
            }
        }
    }
    if (problems == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << problems << " unexpected change(s):" << fail.str();
}

void expectUnchangedExcept(const Snapshot& before, const KuvImage* image,
                           const ElementPredicate& mayChange, Padding padding) {
    EXPECT_TRUE(unchangedExcept(before, image, mayChange, padding));
}

RefusalGuard::RefusalGuard(const KuvImage* a, const KuvImage* b, const KuvImage* c) {
    taken_[0] = take(a);
    taken_[1] = take(b);
    taken_[2] = take(c);
}

RefusalGuard::Taken RefusalGuard::take(const KuvImage* image) {
    Taken t;
    t.image = image;
    if (image == nullptr) return t;
    auto bytesOf = [](const void* p, size_t n) {
        const auto* b = static_cast<const uint8_t*>(p);
        return std::vector<uint8_t>(b, b + n);
    };
    t.header = bytesOf(image, sizeof(KuvImage));
    if (image->roi != nullptr) t.roi = bytesOf(image->roi, sizeof(KuvROI));
    if (image->tileInfo != nullptr) t.tile = bytesOf(image->tileInfo, sizeof(KuvTileInfo));
    if (image->maskROI != nullptr) t.mask = bytesOf(image->maskROI, sizeof(KuvImage));
    if (image->imageData != nullptr && image->imageSize > 0) {
        t.pixels = bytesOf(image->imageData, static_cast<size_t>(image->imageSize));
    }
    return t;
}

::testing::AssertionResult RefusalGuard::intact() const {
    std::ostringstream fail;
    bool ok = true;
    const char* names[3] = {"first image", "second image", "third image"};
    for (int i = 0; i < 3; ++i) {
        const Taken& before = taken_[i];
        if (before.image == nullptr) continue;
        const Taken now = take(before.image);
        auto check = [&](const std::vector<uint8_t>& a, const std::vector<uint8_t>& b,
                         const char* what) {
            if (a != b) {
                ok = false;
                fail << "\n  " << names[i] << ": " << what << " changed";
            }
        };
        check(before.header, now.header, "header");
        check(before.roi, now.roi, "roi record");
        check(before.tile, now.tile, "tile record");
        check(before.mask, now.mask, "mask header");
        check(before.pixels, now.pixels, "pixels");
    }
    if (ok) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "a refused call changed something:" << fail.str();
}

// ------------------------------------------------------------------ reports

std::ostream& operator<<(std::ostream& out, const Report& r) {
    return out << "{" << r.status << ", \"" << r.func << "\", \"" << r.context << "\", \""
               << r.file << "\", line " << r.line << "}";
}

ReportCapture::ReportCapture()
    : previousHandler_(kuvRedirectError(&recordReport)),
      previousMode_(kuvGetErrMode()),
      previousSink_(tlsSink) {
    kuvSetErrMode(KUV_ErrorModeParent);
    tlsSink = &sink_;
    kuvSetErrStatus(KUV_StsNoError);
}

ReportCapture::~ReportCapture() {
    tlsSink = previousSink_;
    kuvRedirectError(previousHandler_);
    kuvSetErrMode(previousMode_);
    kuvSetErrStatus(KUV_StsNoError);
}

const std::vector<Report>& ReportCapture::reports() const { return sink_; }

void ReportCapture::clear() { sink_.clear(); }

::testing::AssertionResult isReport(const Report& r, KuvStatus status, const char* func,
                                    const char* context, const char* file) {
    if (r.status == status && r.func == func && r.context == context && r.file == file) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure()
           << "report " << r << "\n  expected {" << status << ", \"" << func << "\", \""
           << context << "\", \"" << file << "\"}";
}

::testing::AssertionResult oneReport(const ReportCapture& capture, KuvStatus status,
                                     const char* func, const char* context, const char* file) {
    const auto& reports = capture.reports();
    if (reports.size() != 1) {
        auto fail = ::testing::AssertionFailure();
        fail << reports.size() << " reports instead of one, expecting {" << status << ", \""
             << func << "\", \"" << context << "\", \"" << file << "\"}";
        for (const Report& r : reports) fail << "\n  " << r;
        return fail;
    }
    ::testing::AssertionResult match = isReport(reports[0], status, func, context, file);
    if (!match) return match;
    if (kuvGetErrStatus() != status) {
        return ::testing::AssertionFailure()
               << "the thread's status is " << kuvGetErrStatus() << ", not " << status;
    }
    return ::testing::AssertionSuccess();
}

// -------------------------------------------------------- block accounting

long outstandingBlocks() { return ownOutstandingBlocks(); }

namespace {

// Every test must end with the block count it started with. The listener
// also puts back the thread's handler, mode and status, so that one test's
// leftovers do not change the next one's starting point.
class BlockListener : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override {
        handler_ = kuvRedirectError(kuvGuiBoxReport);
        kuvRedirectError(handler_);
        mode_ = kuvGetErrMode();
        status_ = kuvGetErrStatus();
        blocks_ = ownOutstandingBlocks();
    }
    void OnTestEnd(const ::testing::TestInfo&) override {
        const long now = ownOutstandingBlocks();
        EXPECT_EQ(now, blocks_) << "blocks of the kuvMalloc family or pixel blocks outstanding "
                                   "at the end of the test differ from its start";
        kuvRedirectError(handler_);
        kuvSetErrMode(mode_);
        kuvSetErrStatus(status_);
    }
    KuvErrorCallBack handler_ = nullptr;
    int32_t mode_ = 0;
    KuvStatus status_ = 0;
    long blocks_ = 0;
};

const bool blockListenerInstalled = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new BlockListener);
    return true;
}();

}  // namespace

// ------------------------------------------------------------------- tiles

namespace {

std::map<int32_t, TileStore*>& tileRegistry() {
    static std::map<int32_t, TileStore*> registry;
    return registry;
}
int32_t nextTileId = 7000;
std::vector<TileStore::Call>& allCalls() {
    static std::vector<TileStore::Call> calls;
    return calls;
}
constexpr uint8_t tileCanary = 0xA5;

}  // namespace

TileStore::TileStore(ImagePtr backing, int tileWidth, int tileHeight)
    : backing_(std::move(backing)), tileWidth_(tileWidth), tileHeight_(tileHeight), id_(nextTileId++) {
    tileRegistry()[id_] = this;
    if (!backing_) return;
    KuvTileInfo* info = kuvCreateTileInfo(&TileStore::callBack, id_, tileWidth, tileHeight);
    const KuvImage* b = backing_.get();
    QuietBuild quiet;
    tiled_.reset(kuvCreateImageHeader(b->nChannels, b->alphaChannel, b->depth, b->colorModel,
                                      b->channelSeq, b->dataOrder, b->origin, b->align, b->width,
                                      b->height, nullptr, nullptr, 0, info));
    if (!tiled_) {
        kuvDeleteTileInfo(info);
        ADD_FAILURE() << "no tiled header";
    }
}

TileStore::~TileStore() { tileRegistry().erase(id_); }

const std::vector<TileStore::Call>& TileStore::calls() { return allCalls(); }

void TileStore::clearCalls() { allCalls().clear(); }

void TileStore::failRequest(int k) {
    failAt_ = k;
    requests_ = 0;
}

int64_t TileStore::tileBytes() const {
    const KuvImage* b = backing_.get();
    const int64_t step = rowBytesOf(b->dataOrder, b->depth, b->align, b->nChannels, tileWidth_);
    return step * tileHeight_ * (b->dataOrder == KUV_DATA_ORDER_PLANE ? b->nChannels : 1);
}

void TileStore::callBack(const KuvImage* image, int32_t col, int32_t row, int32_t mode) {
    auto& registry = tileRegistry();
    auto it = image != nullptr && image->tileInfo != nullptr ? registry.find(image->tileInfo->id)
                                                             : registry.end();
    if (it == registry.end()) {
        ADD_FAILURE() << "tile procedure called for an unknown image";
        return;
    }
    TileStore& store = *it->second;
    if (image != store.tiled_.get()) {
        store.faults_.push_back("the procedure received a record other than the application's");
    }
    store.log_.push_back(Request{col, row, mode});
    allCalls().push_back(Call{store.id_, Request{col, row, mode}});
    if (mode == KUV_TILE_RELEASE) {
        store.giveBack();
    } else {
        store.serve(col, row, mode);
    }
}

void TileStore::serve(int col, int row, int mode) {
    KuvTileInfo* info = tiled_->tileInfo;
    const KuvImage* b = backing_.get();
    if (mode != KUV_TILE_READ && mode != KUV_TILE_WRITE) {
        faults_.push_back("unknown tile mode " + std::to_string(mode));
    }
    if (col < 0 || row < 0 || int64_t{col} * tileWidth_ >= b->width ||
        int64_t{row} * tileHeight_ >= b->height) {
        faults_.push_back("request for tile (" + std::to_string(col) + "," + std::to_string(row) +
                          ") outside the image");
        info->tileData = nullptr;
        return;
    }
    ++requests_;
    if (requests_ == failAt_) {
        info->tileData = nullptr;
        return;
    }
    auto held = std::make_unique<Held>();
    held->buffer.assign(static_cast<size_t>(tileBytes()), tileCanary);
    held->col = col;
    held->row = row;
    held->mode = mode;
    copyTile(held->buffer, col, row, true);
    if (mode == KUV_TILE_READ) held->original = held->buffer;
    info->tileData = reinterpret_cast<char*>(held->buffer.data());
    held_.push_back(std::move(held));
}

void TileStore::giveBack() {
    KuvTileInfo* info = tiled_->tileInfo;
    const char* data = info->tileData;
    for (auto it = held_.begin(); it != held_.end(); ++it) {
        Held& h = **it;
        if (reinterpret_cast<const char*>(h.buffer.data()) != data) continue;
        const Request last = log_.back();
        if (last.col != h.col || last.row != h.row) {
            faults_.push_back("release of tile (" + std::to_string(last.col) + "," +
                              std::to_string(last.row) + ") with the data of tile (" +
                              std::to_string(h.col) + "," + std::to_string(h.row) + ")");
        }
        if (h.mode == KUV_TILE_READ) {
            if (h.buffer != h.original) {
                faults_.push_back("a tile requested for reading was written");
            }
        } else {
            checkBeyondImage(h);
            copyTile(h.buffer, h.col, h.row, false);
        }
        held_.erase(it);
        info->tileData = nullptr;
        return;
    }
    faults_.push_back("release of a tile the store did not hand out");
    info->tileData = nullptr;
}

void TileStore::checkBeyondImage(const Held& h) {
    const KuvImage* b = backing_.get();
    KuvImage tile = *b;
    tile.width = tileWidth_;
    tile.height = tileHeight_;
    tile.widthStep = static_cast<int32_t>(
        rowBytesOf(b->dataOrder, b->depth, b->align, b->nChannels, tileWidth_));
    const int bytes = std::max(1, depthBits(b->depth) / 8);
    for (int r = 0; r < tileHeight_; ++r) {
        for (int x = 0; x < tileWidth_; ++x) {
            const bool inside = int64_t{h.col} * tileWidth_ + x < b->width &&
                                int64_t{h.row} * tileHeight_ + r < b->height;
            if (inside) continue;
            for (int c = 0; c < b->nChannels; ++c) {
                const ElementPos pos = elementPos(&tile, x, r, c);
                bool intact = true;
                if (pos.bit >= 0) {
                    intact = ((h.buffer[size_t(pos.byte)] ^ tileCanary) >> pos.bit & 1) == 0;
                } else {
                    for (int k = 0; k < bytes; ++k) intact &= h.buffer[size_t(pos.byte + k)] == tileCanary;
                }
                if (!intact) {
                    faults_.push_back("tile (" + std::to_string(h.col) + "," + std::to_string(h.row) +
                                      ") written beyond the image at (" + std::to_string(x) + "," +
                                      std::to_string(r) + ")");
                    return;
                }
            }
        }
    }
}

void TileStore::copyTile(std::vector<uint8_t>& buffer, int col, int row, bool toTile) {
    KuvImage* b = backing_.get();
    KuvImage tile = *b;
    tile.width = tileWidth_;
    tile.height = tileHeight_;
    tile.widthStep = static_cast<int32_t>(
        rowBytesOf(b->dataOrder, b->depth, b->align, b->nChannels, tileWidth_));
    tile.imageData = reinterpret_cast<char*>(buffer.data());
    const int x0 = col * tileWidth_, y0 = row * tileHeight_;
    const int x1 = std::min(b->width, x0 + tileWidth_), y1 = std::min(b->height, y0 + tileHeight_);
    const int bytes = depthBits(b->depth) / 8;
    for (int y = y0; y < y1; ++y) {
        for (int x = x0; x < x1; ++x) {
            for (int c = 0; c < b->nChannels; ++c) {
                if (bytes == 0) {
                    if (toTile) put(&tile, x - x0, y - y0, c, get(b, x, y, c));
                    else put(b, x, y, c, get(&tile, x - x0, y - y0, c));
                    continue;
                }
                const ElementPos inImage = elementPos(b, x, y, c);
                const ElementPos inTile = elementPos(&tile, x - x0, y - y0, c);
                char* pi = b->imageData + inImage.byte;
                char* pt = tile.imageData + inTile.byte;
                if (toTile) std::memcpy(pt, pi, size_t(bytes));
                else std::memcpy(pi, pt, size_t(bytes));
            }
        }
    }
}

}  // namespace kuvtest
