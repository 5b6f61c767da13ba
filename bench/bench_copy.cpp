// kuvCopy and kuvSet against memcpy and OpenCV on the very same pixel memory,
// single-threaded, 8-bit 1920x1080 with three channels:
//   BM_kuvCopy_8UC3_whole    kuvCopy of a whole image to one of the same layout
//   BM_memcpyForCopy_8UC3_whole  the same imageSize bytes by memcpy: the bound
//   BM_kuvCopy_8UC3_split    pixel order to three planes: kuvCopy of channel
//                            of interest 1, 2, 3 into one-channel headers over
//                            the planes of a plane-order image
//   BM_cvSplit_8UC3          cv::split into Mats over the same three planes
//   BM_kuvConvert_8UC3_split pixel order to planes in one call: kuvConvert
//                            between equal depths rewrites the data order
//   BM_kuvConvert_8UC3_merge planes to pixel order, the same way back
//   BM_cvMerge_8UC3          cv::merge of the three planes
//   BM_kuvSet_8UC3           kuvSet of a whole image
//   BM_cvSetTo_8UC3          cv::Mat::setTo of the same image
// Each kuv case is first checked against its peer, untimed.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <cstdint>
#include <cstring>
#include <vector>

#include "kuv.h"
#include "kuv_own.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

void fillBytes(KuvImage* image, uint32_t seed) {
    uint32_t s = seed;
    auto* p = reinterpret_cast<uint8_t*>(image->imageData);
    for (int32_t i = 0; i < image->imageSize; ++i) {
        s = s * 1664525u + 1013904223u;
        p[i] = static_cast<uint8_t>(s >> 24);
    }
}

KuvImage* makeImage(int nChannels, int dataOrder) {
    KuvImage* image =
        kuvCreateImageHeader(nChannels, 0, KUV_DEPTH_8U, nChannels == 3 ? "RGB\0" : "GRAY",
                             nChannels == 3 ? "BGR\0" : "G\0\0\0", dataOrder, KUV_ORIGIN_TOP_LEFT,
                             4, kWidth, kHeight, nullptr, nullptr, 0, nullptr);
    if (image != nullptr) kuvAllocateImage(image, 1, 0);
    return image;
}

struct Images {
    KuvImage* src = nullptr;     // 8UC3, pixel order
    KuvImage* dst = nullptr;     // 8UC3, pixel order
    KuvImage* planes = nullptr;  // 8U, three planes
    KuvImage* plane[3] = {};     // one-channel headers over the planes
    cv::Mat srcMat, dstMat;
    std::vector<cv::Mat> planeMats;
    bool ok = false;

    Images() {
        src = makeImage(3, KUV_DATA_ORDER_PIXEL);
        dst = makeImage(3, KUV_DATA_ORDER_PIXEL);
        planes = makeImage(3, KUV_DATA_ORDER_PLANE);
        if (!src || !dst || !planes || !src->imageData || !dst->imageData || !planes->imageData)
            return;
        fillBytes(src, 12345u);
        src->roi = kuvCreateROI(0, 0, 0, kWidth, kHeight);
        const size_t planeBytes = static_cast<size_t>(planes->widthStep) * kHeight;
        for (int c = 0; c < 3; ++c) {
            plane[c] = kuvCreateImageHeader(
                1, 0, KUV_DEPTH_8U, "GRAY", "G\0\0\0", KUV_DATA_ORDER_PIXEL, KUV_ORIGIN_TOP_LEFT, 4,
                kWidth, kHeight, kuvCreateROI(0, 0, 0, kWidth, kHeight), nullptr, 0, nullptr);
            if (plane[c] == nullptr) return;
            plane[c]->imageData = planes->imageData + c * planeBytes;
            planeMats.emplace_back(kHeight, kWidth, CV_8UC1, plane[c]->imageData,
                                   static_cast<size_t>(planes->widthStep));
        }
        srcMat =
            cv::Mat(kHeight, kWidth, CV_8UC3, src->imageData, static_cast<size_t>(src->widthStep));
        dstMat =
            cv::Mat(kHeight, kWidth, CV_8UC3, dst->imageData, static_cast<size_t>(dst->widthStep));
        ok = true;
    }
    ~Images() {
        for (KuvImage* p : plane) {
            if (p == nullptr) continue;
            p->imageData = nullptr;  // the pixels belong to `planes`
            kuvDeallocate(p, KUV_IMAGE_ALL);
        }
        for (KuvImage* image : {src, dst, planes}) kuvDeallocate(image, KUV_IMAGE_ALL);
    }
    Images(const Images&) = delete;
    Images& operator=(const Images&) = delete;

    void splitWhole() {
        for (int c = 0; c < 3; ++c) {
            kuvSetROI(src->roi, c + 1, 0, 0, kWidth, kHeight);
            kuvSetROI(plane[c]->roi, 0, 0, 0, kWidth, kHeight);
            kuvCopy(src, plane[c]);
        }
    }
};

Images& images() {
    static Images instance;
    return instance;
}

bool planesMatchSplit(Images& im) {
    std::vector<cv::Mat> expected;
    cv::split(im.srcMat, expected);
    for (int c = 0; c < 3; ++c) {
        if (cv::norm(expected[static_cast<size_t>(c)], im.planeMats[static_cast<size_t>(c)],
                     cv::NORM_INF) != 0.0) {
            return false;
        }
    }
    return true;
}

void clearPlanes(Images& im) {
    std::memset(im.planes->imageData, 0, static_cast<size_t>(im.planes->imageSize));
}

void BM_kuvCopy_8UC3_whole(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    kuvSetErrStatus(KUV_StsNoError);
    kuvSetROI(im.src->roi, 0, 0, 0, kWidth, kHeight);
    kuvCopy(im.src, im.dst);
    if (std::memcmp(im.src->imageData, im.dst->imageData, static_cast<size_t>(im.src->imageSize)) !=
        0) {
        return state.SkipWithError("kuvCopy did not copy");
    }
    const long blocks = ownOutstandingBlocks();
    for (auto _ : state) {
        kuvCopy(im.src, im.dst);
        benchmark::ClobberMemory();
    }
    if (kuvGetErrStatus() != KUV_StsNoError) return state.SkipWithError("kuvCopy reported");
    state.counters["allocs"] = static_cast<double>(ownOutstandingBlocks() - blocks);
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{im.src->imageSize});
}

void BM_memcpyForCopy_8UC3_whole(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    for (auto _ : state) {
        std::memcpy(im.dst->imageData, im.src->imageData, static_cast<size_t>(im.src->imageSize));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{im.src->imageSize});
}

void BM_kuvCopy_8UC3_split(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    kuvSetErrStatus(KUV_StsNoError);
    clearPlanes(im);
    im.splitWhole();
    if (!planesMatchSplit(im)) return state.SkipWithError("planes differ from cv::split");
    for (auto _ : state) {
        im.splitWhole();
        benchmark::ClobberMemory();
    }
    if (kuvGetErrStatus() != KUV_StsNoError) return state.SkipWithError("kuvCopy reported");
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{im.src->imageSize});
}

void BM_cvSplit_8UC3(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    const uchar* before = im.planeMats[0].data;
    for (auto _ : state) {
        cv::split(im.srcMat, im.planeMats);
        benchmark::ClobberMemory();
    }
    if (im.planeMats[0].data != before) return state.SkipWithError("cv::split reallocated");
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{im.src->imageSize});
}

void BM_kuvConvert_8UC3_split(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    kuvSetErrStatus(KUV_StsNoError);
    clearPlanes(im);
    kuvConvert(im.src, im.planes);
    if (!planesMatchSplit(im)) return state.SkipWithError("planes differ from cv::split");
    for (auto _ : state) {
        kuvConvert(im.src, im.planes);
        benchmark::ClobberMemory();
    }
    if (kuvGetErrStatus() != KUV_StsNoError) return state.SkipWithError("kuvConvert reported");
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{im.src->imageSize});
}

void BM_kuvConvert_8UC3_merge(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    kuvSetErrStatus(KUV_StsNoError);
    cv::split(im.srcMat, im.planeMats);
    std::memset(im.dst->imageData, 0, static_cast<size_t>(im.dst->imageSize));
    kuvConvert(im.planes, im.dst);
    if (cv::norm(im.srcMat, im.dstMat, cv::NORM_INF) != 0.0)
        return state.SkipWithError("pixels differ from the source");
    for (auto _ : state) {
        kuvConvert(im.planes, im.dst);
        benchmark::ClobberMemory();
    }
    if (kuvGetErrStatus() != KUV_StsNoError) return state.SkipWithError("kuvConvert reported");
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{im.src->imageSize});
}

void BM_cvMerge_8UC3(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    const uchar* before = im.dstMat.data;
    for (auto _ : state) {
        cv::merge(im.planeMats, im.dstMat);
        benchmark::ClobberMemory();
    }
    if (im.dstMat.data != before) return state.SkipWithError("cv::merge reallocated");
    state.SetBytesProcessed(state.iterations() * 2 * int64_t{im.src->imageSize});
}

void BM_kuvSet_8UC3(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    kuvSetErrStatus(KUV_StsNoError);
    kuvSet(im.dst, 77);
    cv::Mat expected(kHeight, kWidth, CV_8UC3, cv::Scalar(77, 77, 77));
    if (cv::norm(expected, im.dstMat, cv::NORM_INF) != 0.0)
        return state.SkipWithError("kuvSet differs");
    for (auto _ : state) {
        kuvSet(im.dst, 77);
        benchmark::ClobberMemory();
    }
    if (kuvGetErrStatus() != KUV_StsNoError) return state.SkipWithError("kuvSet reported");
    state.SetBytesProcessed(state.iterations() * int64_t{im.dst->imageSize});
}

void BM_cvSetTo_8UC3(benchmark::State& state) {
    Images& im = images();
    if (!im.ok) return state.SkipWithError("images could not be made");
    const cv::Scalar value(77, 77, 77);
    for (auto _ : state) {
        im.dstMat.setTo(value);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * int64_t{im.dst->imageSize});
}

BENCHMARK(BM_kuvCopy_8UC3_whole);
BENCHMARK(BM_memcpyForCopy_8UC3_whole);
BENCHMARK(BM_kuvCopy_8UC3_split);
BENCHMARK(BM_cvSplit_8UC3);
BENCHMARK(BM_kuvConvert_8UC3_split);
BENCHMARK(BM_kuvConvert_8UC3_merge);
BENCHMARK(BM_cvMerge_8UC3);
BENCHMARK(BM_kuvSet_8UC3);
BENCHMARK(BM_cvSetTo_8UC3);

}  // namespace
