// The arithmetic beside addition against OpenCV (and memcpy) on the very same
// pixel memory, single-threaded, 1920x1080 with three channels:
//   BM_kuvSubtract_8UC3      / BM_cvSubtract_8UC3      cv::subtract
//   BM_kuvMultiply_8UC3      / BM_cvMultiply_8UC3      cv::multiply, scale 1
//   BM_kuvAbs_16SC3          / BM_cvAbs_16SC3          cv::abs of a 16S Mat
//   BM_kuvMultiplyS_8UC3     / BM_cvMultiplyS_8UC3     cv::multiply by a scalar
//   BM_kuvAddS_8UC3          / BM_cvAddS_8UC3          cv::add with a scalar
//                            / BM_memcpyAddS_8UC3      memcpy of the same bytes: the bound
//   BM_kuvAddSFP_32FC3       / BM_cvAddSFP_32FC3       cv::add with a scalar
//   BM_kuvMultiplySFP_32FC3  / BM_cvMultiplySFP_32FC3  cv::multiply by a scalar
// Images of one depth are made on first use and kept for the run: A and B
// are the sources, D the destination of kuv and of its peer alike. Each kuv
// case is first checked against its peer, untimed. The counter allocs of a
// kuv case is the change of ownOutstandingBlocks across the timed loop.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "kuv.h"
#include "kuv_own.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080, kChannels = 3;

// Fixed-seed fill over the whole range of the integer depths; floats in
// [-1000, 1000).
void fill(KuvImage* image, uint32_t seed) {
    uint32_t s = seed;
    auto next = [&s] { return s = s * 1664525u + 1013904223u; };
    if (image->depth == KUV_DEPTH_32F) {
        auto* p = reinterpret_cast<float*>(image->imageData);
        for (size_t i = 0; i < size_t(image->imageSize) / 4; ++i) {
            p[i] = float(next() >> 12) / 524.288f - 1000.0f;
        }
    } else {
        auto* p = reinterpret_cast<uint8_t*>(image->imageData);
        for (int32_t i = 0; i < image->imageSize; ++i) p[i] = uint8_t(next() >> 24);
    }
}

struct Images {
    KuvImage* img[3] = {};   // A, B, D
    cv::Mat mat[3];          // the same pixels
    bool ok = false;

    explicit Images(uint32_t depth) {
        const int cvDepth = depth == KUV_DEPTH_8U ? CV_8U : depth == KUV_DEPTH_16S ? CV_16S : CV_32F;
        for (int i = 0; i < 3; ++i) {
            img[i] = kuvCreateImageHeader(kChannels, 0, depth, "RGB\0", "BGR\0", KUV_DATA_ORDER_PIXEL,
                                          KUV_ORIGIN_TOP_LEFT, 32, kWidth, kHeight, nullptr, nullptr, 0,
                                          nullptr);
            if (img[i] == nullptr) return;
            if (depth == KUV_DEPTH_32F) kuvAllocateImageFP(img[i], 1, 0.0f);
            else kuvAllocateImage(img[i], 1, 0);
            if (img[i]->imageData == nullptr) return;
            fill(img[i], 12345u + 977u * uint32_t(i));
            mat[i] = cv::Mat(kHeight, kWidth, CV_MAKETYPE(cvDepth, kChannels), img[i]->imageData,
                             size_t(img[i]->widthStep));
        }
        ok = true;
    }
    ~Images() {
        for (KuvImage* image : img)
            if (image != nullptr) kuvDeallocate(image, KUV_IMAGE_ALL);
    }
    Images(const Images&) = delete;
    Images& operator=(const Images&) = delete;
};

Images& imagesFor(uint32_t depth) {
    static std::map<uint32_t, std::unique_ptr<Images>> cache;
    auto& slot = cache[depth];
    if (!slot) slot = std::make_unique<Images>(depth);
    return *slot;
}

using Run = std::function<void(Images&)>;

// One pair: the kuv call and its peer on the same images; `images` of A, B, D
// take part (the bytes counted per iteration).
struct Pair {
    const char* name;
    uint32_t depth;
    int images;
    Run kuv, cv;
};

constexpr int kScale = 3, kOffset = 37;
constexpr float kScaleF = 1.25f, kOffsetF = 0.375f;

const Pair kPairs[] = {
    {"Subtract_8UC3", KUV_DEPTH_8U, 3, [](Images& c) { kuvSubtract(c.img[0], c.img[1], c.img[2]); },
     [](Images& c) { cv::subtract(c.mat[0], c.mat[1], c.mat[2]); }},
    {"Multiply_8UC3", KUV_DEPTH_8U, 3, [](Images& c) { kuvMultiply(c.img[0], c.img[1], c.img[2]); },
     [](Images& c) { cv::multiply(c.mat[0], c.mat[1], c.mat[2], 1.0); }},
    {"Abs_16SC3", KUV_DEPTH_16S, 2, [](Images& c) { kuvAbs(c.img[0], c.img[2]); },
     [](Images& c) { c.mat[2] = cv::abs(c.mat[0]); }},
    {"MultiplyS_8UC3", KUV_DEPTH_8U, 2, [](Images& c) { kuvMultiplyS(c.img[0], c.img[2], kScale); },
     [](Images& c) { cv::multiply(c.mat[0], cv::Scalar::all(kScale), c.mat[2]); }},
    {"AddS_8UC3", KUV_DEPTH_8U, 2, [](Images& c) { kuvAddS(c.img[0], c.img[2], kOffset); },
     [](Images& c) { cv::add(c.mat[0], cv::Scalar::all(kOffset), c.mat[2]); }},
    {"AddSFP_32FC3", KUV_DEPTH_32F, 2, [](Images& c) { kuvAddSFP(c.img[0], c.img[2], kOffsetF); },
     [](Images& c) { cv::add(c.mat[0], cv::Scalar::all(kOffsetF), c.mat[2]); }},
    {"MultiplySFP_32FC3", KUV_DEPTH_32F, 2, [](Images& c) { kuvMultiplySFP(c.img[0], c.img[2], kScaleF); },
     [](Images& c) { cv::multiply(c.mat[0], cv::Scalar::all(kScaleF), c.mat[2]); }},
};

int64_t bytesOf(const Pair& p, Images& c, benchmark::State& state) {
    return int64_t(state.iterations()) * p.images * int64_t(c.img[0]->imageSize);
}

// One untimed kuv call checked against its peer: both must give identical
// pixels, and the peer must write the destination in place.
bool sameAsPeer(const Pair& p, Images& c) {
    kuvSetErrStatus(KUV_StsNoError);
    p.kuv(c);
    if (kuvGetErrStatus() != KUV_StsNoError) return false;
    const cv::Mat fromKuv = c.mat[2].clone();
    const uchar* before = c.mat[2].data;
    p.cv(c);
    if (c.mat[2].data != before) return false;
    return cv::norm(fromKuv, c.mat[2], cv::NORM_INF) == 0.0;
}

void BM_kuv(benchmark::State& state, const Pair* p) {
    Images& c = imagesFor(p->depth);
    if (!c.ok) return state.SkipWithError("images could not be made");
    if (!sameAsPeer(*p, c)) return state.SkipWithError("kuv differs from its peer or failed");
    kuvSetErrStatus(KUV_StsNoError);
    const long blocksBefore = ownOutstandingBlocks();
    for (auto _ : state) {
        p->kuv(c);
        benchmark::ClobberMemory();
    }
    const long blocksAfter = ownOutstandingBlocks();
    if (kuvGetErrStatus() != KUV_StsNoError) return state.SkipWithError("kuv reported");
    state.counters["allocs"] = double(blocksAfter - blocksBefore);
    state.SetBytesProcessed(bytesOf(*p, c, state));
}

void BM_cv(benchmark::State& state, const Pair* p) {
    Images& c = imagesFor(p->depth);
    if (!c.ok) return state.SkipWithError("images could not be made");
    const uchar* before = c.mat[2].data;
    for (auto _ : state) {
        p->cv(c);
        benchmark::ClobberMemory();
    }
    if (c.mat[2].data != before) return state.SkipWithError("the peer reallocated D");
    state.SetBytesProcessed(bytesOf(*p, c, state));
}

// A's bytes into D: what a one-source operation cannot beat.
void BM_memcpy(benchmark::State& state, const Pair* p) {
    Images& c = imagesFor(p->depth);
    if (!c.ok) return state.SkipWithError("images could not be made");
    for (auto _ : state) {
        std::memcpy(c.img[2]->imageData, c.img[0]->imageData, size_t(c.img[0]->imageSize));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(bytesOf(*p, c, state));
}

const bool registered = [] {
    for (const Pair& p : kPairs) {
        benchmark::RegisterBenchmark((std::string("BM_kuv") + p.name).c_str(), BM_kuv, &p);
        benchmark::RegisterBenchmark((std::string("BM_cv") + p.name).c_str(), BM_cv, &p);
        if (std::strcmp(p.name, "AddS_8UC3") == 0) {
            benchmark::RegisterBenchmark((std::string("BM_memcpy") + p.name).c_str(), BM_memcpy, &p);
        }
    }
    return true;
}();

}  // namespace
