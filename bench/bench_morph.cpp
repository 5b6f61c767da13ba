// kuvErode and kuvDilate against cv::erode and cv::dilate on the very same pixels.
//
// One 1920x1080 8U one-channel image, replicated borders on all sides: kuv
// sees the row and column next to the image through its border rule and
// repeats them further out, which for replication is exactly what OpenCV's
// BORDER_REPLICATE gives. Both write into a destination made once.
//   BM_kuvErode/<n>    kuvErode, n iterations: a (2n+1)-square box in one pass
//   BM_cvErode/<n>     cv::erode with a (2n+1)-square rectangle
//   BM_kuvDilate/<n>, BM_cvDilate/<n>  the same for the maximum
// n = 1 and 5 (3x3 and 11x11). OpenCV runs single-threaded. The bars:
// kuv/cv at most 1.0 for erosion at both sizes, and kuvErode/5 under three
// times kuvErode/1.
//
// Before timing, each case is checked byte for byte against OpenCV.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <cstdint>
#include <cstring>

#include "kuv.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

KuvImage* newImage() {
    KuvImage* image = kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY", KUV_DATA_ORDER_PIXEL,
                                           KUV_ORIGIN_TOP_LEFT, 4, kWidth, kHeight, nullptr,
                                           nullptr, 0, nullptr);
    if (image == nullptr) return nullptr;
    kuvAllocateImage(image, 1, 0);
    if (image->imageData == nullptr) {
        kuvDeallocate(image, KUV_IMAGE_ALL);
        return nullptr;
    }
    kuvSetBorderMode(image, KUV_BORDER_REPLICATE, KUV_SIDE_ALL, 0);
    return image;
}

cv::Mat matOf(KuvImage* image) {
    return cv::Mat(kHeight, kWidth, CV_8UC1, image->imageData, static_cast<size_t>(image->widthStep));
}

struct Images {
    KuvImage* src = newImage();
    KuvImage* dst = newImage();

    Images() {
        cv::setNumThreads(1);
        if (src == nullptr) return;
        // Smooth random blobs rather than noise, so that extremes are not
        // reached by every box and the results differ from case to case.
        uint32_t s = 2024;
        for (int y = 0; y < kHeight; ++y) {
            for (int x = 0; x < kWidth; ++x) {
                s = s * 1664525u + 1013904223u;
                const int v = ((x / 7 + y / 5) * 37 + static_cast<int>(s >> 28)) & 255;
                src->imageData[static_cast<size_t>(y) * src->widthStep + x] = static_cast<char>(v);
            }
        }
    }
    ~Images() {
        if (src != nullptr) kuvDeallocate(src, KUV_IMAGE_ALL);
        if (dst != nullptr) kuvDeallocate(dst, KUV_IMAGE_ALL);
    }
    bool ok() const { return src != nullptr && dst != nullptr; }
};

Images& images() {
    static Images i;
    return i;
}

using KuvMorph = void (*)(const KuvImage*, KuvImage*, int32_t);
using CvMorph = void (*)(cv::InputArray, cv::OutputArray, cv::InputArray, cv::Point, int, int,
                         const cv::Scalar&);

bool sameAsOpenCv(KuvMorph kuv, CvMorph cv, int n) {
    Images& im = images();
    kuv(im.src, im.dst, n);
    cv::Mat reference;
    const cv::Mat box = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * n + 1, 2 * n + 1));
    cv(matOf(im.src), reference, box, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE,
       cv::morphologyDefaultBorderValue());
    const cv::Mat mine = matOf(im.dst);
    for (int y = 0; y < kHeight; ++y) {
        if (std::memcmp(mine.ptr(y), reference.ptr(y), kWidth) != 0) return false;
    }
    return kuvGetErrStatus() == KUV_StsNoError;
}

void BM_kuv(benchmark::State& state, KuvMorph kuv, CvMorph cv) {
    Images& im = images();
    const int n = static_cast<int>(state.range(0));
    if (!im.ok()) return state.SkipWithError("no image");
    if (!sameAsOpenCv(kuv, cv, n)) return state.SkipWithError("result differs from OpenCV");
    for (auto _ : state) {
        kuv(im.src, im.dst, n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kWidth * kHeight);
}

void BM_cv(benchmark::State& state, CvMorph cv) {
    Images& im = images();
    const int n = static_cast<int>(state.range(0));
    if (!im.ok()) return state.SkipWithError("no image");
    const cv::Mat box = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * n + 1, 2 * n + 1));
    const cv::Mat src = matOf(im.src);
    cv::Mat dst(kHeight, kWidth, CV_8UC1);
    for (auto _ : state) {
        cv(src, dst, box, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE,
           cv::morphologyDefaultBorderValue());
        benchmark::DoNotOptimize(dst.data);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kWidth * kHeight);
}

BENCHMARK_CAPTURE(BM_kuv, kuvErode, kuvErode, cv::erode)->Name("BM_kuvErode")->Arg(1)->Arg(5)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_cv, cvErode, cv::erode)->Name("BM_cvErode")->Arg(1)->Arg(5)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_kuv, kuvDilate, kuvDilate, cv::dilate)->Name("BM_kuvDilate")->Arg(1)->Arg(5)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_cv, cvDilate, cv::dilate)->Name("BM_cvDilate")->Arg(1)->Arg(5)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
