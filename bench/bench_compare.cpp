// The comparison family against cv::compare on the very same pixel memory.
//
//   BM_kuvLess_<type>_<shape>      kuvLess(A, B, R): R is a bit image
//   BM_cvCompareLT_<type>_<shape>  cv::compare(A, B, M, CMP_LT): M one byte per pixel
//   BM_kuvLessS_8UC1_<shape>       kuvLessS(A, 128, R)
//   BM_cvCompareLTS_8UC1_<shape>   cv::compare(A, 128, M, CMP_LT)
// Shapes: whole (1920x1080), roi (offset (3,8), 1900x1060: the result
// rectangle starts inside a byte), 8x8 (the fixed cost of a call).
// OpenCV runs single-threaded. The bar is kuvLess 8UC1 whole at no more than
// 1.5 times cv::compare.
//
// Before timing, one untimed call of each pair is checked bit against byte:
// bit x of R is set exactly where M is 255.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "kuv.h"
#include "kuv_own.h"


namespace {

enum class Shape { Whole, Roi, Tiny };

struct CaseKey {
    uint32_t depth;
    int nCh;
    Shape shape;
    bool operator<(const CaseKey& o) const {
        if (depth != o.depth) return depth < o.depth;
        if (nCh != o.nCh) return nCh < o.nCh;
        return static_cast<int>(shape) < static_cast<int>(o.shape);
    }
};

constexpr int kWidth = 1920, kHeight = 1080;
constexpr int kRoiX = 3, kRoiY = 8, kRoiW = 1900, kRoiH = 1060;
constexpr int kTiny = 8;
constexpr int32_t kScalar = 128;

int cvDepthOf(uint32_t depth) {
    switch (depth) {
        case KUV_DEPTH_8U: return CV_8U;
        case KUV_DEPTH_16S: return CV_16S;
        case KUV_DEPTH_32F: return CV_32F;
        default: return -1;
    }
}

// Fixed-seed fill. Integers take a narrow range so that equal pairs occur
// as well as both orders.
void fillRandom(KuvImage* image, uint32_t seed) {
    uint32_t s = seed;
    auto next = [&s] {
        s = s * 1664525u + 1013904223u;
        return s >> 8;
    };
    const size_t bytes = static_cast<size_t>(image->imageSize);
    if (image->depth == KUV_DEPTH_32F) {
        auto* p = reinterpret_cast<float*>(image->imageData);
        for (size_t i = 0; i < bytes / sizeof(float); ++i) {
            p[i] = static_cast<float>(next() % 512u) * 0.5f;
        }
    } else {
        auto* p = reinterpret_cast<uint8_t*>(image->imageData);
        for (size_t i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>(next());
    }
}

KuvImage* makeImage(uint32_t depth, int nCh, int w, int h, bool roi) {
    KuvROI* r = roi ? kuvCreateROI(0, kRoiX, kRoiY, kRoiW, kRoiH) : nullptr;
    KuvImage* image = kuvCreateImageHeader(nCh, 0, depth, nCh == 3 ? "RGB" : "GRAY",
                                           nCh == 3 ? "BGR" : "GRAY", KUV_DATA_ORDER_PIXEL,
                                           KUV_ORIGIN_TOP_LEFT, 32, w, h, r, nullptr, 0, nullptr);
    if (image == nullptr) return nullptr;
    if (depth == KUV_DEPTH_32F) kuvAllocateImageFP(image, 1, 0.0f);
    else kuvAllocateImage(image, 1, 0);
    return image;
}

// Two sources, the bit result and OpenCV's byte result of one case.
struct CaseImages {
    KuvImage* img[3] = {};   // A, B, R
    cv::Mat a, b, m;
    int32_t width = 0, height = 0;
    bool ok = false;

    explicit CaseImages(const CaseKey& key) {
        const bool tiny = key.shape == Shape::Tiny;
        const bool roi = key.shape == Shape::Roi;
        const int w = tiny ? kTiny : kWidth, h = tiny ? kTiny : kHeight;
        for (int i = 0; i < 2; ++i) {
            img[i] = makeImage(key.depth, key.nCh, w, h, roi);
            if (img[i] == nullptr || img[i]->imageData == nullptr) return;
            fillRandom(img[i], 12345u + 977u * static_cast<uint32_t>(i));
        }
        img[2] = makeImage(KUV_DEPTH_1U, 1, w, h, roi);
        if (img[2] == nullptr || img[2]->imageData == nullptr) return;
        const int type = CV_MAKETYPE(cvDepthOf(key.depth), key.nCh);
        const cv::Mat wholeA(h, w, type, img[0]->imageData, static_cast<size_t>(img[0]->widthStep));
        const cv::Mat wholeB(h, w, type, img[1]->imageData, static_cast<size_t>(img[1]->widthStep));
        const cv::Rect rect(kRoiX, kRoiY, kRoiW, kRoiH);
        a = roi ? wholeA(rect) : wholeA;
        b = roi ? wholeB(rect) : wholeB;
        width = roi ? kRoiW : w;
        height = roi ? kRoiH : h;
        m.create(height, width, CV_MAKETYPE(CV_8U, key.nCh == 3 ? 3 : 1));
        ok = true;
    }
    ~CaseImages() {
        for (KuvImage* image : img) {
            if (image != nullptr) kuvDeallocate(image, KUV_IMAGE_ALL);
        }
    }
    CaseImages(const CaseImages&) = delete;
    CaseImages& operator=(const CaseImages&) = delete;

    size_t sourceBytes() const { return a.total() * a.elemSize(); }
};

CaseImages& imagesFor(const CaseKey& key) {
    static std::map<CaseKey, std::unique_ptr<CaseImages>> cache;
    auto& slot = cache[key];
    if (!slot) slot = std::make_unique<CaseImages>(key);
    return *slot;
}

// The result's bit for each pixel of the rectangle against OpenCV's bytes
// (all channels 255 for kuv's "every channel holds").
bool sameBits(const CaseImages& c, const cv::Mat& bytes) {
    const KuvImage* r = c.img[2];
    const int x0 = r->roi != nullptr ? r->roi->xOffset : 0;
    const int y0 = r->roi != nullptr ? r->roi->yOffset : 0;
    for (int y = 0; y < c.height; ++y) {
        const auto* row = reinterpret_cast<const uint8_t*>(r->imageData) +
                          static_cast<size_t>(y0 + y) * r->widthStep;
        const uint8_t* m = bytes.ptr<uint8_t>(y);
        for (int x = 0; x < c.width; ++x) {
            bool all = true;
            for (int k = 0; k < bytes.channels(); ++k) all &= m[x * bytes.channels() + k] == 255;
            const int i = x0 + x;
            const bool bit = (row[i >> 3] >> (7 - (i & 7))) & 1;
            if (bit != all) return false;
        }
    }
    return true;
}

void BM_kuvLess(benchmark::State& state, CaseKey key) {
    CaseImages& c = imagesFor(key);
    if (!c.ok) return state.SkipWithError("images could not be made");
    kuvSetErrStatus(KUV_StsNoError);
    if (kuvLess(c.img[0], c.img[1], c.img[2]) != 0) return state.SkipWithError("kuvLess refused");
    cv::compare(c.a, c.b, c.m, cv::CMP_LT);
    if (!sameBits(c, c.m)) return state.SkipWithError("kuvLess differs from cv::compare");
    const long blocksBefore = ownOutstandingBlocks();
    for (auto _ : state) {
        benchmark::DoNotOptimize(kuvLess(c.img[0], c.img[1], c.img[2]));
        benchmark::ClobberMemory();
    }
    state.counters["allocs"] = static_cast<double>(ownOutstandingBlocks() - blocksBefore);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 *
                            static_cast<int64_t>(c.sourceBytes()));
}

void BM_cvCompareLT(benchmark::State& state, CaseKey key) {
    CaseImages& c = imagesFor(key);
    if (!c.ok) return state.SkipWithError("images could not be made");
    cv::compare(c.a, c.b, c.m, cv::CMP_LT);
    const uchar* before = c.m.data;
    for (auto _ : state) {
        cv::compare(c.a, c.b, c.m, cv::CMP_LT);
        benchmark::ClobberMemory();
    }
    if (c.m.data != before) return state.SkipWithError("cv::compare reallocated its result");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 *
                            static_cast<int64_t>(c.sourceBytes()));
}

void BM_kuvLessS(benchmark::State& state, CaseKey key) {
    CaseImages& c = imagesFor(key);
    if (!c.ok) return state.SkipWithError("images could not be made");
    kuvSetErrStatus(KUV_StsNoError);
    if (kuvLessS(c.img[0], kScalar, c.img[2]) != 0) return state.SkipWithError("kuvLessS refused");
    cv::compare(c.a, cv::Scalar(kScalar), c.m, cv::CMP_LT);
    if (!sameBits(c, c.m)) return state.SkipWithError("kuvLessS differs from cv::compare");
    for (auto _ : state) {
        benchmark::DoNotOptimize(kuvLessS(c.img[0], kScalar, c.img[2]));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(c.sourceBytes()));
}

void BM_cvCompareLTS(benchmark::State& state, CaseKey key) {
    CaseImages& c = imagesFor(key);
    if (!c.ok) return state.SkipWithError("images could not be made");
    cv::compare(c.a, cv::Scalar(kScalar), c.m, cv::CMP_LT);
    for (auto _ : state) {
        cv::compare(c.a, cv::Scalar(kScalar), c.m, cv::CMP_LT);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(c.sourceBytes()));
}

const char* typeName(uint32_t depth, int nCh) {
    if (depth == KUV_DEPTH_8U) return nCh == 3 ? "8UC3" : "8UC1";
    if (depth == KUV_DEPTH_16S) return "16SC1";
    return "32FC1";
}

const char* shapeName(Shape shape) {
    switch (shape) {
        case Shape::Whole: return "whole";
        case Shape::Roi: return "roi";
        case Shape::Tiny: return "8x8";
    }
    return "?";
}

// Registered in pairs, kuv then OpenCV, so that a run's output reads as such.
const bool registered = [] {
    const struct {
        uint32_t depth;
        int nCh;
    } types[] = {{KUV_DEPTH_8U, 1}, {KUV_DEPTH_8U, 3}, {KUV_DEPTH_16S, 1}, {KUV_DEPTH_32F, 1}};
    for (Shape shape : {Shape::Whole, Shape::Roi, Shape::Tiny}) {
        for (const auto& t : types) {
            const CaseKey key{t.depth, t.nCh, shape};
            const std::string suffix =
                std::string("_") + typeName(t.depth, t.nCh) + "_" + shapeName(shape);
            benchmark::RegisterBenchmark(("BM_kuvLess" + suffix).c_str(), BM_kuvLess, key);
            benchmark::RegisterBenchmark(("BM_cvCompareLT" + suffix).c_str(), BM_cvCompareLT, key);
        }
        const CaseKey key{KUV_DEPTH_8U, 1, shape};
        const std::string suffix = std::string("_8UC1_") + shapeName(shape);
        benchmark::RegisterBenchmark(("BM_kuvLessS" + suffix).c_str(), BM_kuvLessS, key);
        benchmark::RegisterBenchmark(("BM_cvCompareLTS" + suffix).c_str(), BM_cvCompareLTS, key);
    }
    return true;
}();

}  // namespace
