// ownCopyWindow against cv::copyMakeBorder on the very same pixels.
//
// One 1920x1080 8U one-channel image; a window at (-2, -2) of 1924x1084, a
// 2-pixel border all round, the same mode on all four sides:
//   BM_kuvWindow_<mode>         ownCopyWindow + ownFreeWindow
//   BM_cvCopyMakeBorder_<mode>  cv::copyMakeBorder into a fresh Mat: both
//                               peers make their destination in the loop
//   BM_cvCopyMakeBorderReuse_<mode>  the same into one kept Mat, for reference
// Modes: replicate, reflect, wrap, constant (17). OpenCV runs single-threaded.
// The bar is kuv at no more than 1.0 times the fresh-Mat case.
//
// Before timing, one window of each mode is checked byte for byte against
// OpenCV's result: the two border rules agree for these four modes.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <cstdint>
#include <cstring>
#include <string>

#include "kuv.h"
#include "kuv_own.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080, kBorder = 2, kConstant = 17;

struct Source {
    KuvImage* image = nullptr;
    cv::Mat mat;

    Source() {
        cv::setNumThreads(1);
        image = kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY", KUV_DATA_ORDER_PIXEL,
                                     KUV_ORIGIN_TOP_LEFT, 4, kWidth, kHeight, nullptr, nullptr, 0,
                                     nullptr);
        if (image == nullptr) return;
        kuvAllocateImage(image, 0, 0);
        if (image->imageData == nullptr) return;
        uint32_t s = 2024;
        for (int32_t i = 0; i < image->imageSize; ++i) {
            s = s * 1664525u + 1013904223u;
            image->imageData[i] = static_cast<char>(s >> 24);
        }
        mat = cv::Mat(kHeight, kWidth, CV_8UC1, image->imageData,
                      static_cast<size_t>(image->widthStep));
    }
    ~Source() {
        if (image != nullptr) kuvDeallocate(image, KUV_IMAGE_ALL);
    }
};

Source& source() {
    static Source s;
    return s;
}

struct Mode {
    const char* name;
    int kuv;
    int cv;
};

const Mode kModes[] = {{"replicate", KUV_BORDER_REPLICATE, cv::BORDER_REPLICATE},
                       {"reflect", KUV_BORDER_REFLECT, cv::BORDER_REFLECT},
                       {"wrap", KUV_BORDER_WRAP, cv::BORDER_WRAP},
                       {"constant", KUV_BORDER_CONSTANT, cv::BORDER_CONSTANT}};

bool sameAsOpenCv(const Mode& mode) {
    Source& s = source();
    int32_t step = 0;
    char* window = ownCopyWindow(s.image, -kBorder, -kBorder, kWidth + 2 * kBorder,
                                 kHeight + 2 * kBorder, &step);
    if (window == nullptr) return false;
    cv::Mat reference;
    cv::copyMakeBorder(s.mat, reference, kBorder, kBorder, kBorder, kBorder, mode.cv,
                       cv::Scalar(kConstant));
    bool same = true;
    for (int y = 0; y < reference.rows && same; ++y) {
        same = std::memcmp(window + static_cast<size_t>(y) * step, reference.ptr(y),
                           static_cast<size_t>(reference.cols)) == 0;
    }
    ownFreeWindow(window);
    return same;
}

void BM_kuvWindow(benchmark::State& state, Mode mode) {
    Source& s = source();
    if (s.image == nullptr || s.image->imageData == nullptr)
        return state.SkipWithError("no image");
    kuvSetBorderMode(s.image, mode.kuv, KUV_SIDE_ALL, kConstant);
    if (!sameAsOpenCv(mode)) return state.SkipWithError("window differs from cv::copyMakeBorder");
    const long blocksBefore = ownOutstandingBlocks();
    for (auto _ : state) {
        int32_t step = 0;
        char* window = ownCopyWindow(s.image, -kBorder, -kBorder, kWidth + 2 * kBorder,
                                     kHeight + 2 * kBorder, &step);
        benchmark::DoNotOptimize(window);
        benchmark::ClobberMemory();
        ownFreeWindow(window);
    }
    state.counters["allocs"] = static_cast<double>(ownOutstandingBlocks() - blocksBefore);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 *
                            (kWidth + 2 * kBorder) * (kHeight + 2 * kBorder));
}

void BM_cvCopyMakeBorder(benchmark::State& state, Mode mode, bool reuse) {
    Source& s = source();
    if (s.image == nullptr || s.image->imageData == nullptr)
        return state.SkipWithError("no image");
    cv::Mat kept;
    for (auto _ : state) {
        if (reuse) {
            cv::copyMakeBorder(s.mat, kept, kBorder, kBorder, kBorder, kBorder, mode.cv,
                               cv::Scalar(kConstant));
            benchmark::DoNotOptimize(kept.data);
        } else {
            cv::Mat dst;
            cv::copyMakeBorder(s.mat, dst, kBorder, kBorder, kBorder, kBorder, mode.cv,
                               cv::Scalar(kConstant));
            benchmark::DoNotOptimize(dst.data);
        }
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 *
                            (kWidth + 2 * kBorder) * (kHeight + 2 * kBorder));
}

const bool registered = [] {
    for (const Mode& mode : kModes) {
        const std::string suffix = std::string("_") + mode.name;
        benchmark::RegisterBenchmark(("BM_kuvWindow" + suffix).c_str(), BM_kuvWindow, mode);
        benchmark::RegisterBenchmark(("BM_cvCopyMakeBorder" + suffix).c_str(),
                                     BM_cvCopyMakeBorder, mode, false);
        benchmark::RegisterBenchmark(("BM_cvCopyMakeBorderReuse" + suffix).c_str(),
                                     BM_cvCopyMakeBorder, mode, true);
    }
    return true;
}();

}  // namespace
