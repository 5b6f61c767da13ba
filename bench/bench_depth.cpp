// The depth family against cv::Mat::convertTo and cv::minMaxIdx/minMaxLoc,
// single-threaded, on the very same pixel memory (1920x1080, pixel order):
//   BM_kuvConvert_8U_16S   / BM_cvConvert_8U_16S     3 channels, no scale
//   BM_kuvConvert_16U_8U   / BM_cvConvert_16U_8U     3 channels, saturating
//   BM_kuvScale_8U_16U     / BM_cvScale_8U_16U       3 channels, alpha 257, beta 0
//   BM_kuvScaleFP_8U_32F   / BM_cvScaleFP_8U_32F     3 channels, range -1..1
//   BM_kuvMinMaxFP_32F     / BM_cvMinMaxIdx_32F, BM_cvMinMaxLoc_32F   1 channel
// Each kuv case is first checked against its peer's result, untimed.
//
//   build/bench/kuv_bench --benchmark_filter='Convert_|Scale|MinMax' --benchmark_repetitions=11
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <cmath>
#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kuv.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;
constexpr float kMin = -1.0f, kMax = 1.0f;

enum class Case { Convert8U16S, Convert16U8U, Scale8U16U, ScaleFP8U32F, MinMax32F };

struct Setup {
    uint32_t srcDepth, dstDepth;
    int nCh, cvSrc, cvDst;
};

Setup setupOf(Case c) {
    switch (c) {
        case Case::Convert8U16S: return {KUV_DEPTH_8U, KUV_DEPTH_16S, 3, CV_8UC3, CV_16S};
        case Case::Convert16U8U: return {KUV_DEPTH_16U, KUV_DEPTH_8U, 3, CV_16UC3, CV_8U};
        case Case::Scale8U16U: return {KUV_DEPTH_8U, KUV_DEPTH_16U, 3, CV_8UC3, CV_16U};
        case Case::ScaleFP8U32F: return {KUV_DEPTH_8U, KUV_DEPTH_32F, 3, CV_8UC3, CV_32F};
        case Case::MinMax32F: return {KUV_DEPTH_32F, 0, 1, CV_32FC1, -1};
    }
    return {};
}

KuvImage* makeImage(uint32_t depth, int nCh) {
    KuvImage* image = kuvCreateImageHeader(nCh, 0, depth, nCh == 3 ? "RGB" : "GRAY",
                                           nCh == 3 ? "BGR" : "GRAY", KUV_DATA_ORDER_PIXEL,
                                           KUV_ORIGIN_TOP_LEFT, 32, kWidth, kHeight, nullptr,
                                           nullptr, 0, nullptr);
    if (image == nullptr) return nullptr;
    if (depth == KUV_DEPTH_32F) kuvAllocateImageFP(image, 1, 0.0f);
    else kuvAllocateImage(image, 1, 0);
    return image;
}

cv::Mat matOf(const KuvImage* image, int type) {
    return cv::Mat(image->height, image->width, type, image->imageData,
                   static_cast<size_t>(image->widthStep));
}

// A fixed-seed fill over the whole range of the depth (floats in -1000..1000).
void fill(KuvImage* image, uint32_t seed) {
    uint32_t s = seed;
    auto next = [&s] {
        s = s * 1664525u + 1013904223u;
        return s >> 8;
    };
    if (image->depth == KUV_DEPTH_32F) {
        auto* p = reinterpret_cast<float*>(image->imageData);
        for (int32_t i = 0; i < image->imageSize / 4; ++i) {
            p[i] = static_cast<float>(static_cast<int32_t>(next() % 2000001u) - 1000000) * 1e-3f;
        }
        return;
    }
    for (int32_t i = 0; i < image->imageSize; ++i) {
        image->imageData[i] = static_cast<char>(next());
    }
}

struct Images {
    KuvImage* src = nullptr;
    KuvImage* dst = nullptr;
    cv::Mat srcMat, dstMat;   // over the kuv images' pixels
    bool ok = false;

    explicit Images(Case c) {
        const Setup setup = setupOf(c);
        src = makeImage(setup.srcDepth, setup.nCh);
        if (src == nullptr || src->imageData == nullptr) return;
        fill(src, 4711u);
        srcMat = matOf(src, setup.cvSrc);
        if (setup.dstDepth != 0) {
            dst = makeImage(setup.dstDepth, setup.nCh);
            if (dst == nullptr || dst->imageData == nullptr) return;
            dstMat = matOf(dst, CV_MAKETYPE(setup.cvDst, setup.nCh));
        }
        ok = true;
    }
    ~Images() {
        if (src != nullptr) kuvDeallocate(src, KUV_IMAGE_ALL);
        if (dst != nullptr) kuvDeallocate(dst, KUV_IMAGE_ALL);
    }
    Images(const Images&) = delete;
    Images& operator=(const Images&) = delete;
};

Images& imagesFor(Case c) {
    static std::map<Case, std::unique_ptr<Images>> cache;
    auto& slot = cache[c];
    if (!slot) slot = std::make_unique<Images>(c);
    return *slot;
}

void singleThreaded() {
    static const bool once = [] {
        cv::setNumThreads(1);
        cv::setUseOptimized(true);
        return true;
    }();
    (void)once;
}

void runKuv(Case c, Images& m) {
    switch (c) {
        case Case::Convert8U16S:
        case Case::Convert16U8U: kuvConvert(m.src, m.dst); break;
        case Case::Scale8U16U: kuvScale(m.src, m.dst); break;
        case Case::ScaleFP8U32F: kuvScaleFP(m.src, m.dst, kMin, kMax); break;
        case Case::MinMax32F: {
            float lo = 0.0f, hi = 0.0f;
            kuvMinMaxFP(m.src, &lo, &hi);
            benchmark::DoNotOptimize(lo);
            benchmark::DoNotOptimize(hi);
            break;
        }
    }
}

void runCv(Case c, Images& m, cv::Mat& out) {
    switch (c) {
        case Case::Convert8U16S: m.srcMat.convertTo(out, CV_16S); break;
        case Case::Convert16U8U: m.srcMat.convertTo(out, CV_8U); break;
        case Case::Scale8U16U: m.srcMat.convertTo(out, CV_16U, 257.0, 0.0); break;
        case Case::ScaleFP8U32F:
            m.srcMat.convertTo(out, CV_32F, (kMax - kMin) / 255.0, kMin);
            break;
        case Case::MinMax32F: break;
    }
}

// The kuv result next to the peer's, untimed: exact for the integer cases,
// within a float's rounding for the float scale, which the peer computes in
// single precision.
bool agrees(Case c, Images& m) {
    singleThreaded();
    kuvSetErrStatus(KUV_StsNoError);
    if (c == Case::MinMax32F) {
        float lo = 0.0f, hi = 0.0f;
        if (kuvMinMaxFP(m.src, &lo, &hi) != KUV_StsNoError) return false;
        double cvLo = 0.0, cvHi = 0.0;
        cv::minMaxIdx(m.srcMat, &cvLo, &cvHi);
        return lo == cvLo && hi == cvHi;
    }
    runKuv(c, m);
    if (kuvGetErrStatus() != KUV_StsNoError) return false;
    cv::Mat peer = m.dstMat.clone();
    runCv(c, m, peer);
    const double tolerance = c == Case::ScaleFP8U32F ? 1e-6 : 0.0;
    return cv::norm(peer, m.dstMat, cv::NORM_INF) <= tolerance;
}

void BM_kuv(benchmark::State& state, Case c) {
    Images& m = imagesFor(c);
    if (!m.ok) return state.SkipWithError("images could not be made");
    if (!agrees(c, m)) return state.SkipWithError("kuv differs from the peer or reported");
    for (auto _ : state) {
        runKuv(c, m);
        benchmark::ClobberMemory();
    }
    if (kuvGetErrStatus() != KUV_StsNoError) state.SkipWithError("kuv reported");
}

void BM_cv(benchmark::State& state, Case c) {
    Images& m = imagesFor(c);
    if (!m.ok) return state.SkipWithError("images could not be made");
    singleThreaded();
    cv::Mat out = m.dstMat;   // the kuv destination's memory: no allocation in the loop
    const uchar* before = out.data;
    for (auto _ : state) {
        runCv(c, m, out);
        benchmark::ClobberMemory();
    }
    if (c != Case::MinMax32F && out.data != before) state.SkipWithError("convertTo reallocated");
}

void BM_cvMinMax(benchmark::State& state, bool withLocations) {
    Images& m = imagesFor(Case::MinMax32F);
    if (!m.ok) return state.SkipWithError("images could not be made");
    singleThreaded();
    for (auto _ : state) {
        double lo = 0.0, hi = 0.0;
        if (withLocations) {
            cv::Point at, at2;
            cv::minMaxLoc(m.srcMat, &lo, &hi, &at, &at2);
        } else {
            cv::minMaxIdx(m.srcMat, &lo, &hi);
        }
        benchmark::DoNotOptimize(lo);
        benchmark::DoNotOptimize(hi);
    }
}

// The least time of the repetitions beside the median: on a shared machine
// it is the steadier measure of what a call costs.
double least(const std::vector<double>& v) { return *std::min_element(v.begin(), v.end()); }

void withMin(benchmark::internal::Benchmark* b) {
    b->Unit(benchmark::kMicrosecond)->ComputeStatistics("min", least);
}

const bool registered = [] {
    const struct {
        Case c;
        const char* name;
    } cases[] = {{Case::Convert8U16S, "Convert_8U_16S"},
                 {Case::Convert16U8U, "Convert_16U_8U"},
                 {Case::Scale8U16U, "Scale_8U_16U"},
                 {Case::ScaleFP8U32F, "ScaleFP_8U_32F"}};
    for (const auto& entry : cases) {
        withMin(benchmark::RegisterBenchmark((std::string("BM_kuv") + entry.name).c_str(), BM_kuv,
                                             entry.c));
        withMin(benchmark::RegisterBenchmark((std::string("BM_cv") + entry.name).c_str(), BM_cv,
                                             entry.c));
    }
    withMin(benchmark::RegisterBenchmark("BM_kuvMinMaxFP_32F", BM_kuv, Case::MinMax32F));
    withMin(benchmark::RegisterBenchmark("BM_cvMinMaxIdx_32F", BM_cvMinMax, false));
    withMin(benchmark::RegisterBenchmark("BM_cvMinMaxLoc_32F", BM_cvMinMax, true));
    return true;
}();

}  // namespace
