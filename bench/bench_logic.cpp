// Logic operations, bit regions, masks and tiles, each timed against a peer.
//
// Every case times its two sides alternately inside one loop (kuv, then the
// peer, on the very same pixel memory), so that a change of machine load
// hits both alike, and reports medians of the per-call times as counters:
//   kuv_us, peer_us   median thread CPU time of one call of each side
//   ratio             the case's quotient (below)
//   bar               the limit the ratio answers to
//   pass              1 when the ratio keeps its bar
// Single-threaded: OpenCV runs with one thread.
//
//   BM_logic_And_8UC3              kuvAnd 1920x1080x3 / cv::bitwise_and       bar <= 1.0
//   BM_logic_XorBits_off3          rate of kuvXor over a 1U region at bit
//                                  offset 3 / rate of kuvXor over an 8U region
//                                  of the same bytes per row                   bar >= 0.25
//   BM_logic_XorBits_off3_5_0      the same with three different bit offsets  bar >= 0.25
//   BM_logic_AddMask_random        kuvAdd 8UC3 with a 1-bit mask / cv::add
//   BM_logic_AddMask_disc          with an 8-bit mask of the same pattern     bar <= 1.0
//   BM_logic_TiledAdd_64           kuvAdd of images served as 64x64 tiles from
//                                  memory / the same kuvAdd untiled           bar <= 1.3
//
//   build/bench/kuv_bench --benchmark_filter=BM_logic_
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include <algorithm>
#include <ctime>
#include <cstdint>
#include <cstring>
#include <functional>
#include <vector>

#include "kuv.h"
#include "kuv_own.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

void fillBytes(char* p, size_t n, uint32_t seed) {
    uint32_t s = seed;
    for (size_t i = 0; i < n; ++i) {
        s = s * 1664525u + 1013904223u;
        p[i] = static_cast<char>(s >> 24);
    }
}

// An allocated image with fixed-seed pixels, freed with its records.
struct Image {
    KuvImage* image = nullptr;
    Image(uint32_t depth, int nCh, int width, int height, uint32_t seed, int align = 32) {
        image = kuvCreateImageHeader(nCh, 0, depth, nCh == 3 ? "RGB" : "GRAY",
                                     nCh == 3 ? "BGR" : "G", KUV_DATA_ORDER_PIXEL,
                                     KUV_ORIGIN_TOP_LEFT, align, width, height, nullptr, nullptr,
                                     0, nullptr);
        if (image == nullptr) return;
        kuvAllocateImage(image, 1, 0);
        if (image->imageData != nullptr) {
            fillBytes(image->imageData, static_cast<size_t>(image->imageSize), seed);
        }
    }
    ~Image() {
        if (image != nullptr) kuvDeallocate(image, KUV_IMAGE_ALL);
    }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;
    bool ok() const { return image != nullptr && image->imageData != nullptr; }
    KuvImage* operator->() const { return image; }
    cv::Mat mat(int type) const {
        return cv::Mat(image->height, image->width, type, image->imageData,
                       static_cast<size_t>(image->widthStep));
    }
};

double medianOf(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::nth_element(v.begin(), v.begin() + static_cast<ptrdiff_t>(v.size() / 2), v.end());
    return v[v.size() / 2];
}

// The calling thread's CPU time: on a loaded machine wall time mostly
// measures how often a call is preempted, which hits the longer side more.
double threadSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

double secondsOf(const std::function<void()>& f) {
    const double t0 = threadSeconds();
    f();
    return threadSeconds() - t0;
}

// Times kuv and its peer alternately; the iteration's time is both together.
// ratioOf turns the two medians into the case's ratio; atMost tells the
// direction of the bar.
bool timePair(benchmark::State& state, const std::function<void()>& kuv,
              const std::function<void()>& peer,
              const std::function<double(double, double)>& ratioOf, double bar, bool atMost) {
    kuvSetErrStatus(KUV_StsNoError);
    std::vector<double> tk, tp;
    for (auto _ : state) {
        const double a = secondsOf(kuv);
        benchmark::ClobberMemory();
        const double b = secondsOf(peer);
        benchmark::ClobberMemory();
        tk.push_back(a);
        tp.push_back(b);
        state.SetIterationTime(a + b);
    }
    if (kuvGetErrStatus() != KUV_StsNoError) {
        state.SkipWithError("kuv reported a fault");
        return false;
    }
    const double mk = medianOf(tk), mp = medianOf(tp);
    const double ratio = ratioOf(mk, mp);
    state.counters["kuv_us"] = mk * 1e6;
    state.counters["peer_us"] = mp * 1e6;
    state.counters["ratio"] = ratio;
    state.counters["bar"] = bar;
    state.counters["pass"] = (atMost ? ratio <= bar : ratio >= bar) ? 1.0 : 0.0;
    return true;
}

double timeRatio(double kuv, double peer) { return kuv / peer; }

// ------------------------------------------------------------ kuvAnd vs bitwise_and

void BM_logic_And_8UC3(benchmark::State& state) {
    Image a(KUV_DEPTH_8U, 3, kWidth, kHeight, 1), b(KUV_DEPTH_8U, 3, kWidth, kHeight, 2),
        d(KUV_DEPTH_8U, 3, kWidth, kHeight, 3), e(KUV_DEPTH_8U, 3, kWidth, kHeight, 4);
    if (!a.ok() || !b.ok() || !d.ok() || !e.ok()) return state.SkipWithError("no images");
    const cv::Mat ma = a.mat(CV_8UC3), mb = b.mat(CV_8UC3);
    cv::Mat me = e.mat(CV_8UC3);
    kuvAnd(a.image, b.image, d.image);
    cv::bitwise_and(ma, mb, me);
    if (cv::norm(d.mat(CV_8UC3), me, cv::NORM_INF) != 0.0) {
        return state.SkipWithError("kuvAnd differs from cv::bitwise_and");
    }
    timePair(
        state, [&] { kuvAnd(a.image, b.image, d.image); },
        [&] { cv::bitwise_and(ma, mb, me); }, timeRatio, 1.0, true);
    state.SetBytesProcessed(int64_t(state.iterations()) * 2 * 3 * a->imageSize);
}

// ------------------------------------------------------------ bit regions vs byte regions

// Bytes a region of `width` bits from bit offset `off` covers, per row.
int64_t bitRowBytes(int off, int width) { return (off + width - 1) / 8 + 1; }

void xorBits(benchmark::State& state, int offA, int offB, int offD) {
    // 5760 bytes a row in both: 46080 bits, or 5760 bytes of 8U.
    const int bitsWide = kWidth * 3 * 8;
    Image a(KUV_DEPTH_1U, 1, bitsWide, kHeight, 5), b(KUV_DEPTH_1U, 1, bitsWide, kHeight, 6),
        d(KUV_DEPTH_1U, 1, bitsWide, kHeight, 7);
    Image a8(KUV_DEPTH_8U, 1, kWidth * 3, kHeight, 8), b8(KUV_DEPTH_8U, 1, kWidth * 3, kHeight, 9),
        d8(KUV_DEPTH_8U, 1, kWidth * 3, kHeight, 10);
    if (!a.ok() || !b.ok() || !d.ok() || !a8.ok() || !b8.ok() || !d8.ok()) {
        return state.SkipWithError("no images");
    }
    const int width = bitsWide - 8;   // ends inside a byte for every offset
    a->roi = kuvCreateROI(0, offA, 0, width, kHeight);
    b->roi = kuvCreateROI(0, offB, 0, width, kHeight);
    d->roi = kuvCreateROI(0, offD, 0, width, kHeight);
    // The byte region: offset 1, as many bytes per row, so that it is the row walk too.
    const int width8 = kWidth * 3 - 2;
    for (KuvImage* image : {a8.image, b8.image, d8.image}) {
        image->roi = kuvCreateROI(0, 1, 0, width8, kHeight);
    }
    const double bitBytes = double(kHeight) * double(bitRowBytes(offA, width) +
                                                     bitRowBytes(offB, width) +
                                                     bitRowBytes(offD, width));
    const double byteBytes = double(kHeight) * 3.0 * width8;
    // ratio = (bit bytes / bit time) / (byte bytes / byte time)
    if (!timePair(
            state, [&] { kuvXor(a.image, b.image, d.image); },
            [&] { kuvXor(a8.image, b8.image, d8.image); },
            [&](double tBits, double tBytes) { return (bitBytes / tBits) / (byteBytes / tBytes); },
            0.25, false)) {
        return;
    }
    // Bytes per microsecond / 1000: GB/s.
    state.counters["bits_GBps"] = bitBytes / state.counters["kuv_us"] / 1e3;
    state.counters["bytes_GBps"] = byteBytes / state.counters["peer_us"] / 1e3;
}

void BM_logic_XorBits_off3(benchmark::State& state) { xorBits(state, 3, 3, 3); }
void BM_logic_XorBits_off3_5_0(benchmark::State& state) { xorBits(state, 3, 5, 0); }

// ------------------------------------------------------------ masked add

enum class Pattern { Random, Disc };

void addMask(benchmark::State& state, Pattern pattern) {
    Image a(KUV_DEPTH_8U, 3, kWidth, kHeight, 11), b(KUV_DEPTH_8U, 3, kWidth, kHeight, 12),
        d(KUV_DEPTH_8U, 3, kWidth, kHeight, 13), e(KUV_DEPTH_8U, 3, kWidth, kHeight, 13);
    Image m(KUV_DEPTH_1U, 1, kWidth, kHeight, 14);
    if (!a.ok() || !b.ok() || !d.ok() || !e.ok() || !m.ok()) return state.SkipWithError("no images");
    cv::Mat m8(kHeight, kWidth, CV_8UC1);
    uint32_t s = 99;
    for (int y = 0; y < kHeight; ++y) {
        auto* row = reinterpret_cast<uint8_t*>(m->imageData) + int64_t{y} * m->widthStep;
        for (int x = 0; x < kWidth; ++x) {
            bool on;
            if (pattern == Pattern::Random) {
                s = s * 1664525u + 1013904223u;
                on = (s >> 31) != 0;
            } else {
                const double dx = x - kWidth / 2.0, dy = y - kHeight / 2.0;
                on = dx * dx + dy * dy < 0.35 * kHeight * kHeight;
            }
            const auto bit = static_cast<uint8_t>(0x80u >> (x & 7));
            row[x >> 3] = static_cast<uint8_t>(on ? (row[x >> 3] | bit) : (row[x >> 3] & ~bit));
            m8.at<uint8_t>(y, x) = on ? 255 : 0;
        }
    }
    d->maskROI = m.image;
    const cv::Mat ma = a.mat(CV_8UC3), mb = b.mat(CV_8UC3);
    cv::Mat me = e.mat(CV_8UC3);
    kuvAdd(a.image, b.image, d.image);
    cv::add(ma, mb, me, m8);
    const bool same = cv::norm(d.mat(CV_8UC3), me, cv::NORM_INF) == 0.0;
    if (!same) {
        d->maskROI = nullptr;
        return state.SkipWithError("masked kuvAdd differs from cv::add with mask");
    }
    timePair(
        state, [&] { kuvAdd(a.image, b.image, d.image); },
        [&] { cv::add(ma, mb, me, m8); }, timeRatio, 1.0, true);
    d->maskROI = nullptr;   // the mask is freed on its own
}

void BM_logic_AddMask_random(benchmark::State& state) { addMask(state, Pattern::Random); }
void BM_logic_AddMask_disc(benchmark::State& state) { addMask(state, Pattern::Disc); }

// ------------------------------------------------------------ tiled add

// Tiles of 64x64 pixels held tile-major in one buffer per image, handed out
// by pointer: the cheapest procedure an application can have.
struct TileMajor {
    std::vector<char> buffer;
    int32_t cols = 0, rows = 0;
    size_t tileBytes = 0;
    int32_t rowBytes = 0;
};

TileMajor g_tiles[3];

void tileCallBack(const KuvImage* image, int32_t col, int32_t row, int32_t mode) {
    KuvTileInfo* info = image->tileInfo;
    if (mode == KUV_TILE_RELEASE) {
        info->tileData = nullptr;
        return;
    }
    TileMajor& t = g_tiles[info->id];
    info->tileData = t.buffer.data() + (size_t(row) * size_t(t.cols) + size_t(col)) * t.tileBytes;
}

// Copies an untiled image into tile-major order (or back).
void tileCopy(TileMajor& t, KuvImage* image, int tile, bool toTiles) {
    const int pixelBytes = 3;
    for (int y = 0; y < image->height; ++y) {
        for (int col = 0; col < t.cols; ++col) {
            const int x0 = col * tile;
            const int n = std::min(tile, image->width - x0);
            char* inImage = image->imageData + int64_t{y} * image->widthStep + x0 * pixelBytes;
            char* inTile = t.buffer.data() +
                           (size_t(y / tile) * size_t(t.cols) + size_t(col)) * t.tileBytes +
                           size_t(y % tile) * size_t(t.rowBytes);
            if (toTiles) std::memcpy(inTile, inImage, size_t(n * pixelBytes));
            else std::memcpy(inImage, inTile, size_t(n * pixelBytes));
        }
    }
}

void BM_logic_TiledAdd_64(benchmark::State& state) {
    constexpr int tile = 64;
    Image plain[3] = {{KUV_DEPTH_8U, 3, kWidth, kHeight, 21},
                      {KUV_DEPTH_8U, 3, kWidth, kHeight, 22},
                      {KUV_DEPTH_8U, 3, kWidth, kHeight, 23}};
    KuvImage* tiled[3] = {};
    for (int i = 0; i < 3; ++i) {
        if (!plain[i].ok()) return state.SkipWithError("no images");
        TileMajor& t = g_tiles[i];
        t.cols = (kWidth + tile - 1) / tile;
        t.rows = (kHeight + tile - 1) / tile;
        t.rowBytes = ownRowBytes(KUV_DATA_ORDER_PIXEL, KUV_DEPTH_8U, 32, 3, tile);
        t.tileBytes = size_t(t.rowBytes) * tile;
        t.buffer.assign(t.tileBytes * size_t(t.cols) * size_t(t.rows), 0);
        tileCopy(t, plain[i].image, tile, true);
        tiled[i] = kuvCreateImageHeader(3, 0, KUV_DEPTH_8U, "RGB", "BGR", KUV_DATA_ORDER_PIXEL,
                                        KUV_ORIGIN_TOP_LEFT, 32, kWidth, kHeight, nullptr,
                                        nullptr, 0, kuvCreateTileInfo(tileCallBack, i, tile, tile));
    }
    auto cleanUp = [&] {
        for (KuvImage*& image : tiled) {
            if (image != nullptr) kuvDeallocate(image, KUV_IMAGE_ALL);
            image = nullptr;
        }
    };
    kuvSetErrStatus(KUV_StsNoError);
    kuvAdd(tiled[0], tiled[1], tiled[2]);
    kuvAdd(plain[0].image, plain[1].image, plain[2].image);
    // The tiled result, back in image order, must equal the untiled one.
    Image check(KUV_DEPTH_8U, 3, kWidth, kHeight, 0);
    tileCopy(g_tiles[2], check.image, tile, false);
    if (kuvGetErrStatus() != KUV_StsNoError ||
        cv::norm(check.mat(CV_8UC3), plain[2].mat(CV_8UC3), cv::NORM_INF) != 0.0) {
        cleanUp();
        return state.SkipWithError("tiled kuvAdd differs from untiled kuvAdd");
    }
    timePair(
        state, [&] { kuvAdd(tiled[0], tiled[1], tiled[2]); },
        [&] { kuvAdd(plain[0].image, plain[1].image, plain[2].image); }, timeRatio, 1.3, true);
    cleanUp();
}

BENCHMARK(BM_logic_And_8UC3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_logic_XorBits_off3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_logic_XorBits_off3_5_0)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_logic_AddMask_random)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_logic_AddMask_disc)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_logic_TiledAdd_64)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
