// The rank and fixed filters against OpenCV on the very same pixels.
//
// One 1920x1080 8U one-channel image, replicated borders on all four sides
// (OpenCV: BORDER_REPLICATE), a fresh destination kept across iterations:
//   BM_kuvNlf_<case>          the kuv call, workers as the CPU check chose them
//   BM_kuvNlfPortable_<case>  the same on the portable workers, for reference
//   BM_cvNlf_<case>           the OpenCV peer, single-threaded
// Cases and bars (kuv over OpenCV):
//   median3  kuvMedianFilter 3x3          cv::medianBlur 3                 <= 1.0
//   median5  kuvMedianFilter 5x5          cv::medianBlur 5                 <= 1.0
//   max5     kuvMaxFilter 5x5             cv::dilate, 5x5 rectangle        <= 1.0
//   sobelx   kuvFixedFilter Sobel X       cv::Sobel dx 1, 3x3, to 8U       <= 1.0
//   gauss5   kuvFixedFilter Gauss 5       cv::filter2D, the weights / 571  <= 1.0
//
// Before timing, each case is checked against OpenCV: the median and the
// maximum must agree exactly; Sobel X (left minus right here, right minus
// left there) against cv::Sobel with scale -1 exactly; Gauss 5 within 1,
// as OpenCV rounds its float sums in its own way.
//
//   build-bench/bench/kuv_bench --benchmark_filter=Nlf
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <string>

#include "filter/nlf.h"
#include "core/platform.h"
#include "kuv.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

KuvImage* makeGray() {
    KuvImage* image = kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY",
                                           KUV_DATA_ORDER_PIXEL, KUV_ORIGIN_TOP_LEFT, 4, kWidth,
                                           kHeight, nullptr, nullptr, 0, nullptr);
    if (image != nullptr) kuvAllocateImage(image, 1, 0);
    return image;
}

struct Images {
    KuvImage* src = nullptr;
    KuvImage* dst = nullptr;
    cv::Mat srcMat, dstMat;

    Images() {
        cv::setNumThreads(1);
        src = makeGray();
        dst = makeGray();
        if (src == nullptr || dst == nullptr || src->imageData == nullptr ||
            dst->imageData == nullptr) {
            return;
        }
        // A smooth picture with noise, so that the medians' windows are not
        // all alike.
        uint32_t s = 7;
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                s = s * 1664525u + 1013904223u;
                const int v = ((x * 3 + y * 2) & 255) / 2 + static_cast<int>(s >> 26) * 2;
                src->imageData[y * src->widthStep + x] = static_cast<char>(v);
            }
        }
        kuvSetBorderMode(src, KUV_BORDER_REPLICATE, KUV_SIDE_ALL, 0);
        srcMat = cv::Mat(kHeight, kWidth, CV_8UC1, src->imageData,
                         static_cast<size_t>(src->widthStep));
        dstMat = cv::Mat(kHeight, kWidth, CV_8UC1, dst->imageData,
                         static_cast<size_t>(dst->widthStep));
    }
    ~Images() {
        if (src != nullptr) kuvDeallocate(src, KUV_IMAGE_ALL);
        if (dst != nullptr) kuvDeallocate(dst, KUV_IMAGE_ALL);
    }
    bool ok() const { return !srcMat.empty(); }
};

Images& images() {
    static Images i;
    return i;
}

enum Case { MEDIAN3, MEDIAN5, MAX5, SOBELX, GAUSS5 };
const char* const kCaseNames[] = {"median3", "median5", "max5", "sobelx", "gauss5"};

cv::Mat gaussKernel() {
    const float w[5] = {2, 7, 12, 7, 2}, v[5] = {7, 31, 52, 31, 7}, c[5] = {12, 52, 127, 52, 12};
    const float* rows[5] = {w, v, c, v, w};
    cv::Mat k(5, 5, CV_32F);
    for (int r = 0; r < 5; ++r) {
        for (int t = 0; t < 5; ++t) k.at<float>(r, t) = rows[r][t] / 571.0f;
    }
    return k;
}

void runKuv(Case c, Images& im) {
    switch (c) {
        case MEDIAN3: kuvMedianFilter(im.src, im.dst, 3, 3, 1, 1); break;
        case MEDIAN5: kuvMedianFilter(im.src, im.dst, 5, 5, 2, 2); break;
        case MAX5: kuvMaxFilter(im.src, im.dst, 5, 5, 2, 2); break;
        case SOBELX: kuvFixedFilter(im.src, im.dst, KUV_FILTER_SOBEL_X); break;
        case GAUSS5: kuvFixedFilter(im.src, im.dst, KUV_FILTER_GAUSS_5); break;
    }
}

void runCv(Case c, Images& im, cv::Mat& out, double sobelScale = 1.0) {
    static const cv::Mat rect5 = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5));
    static const cv::Mat gauss = gaussKernel();
    switch (c) {
        case MEDIAN3: cv::medianBlur(im.srcMat, out, 3); break;
        case MEDIAN5: cv::medianBlur(im.srcMat, out, 5); break;
        case MAX5:
            cv::dilate(im.srcMat, out, rect5, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
            break;
        case SOBELX:
            cv::Sobel(im.srcMat, out, CV_8U, 1, 0, 3, sobelScale, 0, cv::BORDER_REPLICATE);
            break;
        case GAUSS5:
            cv::filter2D(im.srcMat, out, -1, gauss, cv::Point(-1, -1), 0, cv::BORDER_REPLICATE);
            break;
    }
}

// The kuv result against OpenCV's: the largest difference.
double difference(Case c) {
    Images& im = images();
    runKuv(c, im);
    cv::Mat reference;
    runCv(c, im, reference, c == SOBELX ? -1.0 : 1.0);
    return cv::norm(im.dstMat, reference, cv::NORM_INF);
}

void BM_kuvNlf(benchmark::State& state, Case c, bool portable) {
    Images& im = images();
    if (!im.ok()) return state.SkipWithError("no image");
    ownPlatformLimitFeatures(portable ? 0u : ~0u);
    const double diff = difference(c);
    if (diff > (c == GAUSS5 ? 1.0 : 0.0)) {
        ownPlatformLimitFeatures(~0u);
        return state.SkipWithError(("differs from OpenCV by " + std::to_string(diff)).c_str());
    }
    for (auto _ : state) {
        runKuv(c, im);
        benchmark::ClobberMemory();
    }
    ownPlatformLimitFeatures(~0u);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kWidth * kHeight);
}

void BM_cvNlf(benchmark::State& state, Case c) {
    Images& im = images();
    if (!im.ok()) return state.SkipWithError("no image");
    cv::Mat out(kHeight, kWidth, CV_8UC1);
    for (auto _ : state) {
        runCv(c, im, out);
        benchmark::DoNotOptimize(out.data);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kWidth * kHeight);
}

const bool registered = [] {
    for (int c = MEDIAN3; c <= GAUSS5; ++c) {
        const std::string name = kCaseNames[c];
        benchmark::RegisterBenchmark(("BM_kuvNlf_" + name).c_str(), BM_kuvNlf, Case(c), false)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("BM_cvNlf_" + name).c_str(), BM_cvNlf, Case(c))
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("BM_kuvNlfPortable_" + name).c_str(), BM_kuvNlf, Case(c),
                                     true)
            ->Unit(benchmark::kMicrosecond);
    }
    return true;
}();

}  // namespace
