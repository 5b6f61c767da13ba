// kuvConvolveSep2D and kuvBlur against OpenCV on the very same pixels.
//
// One 1920x1080 8U one-channel image with replicate borders on all sides:
//   BM_kuvSep7/gauss, BM_cvSepFilter7
//                                    7-tap row and column kernels 1 6 15 20 15 6 1,
//                                    kuv with a shift of 6 per kernel, OpenCV
//                                    with float kernels of the same weights / 64
//   BM_kuvSep7/portable              kuv with the portable workers forced
//   BM_kuvSep7/wide                  the same weights times 16 with a shift of 8
//                                    more: sums too large for 16-bit lanes
//   BM_kuvBlur<n> / BM_cvBlur<n>     n x n box mean, n = 5 and 15, centred
// OpenCV runs single-threaded. The bars: kuv/cv <= 1.0 for the 7-tap pair
// and both blurs, and kuvBlur 15 under 1.5 times kuvBlur 5.
//
// Before timing, each kuv result is compared with OpenCV's: the counter
// maxDiff shows the largest difference, 0 for the blurs and at most 1 for
// the convolution, where kuv shifts down and OpenCV rounds.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <cstdlib>

#include "filter/sep_rows.h"
#include "core/platform.h"
#include "kuv.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

struct Images {
    KuvImage* src = nullptr;
    KuvImage* dst = nullptr;
    cv::Mat srcMat, dstMat;

    static KuvImage* make() {
        KuvImage* im = kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY",
                                            KUV_DATA_ORDER_PIXEL, KUV_ORIGIN_TOP_LEFT, 32, kWidth,
                                            kHeight, nullptr, nullptr, 0, nullptr);
        if (im != nullptr) kuvAllocateImage(im, 1, 0);
        return im;
    }
    Images() {
        cv::setNumThreads(1);
        src = make();
        dst = make();
        if (!ok()) return;
        uint32_t s = 2024;
        for (int32_t i = 0; i < src->imageSize; ++i) {
            s = s * 1664525u + 1013904223u;
            src->imageData[i] = static_cast<char>(s >> 24);
        }
        kuvSetBorderMode(src, KUV_BORDER_REPLICATE, KUV_SIDE_ALL, 0);
        srcMat = cv::Mat(kHeight, kWidth, CV_8UC1, src->imageData, size_t(src->widthStep));
        dstMat = cv::Mat(kHeight, kWidth, CV_8UC1, dst->imageData, size_t(dst->widthStep));
    }
    ~Images() {
        kuvDeallocate(src, KUV_IMAGE_ALL);
        kuvDeallocate(dst, KUV_IMAGE_ALL);
    }
    bool ok() const { return src && dst && src->imageData && dst->imageData; }
};

Images& images() {
    static Images i;
    return i;
}

// Largest difference between kuv's destination and an OpenCV result.
double maxDiff(const cv::Mat& reference) {
    cv::Mat diff;
    cv::absdiff(images().dstMat, reference, diff);
    double m = 0;
    cv::minMaxLoc(diff, nullptr, &m);
    return m;
}

const int32_t kGauss7[7] = {1, 6, 15, 20, 15, 6, 1};
const int32_t kWide7[7] = {1 << 4, 6 << 4, 15 << 4, 20 << 4, 15 << 4, 6 << 4, 1 << 4};

void BM_kuvSep7(benchmark::State& state, const int32_t* taps, int shift, int path) {
    Images& im = images();
    if (!im.ok()) return state.SkipWithError("no image");
    // Symmetric taps: the stored (reversed) order is the given one.
    int32_t values[7];
    std::copy(taps, taps + 7, values);
    const KuvConvKernel kx{7, 1, 3, 0, values, shift}, ky{1, 7, 0, 3, values, 0};
    ownPlatformLimitFeatures(path == 0 ? 0u : ~0u);
    kuvConvolveSep2D(im.src, im.dst, &kx, &ky);
    if (kuvGetErrStatus() != 0) return state.SkipWithError("kuvConvolveSep2D failed");
    cv::Mat k = cv::Mat(1, 7, CV_32F);
    for (int i = 0; i < 7; ++i) k.at<float>(i) = float(kGauss7[i]) / 64.0f;
    cv::Mat reference;
    cv::sepFilter2D(im.srcMat, reference, CV_8U, k, k, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
    state.counters["maxDiff"] = maxDiff(reference);
    for (auto _ : state) {
        kuvConvolveSep2D(im.src, im.dst, &kx, &ky);
        benchmark::ClobberMemory();
    }
    ownPlatformLimitFeatures(~0u);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void BM_cvSepFilter7(benchmark::State& state) {
    Images& im = images();
    if (!im.ok()) return state.SkipWithError("no image");
    cv::Mat k = cv::Mat(1, 7, CV_32F);
    for (int i = 0; i < 7; ++i) k.at<float>(i) = float(kGauss7[i]) / 64.0f;
    for (auto _ : state) {
        cv::sepFilter2D(im.srcMat, im.dstMat, CV_8U, k, k, cv::Point(-1, -1), 0,
                        cv::BORDER_REPLICATE);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void BM_kuvBlur(benchmark::State& state, int n, int path) {
    Images& im = images();
    if (!im.ok()) return state.SkipWithError("no image");
    ownPlatformLimitFeatures(path == 0 ? 0u : ~0u);
    kuvBlur(im.src, im.dst, n, n, n / 2, n / 2);
    if (kuvGetErrStatus() != 0) return state.SkipWithError("kuvBlur failed");
    cv::Mat reference;
    cv::blur(im.srcMat, reference, cv::Size(n, n), cv::Point(-1, -1), cv::BORDER_REPLICATE);
    state.counters["maxDiff"] = maxDiff(reference);
    for (auto _ : state) {
        kuvBlur(im.src, im.dst, n, n, n / 2, n / 2);
        benchmark::ClobberMemory();
    }
    ownPlatformLimitFeatures(~0u);
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

void BM_cvBlur(benchmark::State& state, int n) {
    Images& im = images();
    if (!im.ok()) return state.SkipWithError("no image");
    for (auto _ : state) {
        cv::blur(im.srcMat, im.dstMat, cv::Size(n, n), cv::Point(-1, -1), cv::BORDER_REPLICATE);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kWidth * kHeight);
}

BENCHMARK_CAPTURE(BM_kuvSep7, gauss, kGauss7, 12, -1)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_kuvSep7, portable, kGauss7, 12, 0)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_kuvSep7, wide, kWide7, 20, -1)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_cvSepFilter7)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_kuvBlur, 5, 5, -1)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_kuvBlur, 15, 15, -1)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_kuvBlur, 15_portable, 15, 0)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_cvBlur, 5, 5)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_cvBlur, 15, 15)->Unit(benchmark::kMicrosecond);

}  // namespace
