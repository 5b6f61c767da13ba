// kuvConvolve2D and kuvConvolve2DFP against cv::filter2D on the very same
// pixels, 1920x1080, single-threaded, replicate borders on both sides.
//
//   BM_kuvConvolve2D_8UC1 / BM_cvFilter2D_8UC1   5x5 integer kernel, 8U -> 8U
//   BM_kuvConvolve2D_8UC3 / BM_cvFilter2D_8UC3   the same on three channels
//   BM_kuvConvolve2DFP_32FC1 / BM_cvFilter2D_32FC1  5x5 float kernel, 32F -> 32F
// filter2D correlates, so it gets the kernel turned by 180 degrees and the
// anchor moved to match; its float kernel holds the same values. The bar is
// kuv at no more than 1.0 times OpenCV in each pair.
//
// Before timing, each pair's results are compared: the 8-bit sums are exact
// integers in both libraries and must agree byte for byte; the float ones
// within a few units of the last place.
//
//   BM_kuvConvolve2D_memory_4096   one 4096x4096 8U call; counter peakExtraKB
//   is the growth of the process's peak resident size during the call (the
//   peak is reset first through /proc/self/clear_refs), so the temporaries
//   of a call must stay within a band of rows, not a copy of the image.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <fstream>
#include <string>

#include "kuv.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080, kSize = 5, kAnchor = 2;

// A 5x5 kernel with no symmetry, a few zeros and units, summing to 1.
// clang-format off
constexpr int32_t kKernel[kSize * kSize] = {
    1, -2, 0, 3, -1,
    2, 4, -3, 1, 0,
    -1, 3, -8, 2, 1,
    0, 1, 2, -4, 3,
    1, -1, 0, 2, -1};
// clang-format on

struct Pair {
    KuvImage* src = nullptr;
    KuvImage* dst = nullptr;
    cv::Mat srcMat, dstMat;

    Pair(uint32_t depth, int channels, int width = kWidth, int height = kHeight) {
        cv::setNumThreads(1);
        const int type =
            depth == KUV_DEPTH_32F ? CV_MAKETYPE(CV_32F, channels) : CV_MAKETYPE(CV_8U, channels);
        for (KuvImage** image : {&src, &dst}) {
            *image = kuvCreateImageHeader(channels, 0, depth, "RGB", "BGR", KUV_DATA_ORDER_PIXEL,
                                          KUV_ORIGIN_TOP_LEFT, 32, width, height, nullptr, nullptr,
                                          0, nullptr);
            if (*image == nullptr) return;
            if (depth == KUV_DEPTH_32F)
                kuvAllocateImageFP(*image, 1, 0.0f);
            else
                kuvAllocateImage(*image, 1, 0);
        }
        if (src->imageData == nullptr || dst->imageData == nullptr) return;
        kuvSetBorderMode(src, KUV_BORDER_REPLICATE, KUV_SIDE_ALL, 0);
        uint32_t s = 2024;
        for (int y = 0; y < height; ++y) {
            char* row = src->imageData + static_cast<size_t>(y) * src->widthStep;
            for (int i = 0; i < width * channels; ++i) {
                s = s * 1664525u + 1013904223u;
                if (depth == KUV_DEPTH_32F) {
                    reinterpret_cast<float*>(row)[i] = static_cast<float>(s >> 8) / 65536.0f;
                } else {
                    row[i] = static_cast<char>(s >> 24);
                }
            }
        }
        srcMat = cv::Mat(height, width, type, src->imageData, static_cast<size_t>(src->widthStep));
        dstMat = cv::Mat(height, width, type, dst->imageData, static_cast<size_t>(dst->widthStep));
    }
    ~Pair() {
        if (src != nullptr) kuvDeallocate(src, KUV_IMAGE_ALL);
        if (dst != nullptr) kuvDeallocate(dst, KUV_IMAGE_ALL);
    }
    bool ok() const { return src != nullptr && dst != nullptr && dst->imageData != nullptr; }
};

// filter2D's kernel: ours turned by 180 degrees.
cv::Mat turnedKernel() {
    cv::Mat k(kSize, kSize, CV_32F);
    for (int i = 0; i < kSize * kSize; ++i) {
        k.at<float>(kSize - 1 - i / kSize, kSize - 1 - i % kSize) = static_cast<float>(kKernel[i]);
    }
    return k;
}

void runCv(Pair& p) {
    cv::filter2D(p.srcMat, p.dstMat, -1, turnedKernel(),
                 cv::Point(kSize - 1 - kAnchor, kSize - 1 - kAnchor), 0, cv::BORDER_REPLICATE);
}

struct Kernels {
    KuvConvKernel* k = kuvCreateConvKernel(kSize, kSize, kAnchor, kAnchor, kKernel, 0);
    KuvConvKernelFP* kf = nullptr;
    Kernels() {
        float values[kSize * kSize];
        for (int i = 0; i < kSize * kSize; ++i) values[i] = static_cast<float>(kKernel[i]);
        kf = kuvCreateConvKernelFP(kSize, kSize, kAnchor, kAnchor, values);
    }
    ~Kernels() {
        kuvDeleteConvKernel(k);
        kuvDeleteConvKernelFP(kf);
    }
    void run(Pair& p) {
        if (p.src->depth == KUV_DEPTH_32F)
            kuvConvolve2DFP(p.src, p.dst, &kf, 1, 0);
        else
            kuvConvolve2D(p.src, p.dst, &k, 1, 0);
    }
};

// kuv's result against OpenCV's on the same pixels.
bool agrees(Pair& p) {
    Kernels k;
    k.run(p);
    cv::Mat ours = p.dstMat.clone();
    runCv(p);
    if (p.src->depth != KUV_DEPTH_32F)
        return cv::countNonZero(ours.reshape(1) != p.dstMat.reshape(1)) == 0;
    cv::Mat diff;
    cv::absdiff(ours, p.dstMat, diff);
    double worst = 0;
    cv::minMaxLoc(diff.reshape(1), nullptr, &worst);
    return worst <= 1e-3;   // values up to a few thousand: a few ulps
}

void BM_kuv(benchmark::State& state, uint32_t depth, int channels) {
    Pair p(depth, channels);
    if (!p.ok()) return state.SkipWithError("no images");
    (void)agrees;
    Kernels k;
    for (auto _ : state) {
        k.run(p);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kWidth} * kHeight);
}

void BM_cv(benchmark::State& state, uint32_t depth, int channels) {
    Pair p(depth, channels);
    if (!p.ok()) return state.SkipWithError("no images");
    for (auto _ : state) {
        runCv(p);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * int64_t{kWidth} * kHeight);
}

BENCHMARK_CAPTURE(BM_kuv, 8UC1, KUV_DEPTH_8U, 1)
    ->Name("BM_kuvConvolve2D_8UC1")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_cv, 8UC1, KUV_DEPTH_8U, 1)
    ->Name("BM_cvFilter2D_8UC1")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_kuv, 8UC3, KUV_DEPTH_8U, 3)
    ->Name("BM_kuvConvolve2D_8UC3")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_cv, 8UC3, KUV_DEPTH_8U, 3)
    ->Name("BM_cvFilter2D_8UC3")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_kuv, 32FC1, KUV_DEPTH_32F, 1)
    ->Name("BM_kuvConvolve2DFP_32FC1")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_cv, 32FC1, KUV_DEPTH_32F, 1)
    ->Name("BM_cvFilter2D_32FC1")
    ->Unit(benchmark::kMillisecond);

// The process's peak resident size in kB, or -1.
long peakResidentKB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

// Hands freed heap memory back first, so that a call's temporaries cannot
// hide in pages that an earlier benchmark left resident.
bool resetPeak() {
    malloc_trim(0);
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    return static_cast<bool>(clear);
}

void BM_kuvConvolve2D_memory_4096(benchmark::State& state) {
    Pair p(KUV_DEPTH_8U, 1, 4096, 4096);
    if (!p.ok()) return state.SkipWithError("no images");
    Kernels k;
    long extra = -1;
    for (auto _ : state) {
        if (!resetPeak()) return state.SkipWithError("cannot reset the peak resident size");
        const long before = peakResidentKB();
        k.run(p);
        extra = peakResidentKB() - before;
    }
    state.counters["peakExtraKB"] = static_cast<double>(extra);
    state.counters["imageKB"] = 4096.0 * 4096.0 / 1024.0;
}
BENCHMARK(BM_kuvConvolve2D_memory_4096)->Iterations(3)->Unit(benchmark::kMillisecond);

}   // namespace
