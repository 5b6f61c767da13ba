// kuvAdd against cv::add and memcpy on the very same pixel memory.
//
// Each case (depth x channels x shape) owns one set of three images, made on
// first use and kept for the whole run, so that kuv, OpenCV and memcpy read
// and write identical buffers:
//   BM_kuvAdd_<type>_<shape>   kuvAdd(A, B, D)
//   BM_cvAdd_<type>_<shape>    cv::add over Mat headers on A, B, D's pixels
//   BM_memcpy_<type>_<shape>   A's bytes into D: the bandwidth yardstick
// Shapes: whole (1920x1080, the flat path), roi (offset (8,8), 1900x1060 on
// all three images: the row walk), 8x8 (whole, the fixed cost of a call).
// bench/ratios.py turns the medians into kuv/cv and kuv/bound ratios.
//
// kuvAdd's counter allocs is the change of ownOutstandingBlocks across the
// timed loop: it must stay 0 for calls without masks.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

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
constexpr int kRoiX = 8, kRoiY = 8, kRoiW = 1900, kRoiH = 1060;
constexpr int kTiny = 8;

int cvDepthOf(uint32_t depth) {
    switch (depth) {
        case KUV_DEPTH_8U: return CV_8U;
        case KUV_DEPTH_16S: return CV_16S;
        case KUV_DEPTH_32F: return CV_32F;
        default: return -1;
    }
}

int elemBytes(uint32_t depth) { return static_cast<int>((depth & ~KUV_DEPTH_SIGN) / 8); }

// Fixed-seed fill with the full range of the depth, so that the integer
// sums saturate about as often as they do not.
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
            p[i] = static_cast<float>(static_cast<int32_t>(next() % 2000001u) - 1000000) * 1e-3f;
        }
    } else {
        auto* p = reinterpret_cast<uint8_t*>(image->imageData);
        for (size_t i = 0; i < bytes; ++i) p[i] = static_cast<uint8_t>(next());
    }
}

// Three images of one case, with the Mat headers that wrap their pixels.
struct CaseImages {
    KuvImage* img[3] = {};   // A, B, D
    cv::Mat mat[3];          // whole image, or the region's rectangle
    int32_t width = 0, height = 0;   // the rectangle that is added
    size_t rowBytes = 0;             // bytes of one rectangle row
    bool ok = false;

    explicit CaseImages(const CaseKey& key) {
        const bool tiny = key.shape == Shape::Tiny;
        const int w = tiny ? kTiny : kWidth, h = tiny ? kTiny : kHeight;
        const char* model = key.nCh == 3 ? "RGB" : "GRAY";
        const char* seq = key.nCh == 3 ? "BGR" : "GRAY";
        for (int i = 0; i < 3; ++i) {
            KuvROI* roi = key.shape == Shape::Roi ? kuvCreateROI(0, kRoiX, kRoiY, kRoiW, kRoiH)
                                                  : nullptr;
            img[i] = kuvCreateImageHeader(key.nCh, 0, key.depth, model, seq,
                                          KUV_DATA_ORDER_PIXEL, KUV_ORIGIN_TOP_LEFT, 32, w, h,
                                          roi, nullptr, 0, nullptr);
            if (img[i] == nullptr) return;
            if (key.depth == KUV_DEPTH_32F) kuvAllocateImageFP(img[i], 1, 0.0f);
            else kuvAllocateImage(img[i], 1, 0);
            if (img[i]->imageData == nullptr) return;
            fillRandom(img[i], 12345u + 977u * static_cast<uint32_t>(i));
            const cv::Mat whole(h, w, CV_MAKETYPE(cvDepthOf(key.depth), key.nCh),
                                img[i]->imageData, static_cast<size_t>(img[i]->widthStep));
            mat[i] = key.shape == Shape::Roi ? whole(cv::Rect(kRoiX, kRoiY, kRoiW, kRoiH))
                                             : whole;
        }
        width = key.shape == Shape::Roi ? kRoiW : w;
        height = key.shape == Shape::Roi ? kRoiH : h;
        rowBytes = static_cast<size_t>(width) * key.nCh * elemBytes(key.depth);
        ok = true;
    }
    ~CaseImages() {
        for (KuvImage* image : img) {
            if (image != nullptr) kuvDeallocate(image, KUV_IMAGE_ALL);
        }
    }
    CaseImages(const CaseImages&) = delete;
    CaseImages& operator=(const CaseImages&) = delete;

    // Bytes of one image that an add reads or writes: the rectangle's rows
    // (the flat path of a whole image also moves the row padding).
    size_t imageBytes(Shape shape) const {
        return shape == Shape::Roi ? rowBytes * static_cast<size_t>(height)
                                   : static_cast<size_t>(img[0]->imageSize);
    }
};

CaseImages& imagesFor(const CaseKey& key) {
    static std::map<CaseKey, std::unique_ptr<CaseImages>> cache;
    auto& slot = cache[key];
    if (!slot) slot = std::make_unique<CaseImages>(key);
    return *slot;
}

// One untimed kuvAdd checked against cv::add, so that the two peers are known
// to compute the same thing before either is timed.
bool sameAsOpenCv(CaseImages& c) {
    kuvSetErrStatus(KUV_StsNoError);
    kuvAdd(c.img[0], c.img[1], c.img[2]);
    if (kuvGetErrStatus() != KUV_StsNoError) return false;
    const cv::Mat fromKuv = c.mat[2].clone();
    cv::add(c.mat[0], c.mat[1], c.mat[2]);
    return cv::norm(fromKuv, c.mat[2], cv::NORM_INF) == 0.0;
}

void BM_kuvAdd(benchmark::State& state, CaseKey key) {
    CaseImages& c = imagesFor(key);
    if (!c.ok) return state.SkipWithError("images could not be made");
    if (!sameAsOpenCv(c)) return state.SkipWithError("kuvAdd differs from cv::add or failed");
    kuvSetErrStatus(KUV_StsNoError);
    const long blocksBefore = ownOutstandingBlocks();
    for (auto _ : state) {
        kuvAdd(c.img[0], c.img[1], c.img[2]);
        benchmark::ClobberMemory();
    }
    const long blocksAfter = ownOutstandingBlocks();
    if (kuvGetErrStatus() != KUV_StsNoError) return state.SkipWithError("kuvAdd reported");
    state.counters["allocs"] = static_cast<double>(blocksAfter - blocksBefore);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 3 *
                            static_cast<int64_t>(c.imageBytes(key.shape)));
}

void BM_cvAdd(benchmark::State& state, CaseKey key) {
    CaseImages& c = imagesFor(key);
    if (!c.ok) return state.SkipWithError("images could not be made");
    const uchar* before = c.mat[2].data;
    for (auto _ : state) {
        cv::add(c.mat[0], c.mat[1], c.mat[2]);
        benchmark::ClobberMemory();
    }
    // A reallocated destination would mean that OpenCV timed other memory.
    if (c.mat[2].data != before) return state.SkipWithError("cv::add reallocated dst");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 3 *
                            static_cast<int64_t>(c.imageBytes(key.shape)));
}

void BM_memcpy(benchmark::State& state, CaseKey key) {
    CaseImages& c = imagesFor(key);
    if (!c.ok) return state.SkipWithError("images could not be made");
    const KuvImage* a = c.img[0];
    KuvImage* d = c.img[2];
    for (auto _ : state) {
        if (key.shape == Shape::Roi) {
            // The region's rows, as the row walk of an add visits them.
            const size_t offset = static_cast<size_t>(kRoiY) * a->widthStep +
                                  static_cast<size_t>(kRoiX) * a->nChannels * elemBytes(a->depth);
            const char* s = a->imageData + offset;
            char* t = d->imageData + offset;
            for (int32_t y = 0; y < c.height; ++y, s += a->widthStep, t += d->widthStep) {
                std::memcpy(t, s, c.rowBytes);
            }
        } else {
            std::memcpy(d->imageData, a->imageData, static_cast<size_t>(a->imageSize));
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 *
                            static_cast<int64_t>(c.imageBytes(key.shape)));
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

// Registered per case in the order kuv, cv, memcpy, so that a run's output
// reads as groups of three.
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
            benchmark::RegisterBenchmark(("BM_kuvAdd" + suffix).c_str(), BM_kuvAdd, key);
            benchmark::RegisterBenchmark(("BM_cvAdd" + suffix).c_str(), BM_cvAdd, key);
            benchmark::RegisterBenchmark(("BM_memcpy" + suffix).c_str(), BM_memcpy, key);
        }
    }
    return true;
}();

}  // namespace
