// The depth family: every 8- and 16-bit value through kuvConvert, kuvScale
// and kuvScaleFP against references written from the maps, float limits,
// ties, NaN and infinities; random layouts, regions and tiles; the refusal
// texts in order, the caller's rounding mode, and the tile walks.
#include "tests/support/kuv_test.h"

#include "depth/depth.h"

#include <array>
#include <cfenv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <string>

namespace {

using namespace kuvtest;

const std::vector<uint32_t> kInt = {KUV_DEPTH_8U, KUV_DEPTH_8S, KUV_DEPTH_16U, KUV_DEPTH_16S, KUV_DEPTH_32S};
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// Every value of an 8- or 16-bit depth; for 32S the ends, the other depths'
// ends and their neighbours, and a seeded sample.
std::vector<double> valuesOf(uint32_t depth) {
    std::vector<double> v;
    for (double x = depthMin(depth); depth != KUV_DEPTH_32S && x <= depthMax(depth); ++x) v.push_back(x);
    if (depth != KUV_DEPTH_32S) return v;
    for (double e : {-2147483648.0, -65536.0, -32768.0, -256.0, -128.0, 0.0, 127.0, 255.0, 32767.0, 65535.0, 2147483647.0})
        for (double d : {-1.0, 0.0, 1.0}) v.push_back(saturateTo(depth, e + d));
    Rng rng(32);
    for (int i = 0; i < 4000; ++i) v.push_back(double(rng.uniform(INT32_MIN, INT32_MAX)));
    return v;
}

ImagePtr rowOf(uint32_t depth, const std::vector<double>& values) {
    ImagePtr image = makeImage(depth, 1, int(values.size()), 1);
    for (size_t i = 0; i < values.size(); ++i) put(image.get(), int(i), 0, 0, values[i]);
    return image;
}

// Runs op from a row of values into a row of dstDepth and compares every element
// (bit for bit) with ref, on the vector and the baseline workers.
using Op = std::function<KuvStatus(const KuvImage*, KuvImage*)>;

void expectRow(uint32_t srcDepth, uint32_t dstDepth, const std::vector<double>& values, const Op& op,
               const std::function<double(double)>& ref) {
    std::vector<double> refs;
    for (double v : values) refs.push_back(ref(v));
    ImagePtr src = rowOf(srcDepth, values), want = rowOf(dstDepth, refs);
    for (int level = kuv::depth::machineVectorLevel(); level >= 0; --level) {
        kuv::depth::setVectorLevel(level);
        ImagePtr dst = makeImage(dstDepth, 1, int(values.size()), 1);
        ReportCapture capture;
        EXPECT_EQ(op(src.get(), dst.get()), KUV_StsNoError);
        EXPECT_EQ(capture.count(), 0u);
        for (size_t i = 0, bad = 0; i < values.size() && bad < 5; ++i)
            if (getBits(dst.get(), int(i), 0, 0) != getBits(want.get(), int(i), 0, 0) && ++bad)
                ADD_FAILURE() << depthName(srcDepth) << " " << values[i] << " -> " << depthName(dstDepth) << ": "
                              << get(dst.get(), int(i), 0, 0) << ", want " << refs[i] << " at level " << level;
    }
    kuv::depth::setVectorLevel(kuv::depth::machineVectorLevel());
}

// The integer maps as written, in 64 bits (their results are exact there).
int64_t refScale(uint32_t s, uint32_t d, int64_t v) {
    using F = std::function<int64_t(int64_t)>;
    static const std::map<std::string, F> maps = {
        {"8S>8U", [](int64_t v) { return v + 128; }}, {"8S>16S", [](int64_t v) { return 257 * v + 128; }},
        {"8S>16U", [](int64_t v) { return 257 * v + 32896; }}, {"8S>32S", [](int64_t v) { return 0x01010101 * v + 0x808080; }},
        {"8U>8S", [](int64_t v) { return v - 128; }}, {"8U>16S", [](int64_t v) { return 257 * v - 32768; }},
        {"8U>16U", [](int64_t v) { return 257 * v; }}, {"8U>32S", [](int64_t v) { return 65537 * (257 * v - 32896) + 0x808080; }},
        {"16S>8S", [](int64_t v) { return (v - (v >> 8)) >> 8; }}, {"16S>8U", [](int64_t v) { return ((v - (v >> 8)) >> 8) + 128; }},
        {"16S>16U", [](int64_t v) { return v + 32768; }}, {"16S>32S", [](int64_t v) { return 65537 * v + 32768; }},
        {"16U>8S", [](int64_t v) { v -= 32768; return (v - (v >> 8)) >> 8; }},
        {"16U>8U", [](int64_t v) { v -= 32768; return ((v - (v >> 8)) >> 8) + 128; }},
        {"16U>16S", [](int64_t v) { return v - 32768; }}, {"16U>32S", [](int64_t v) { return 65537 * v - 0x80000000LL; }},
        {"32S>8S", [](int64_t v) { return (v - (v >> 8)) >> 24; }}, {"32S>8U", [](int64_t v) { return ((v - (v >> 8)) >> 24) + 128; }},
        {"32S>16S", [](int64_t v) { return (v - (v >> 16)) >> 16; }},
        {"32S>16U", [](int64_t v) { return ((v - (v >> 16)) >> 16) + 32768; }}};
    return maps.at(depthName(s) + ">" + depthName(d))(v);
}

// s and b of kuvScaleFP's table for the integer depth d and the range lo..hi.
std::pair<double, double> floatMap(uint32_t d, float lo, float hi, bool toFloat) {
    const double r = double(hi) - double(lo), span = depthMax(d) - depthMin(d);
    const double per = span == 255.0 ? 0.00392156862745098 : span == 65535.0 ? 1.5259021896696422e-05 : 2.3283064370807974e-10;
    if (toFloat) return {r * per, double(lo) - depthMin(d) * (r * per)};
    return {span / r, depthMin(d) - double(lo) * (span / r)};
}

double refToInt(uint32_t d, float lo, float hi, double x) {
    if (std::isnan(x) || x < lo) return depthMin(d);   // NaN: the lowest value (our choice)
    if (x > hi) return depthMax(d);
    const auto [s, b] = floatMap(d, lo, hi, false);
    return saturateTo(d, std::nearbyint(s * x + b));
}

const std::pair<float, float> kRanges[] = {{0.0f, 1.0f}, {-1.0f, 1.0f}, {0.0f, 255.0f}, {-3.5f, 1000.0f}, {1e-3f, 2e-3f}, {-1e30f, 1e30f}};

const Op convertOp = [](const KuvImage* s, KuvImage* d) { kuvConvert(s, d); return kuvGetErrStatus(); };

TEST(ConvertValues, EveryValueToEveryIntegerDepthSaturates) {
    for (uint32_t s : kInt)
        for (uint32_t d : kInt) expectRow(s, d, valuesOf(s), convertOp, [d](double v) { return saturateTo(d, v); });
}

// Pixel order into planes and back, 3 and 4 channels, at every level: rows
// long enough for the vector loops, with a tail, padding and turned over.
TEST(ConvertValues, PixelOrderToPlanesAndBackAtEveryLevel) {
    for (int level = kuv::depth::machineVectorLevel(); level >= 0; --level) {
        kuv::depth::setVectorLevel(level);
        for (uint32_t sd : kInt)
            for (uint32_t dd : kInt)
                for (int n : {3, 4})
                    for (int order : {KUV_DATA_ORDER_PIXEL, KUV_DATA_ORDER_PLANE}) {
                        SCOPED_TRACE(::testing::Message() << depthName(sd) << " -> " << depthName(dd) << " " << n << " channels, source order "
                                                          << order << ", level " << level);
                        ImagePtr src = makeImage(sd, n, 203, 3, order), dst = makeImage(dd, n, 203, 3, 1 - order);
                        fillRandom(src.get(), sd * 7 + dd + uint64_t(n));
                        dst->origin = 1;
                        kuvConvert(src.get(), dst.get());
                        for (int y = 0, bad = 0; y < 3; ++y)
                            for (int x = 0; x < 203; ++x)
                                for (int c = 0; c < n && bad < 3; ++c)
                                    if (get(dst.get(), x, 2 - y, c) != saturateTo(dd, get(src.get(), x, y, c)) && ++bad)
                                        ADD_FAILURE() << "at " << x << "," << y << " channel " << c;
                    }
    }
    kuv::depth::setVectorLevel(kuv::depth::machineVectorLevel());
}

TEST(ScaleValues, EveryValueThroughTheIntegerMaps) {
    for (uint32_t s : kInt)
        for (uint32_t d : kInt)
            if (s != d) expectRow(s, d, valuesOf(s), kuvScale, [s, d](double v) { return double(refScale(s, d, int64_t(v))); });
}

Op scaleFP(float lo, float hi) {
    return [lo, hi](const KuvImage* s, KuvImage* d) { return kuvScaleFP(s, d, lo, hi); };
}

TEST(ScaleFPValues, EveryIntegerValueToFloatRoundedOnce) {
    for (uint32_t s : kInt) {
        std::vector<double> v = valuesOf(s);
        for (size_t i = 0; v.size() < 17 * 256 + 5; ++i) v.push_back(v[i * 7 % 256]);   // long enough for a table of bytes
        for (auto [lo, hi] : kRanges)
            expectRow(s, KUV_DEPTH_32F, v, scaleFP(lo, hi), [m = floatMap(s, lo, hi, true)](double v) { return double(float(m.first * v + m.second)); });
    }
}

TEST(ScaleFPValues, LargeByteImagesGiveTheSameFloatsAtEveryLevel) {
    // Rows without padding make one run of more than 8 MiB of floats.
    ImagePtr src = makeImage(KUV_DEPTH_8S, 3, 1032, 701), want = makeImage(KUV_DEPTH_32F, 3, 1032, 701);
    fillRandom(src.get(), 5);
    for (int level = 0; level <= kuv::depth::machineVectorLevel(); ++level) {
        kuv::depth::setVectorLevel(level);
        ImagePtr got = makeLike(want.get());
        EXPECT_EQ(kuvScaleFP(src.get(), level ? got.get() : want.get(), -0.75f, 3.0f), 0);
        EXPECT_TRUE(!level || std::memcmp(got->imageData, want->imageData, size_t(want->imageSize)) == 0) << "level " << level;
    }
    const auto [a, b] = floatMap(KUV_DEPTH_8S, -0.75f, 3.0f, true);
    EXPECT_EQ(get(want.get(), 1031, 700, 2), float(a * get(src.get(), 1031, 700, 2) + b));
}

TEST(ScaleFPValues, FloatToIntegerWithLimitsTiesNaNAndInfinities) {
    Rng rng(7);
    for (uint32_t d : kInt) {
        for (auto [lo, hi] : kRanges) {
            std::vector<double> x = {kNaN, kInf, -kInf, -0.0, lo, hi, std::nextafter(lo, -kInf), std::nextafter(hi, kInf),
                                     std::nextafter(lo, kInf), std::nextafter(hi, -kInf), -3e38, 3e38};
            const auto [s, b] = floatMap(d, lo, hi, false);
            for (int i = 0; i < 3000; ++i) {
                const double k = double(rng.uniform(int64_t(depthMin(d)), int64_t(depthMax(d))));
                x.push_back(float(i % 2 ? (k + 0.5 - b) / s : rng.real(lo, hi)));   // near ties
            }
            expectRow(KUV_DEPTH_32F, d, x, scaleFP(lo, hi), [d, lo = lo, hi = hi](double v) { return refToInt(d, lo, hi, v); });
        }
    }
}

TEST(ScaleFPRounding, CallerModeStaysAndTheCallRoundsToNearestEven) {
    ImagePtr f = rowOf(KUV_DEPTH_32F, {2.5, 3.5, -2.5, 0.5}), i = makeImage(KUV_DEPTH_16S, 1, 4, 1);
    ImagePtr u = rowOf(KUV_DEPTH_16U, valuesOf(KUV_DEPTH_8U)), g = makeImage(KUV_DEPTH_32F, 1, 256, 1);
    ReportCapture capture;
    for (int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
        ASSERT_EQ(std::fesetround(mode), 0);
        EXPECT_EQ(kuvScaleFP(f.get(), i.get(), -32768.0f, 32767.0f) + kuvScaleFP(u.get(), g.get(), 0.0f, 1.0f), 0);
        EXPECT_EQ(kuvScaleFP(f.get(), f.get(), 0.0f, 1.0f) + kuvScaleFP(u.get(), g.get(), 1.0f, 1.0f), 2 * KUV_StsBadArgument);
        EXPECT_EQ(std::fegetround(), mode);
        std::fesetround(FE_TONEAREST);
        for (int k = 0; k < 4; ++k) EXPECT_EQ(get(i.get(), k, 0, 0), (std::array{2, 4, -2, 0}[size_t(k)]));
        for (int k = 0; k < 256; ++k) ASSERT_EQ(get(g.get(), k, 0, 0), float(k * 1.5259021896696422e-05)) << k;
    }
}

// ------------------------------------------------------------------ layouts

struct Tiled { std::unique_ptr<TileStore> store; KuvImage *arg, *pixels; };

Tiled tiled(const KuvImage* plain, int tw, int th) {
    if (tw == 0) return {nullptr, const_cast<KuvImage*>(plain), const_cast<KuvImage*>(plain)};
    ImagePtr backing = copyImage(plain);
    clearRoi(backing.get());
    auto store = std::make_unique<TileStore>(std::move(backing), tw, th);
    if (const KuvROI* r = plain->roi) setRoi(store->image(), r->coi, r->xOffset, r->yOffset, r->width, r->height);
    KuvImage *arg = store->image(), *pixels = store->backing();
    return {std::move(store), arg, pixels};
}

std::vector<int> channelsOf(const KuvImage* im) {   // coi alone, or all but alpha
    if (im->roi && im->roi->coi) return {im->roi->coi - 1};
    std::vector<int> c;
    for (int k = 0; k < im->nChannels - (im->alphaChannel ? 1 : 0); ++k) c.push_back(k);
    return c;
}

// Random pairs for each operation: depths, orders, origins, regions,
// channels of interest, alpha and tiles, against the element rules. What
// an operation may not write keeps the random canary, padding included.
TEST(DepthLayout, RandomPairsMatchTheElementRules) {
    for (uint64_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        Rng rng(seed);
        const int op = int(seed % 4);   // convert, scale, float scale, bitonal
        auto pick = [&] { return kInt[size_t(rng.uniform(0, 4))]; };
        uint32_t sd = op == 3 ? KUV_DEPTH_1U : pick(), dd = pick();
        while (op == 1 && dd == sd) dd = pick();
        if (op == 2 && rng.chance(0.5)) sd = KUV_DEPTH_32F; else if (op == 2) dd = KUV_DEPTH_32F;
        const bool toBits = op == 0 && rng.chance(0.2), sized = op == 0 || op == 3;
        int sn = op == 3 ? 1 : int(rng.uniform(1, 4)), sa = sn > 1 && op && rng.chance(0.3) ? sn : 0;
        const bool coi = op == 1 || op == 2 ? rng.chance(0.3) : toBits && sn > 1;
        const int count = coi ? 1 : sn - (sa ? 1 : 0), da = !sized && rng.chance(0.3) ? count + 1 : op == 3 && rng.chance(0.5) ? 4 : 0;
        const int dn = toBits ? 1 : op == 0 ? sn : op == 3 ? (da ? 4 : int(rng.uniform(1, 3))) : count + (da ? 1 : 0);
        const int w = int(rng.uniform(1, 40)), h = int(rng.uniform(1, 20));
        ImagePtr src = makeImage(sd, sn, w, h, int(rng.uniform(0, 1)), sa);
        ImagePtr dst = makeImage(toBits ? KUV_DEPTH_1U : dd, dn, sized ? w : int(rng.uniform(1, 40)), sized ? h : int(rng.uniform(1, 20)),
                                 sized || sn == 1 || dn == 1 ? int(rng.uniform(0, 1)) : src->dataOrder, da);
        fillRandom(src.get(), rng.next());
        fillRandom(dst.get(), rng.next());
        src->origin = int(rng.uniform(0, 1));
        dst->origin = sized ? int(rng.uniform(0, 1)) : src->origin;
        for (KuvImage* im : {src.get(), dst.get()})
            if ((coi && im == src.get()) || rng.chance(0.5))
                setRoi(im, coi && (im == src.get() || dn > 1) ? int(rng.uniform(1, im->nChannels)) : 0, int(rng.uniform(0, im->width - 1)),
                       int(rng.uniform(0, im->height - 1)), int(rng.uniform(1, im->width + 2)), int(rng.uniform(1, im->height + 2)));
        const float lo = float(rng.real(-5, 5)), hi = lo + float(rng.real(0.01, 300));
        const int32_t zero = dd & KUV_DEPTH_SIGN ? -3 : 201, one = dd & KUV_DEPTH_SIGN ? -77 : 77;
        // The expected destination.
        ImagePtr want = copyImage(dst.get());
        const bool flip = sized && src->origin != dst->origin;
        std::vector<int> sc = channelsOf(src.get()), dc = channelsOf(dst.get());
        int x0 = 0, y0 = 0, u0 = 0, v0 = 0, rw = w, rh = h;
        if (sized) {   // whole images, every channel (bitonal: all but alpha)
            sc.assign(size_t(toBits ? 1 : dn - (op == 3 && da ? 1 : 0)), toBits && src->roi && src->roi->coi ? src->roi->coi - 1 : 0);
            dc.resize(sc.size());
            for (size_t k = 0; k < sc.size(); ++k) dc[k] = int(k), sc[k] += toBits || op == 3 ? 0 : int(k);
        } else {
            auto clip = [](const KuvImage* im, int& x, int& y, int& cw, int& ch) {
                x = im->roi ? im->roi->xOffset : 0, y = im->roi ? im->roi->yOffset : 0;
                cw = std::min(cw, im->roi ? std::min(im->roi->width, im->width - x) : im->width);
                ch = std::min(ch, im->roi ? std::min(im->roi->height, im->height - y) : im->height);
            };
            rw = rh = INT32_MAX;
            clip(src.get(), x0, y0, rw, rh);
            clip(dst.get(), u0, v0, rw, rh);
        }
        for (int j = 0; j < rh; ++j)
            for (int i = 0; i < rw; ++i)
                for (size_t k = 0; k < sc.size(); ++k) {
                    const double v = get(src.get(), x0 + i, y0 + j, sc[k]);
                    double r = saturateTo(dd, v);
                    if (toBits) r = sd & KUV_DEPTH_SIGN ? v > 0 : v != 0;
                    if (op == 1) r = double(refScale(sd, dd, int64_t(v)));
                    if (op == 2 && sd == KUV_DEPTH_32F) r = refToInt(dd, lo, hi, v);
                    if (op == 2 && dd == KUV_DEPTH_32F) r = float(floatMap(sd, lo, hi, true).first * v + floatMap(sd, lo, hi, true).second);
                    if (op == 3) r = v ? one : zero;
                    put(want.get(), u0 + i, flip ? h - 1 - j : v0 + j, dc[k], r);
                }
        Tiled s = tiled(src.get(), rng.chance(0.3) ? 8 * int(rng.uniform(1, 3)) : 0, 8), d = tiled(dst.get(), rng.chance(0.3) ? 8 : 0, 16);
        ReportCapture capture;
        KuvStatus got = 0;
        if (op == 0) kuvConvert(s.arg, d.arg);
        if (op == 1) got = kuvScale(s.arg, d.arg);
        if (op == 2) got = kuvScaleFP(s.arg, d.arg, lo, hi);
        if (op == 3) kuvBitonalToGray(s.arg, d.arg, zero, one);
        EXPECT_EQ(got, 0);
        ASSERT_EQ(capture.count(), 0u) << capture.reports()[0];
        EXPECT_EQ(std::memcmp(d.pixels->imageData, want->imageData, size_t(want->imageSize)), 0) << "op " << op;
        for (Tiled* t : {&s, &d}) EXPECT_TRUE(!t->store || (t->store->held() == 0 && t->store->faults().empty()));
    }
}

// A one-channel alpha image is left alone: quiet, nothing written, status kept.
TEST(DepthLayout, OneAlphaChannelIsAQuietReturn) {
    ImagePtr src = makeImage(KUV_DEPTH_8U, 3, 9, 7), alpha = makeImage(KUV_DEPTH_16S, 1, 9, 7, 0, 1), f = makeImage(KUV_DEPTH_32F, 1, 9, 7);
    const RefusalGuard guard(alpha.get());
    ReportCapture capture;
    kuvSetErrStatus(-33);
    EXPECT_EQ(kuvScale(src.get(), alpha.get()) + kuvScaleFP(f.get(), alpha.get(), 0.0f, 1.0f), 0);
    EXPECT_EQ(kuvGetErrStatus(), -33);
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_TRUE(guard.intact());
}

TEST(MinMaxValues, ChannelsRegionsNaNsInfinitiesAndSignedZeros) {
    const struct { int ch, order, alpha, coi, x, y; } cases[] = {
        {1, 0, 0, 0, 0, 0}, {3, 0, 0, 0, 2, 1}, {3, 1, 0, 0, 0, 0}, {4, 0, 4, 0, 1, 0}, {4, 1, 4, 4, 3, 2}, {3, 0, 0, 2, 0, 3}};
    Rng rng(11);
    for (int level = 0; level < (kuv::depth::machineVectorLevel() + 1) * 6; ++level) {
        const auto& t = cases[level % 6];
        kuv::depth::setVectorLevel(level / 6);
        ImagePtr image = makeImage(KUV_DEPTH_32F, t.ch, 45, 6, t.order, t.alpha);
        fillRandomRange(image.get(), uint64_t(t.ch * 10 + t.coi), -100, 100);
        if (t.x + t.y + t.coi) setRoi(image.get(), t.coi, t.x, t.y, 99, 99);
        const int first = t.coi ? t.coi - 1 : 0, last = t.coi ? t.coi : t.ch - (t.alpha ? 1 : 0);
        for (double v : {-1e7, 1e7, kNaN, -kInf, kInf}) {
            put(image.get(), int(rng.uniform(0, 44)), int(rng.uniform(0, 5)), int(rng.uniform(0, t.ch - 1)), v);
            double lo = kInf, hi = -kInf;
            for (int k = 0; k < (6 - t.y) * (45 - t.x) * (last - first); ++k) {   // NaNs take no part (our choice)
                const double e = get(image.get(), t.x + k / (last - first) % (45 - t.x), t.y + k / (last - first) / (45 - t.x), first + k % (last - first));
                lo = e < lo ? e : lo, hi = e > hi ? e : hi;
            }
            float got[2] = {0, 0};
            EXPECT_EQ(kuvMinMaxFP(image.get(), &got[0], &got[1]), 0);
            EXPECT_TRUE(got[0] == lo && got[1] == hi) << got[0] << " " << got[1];
        }
    }
    float lo = 0, hi = 0;
    // Zeros whose first met is +0 among -0s, in a run that lanes share out.
    ImagePtr gray = makeImage(KUV_DEPTH_32F, 1, 40, 2, KUV_DATA_ORDER_PLANE);
    for (int x = 0; x < 40; ++x) put(gray.get(), x, 1, 0, x == 2 ? 0.0 : -0.0);
    put(gray.get(), 1, 1, 0, kNaN);   // also as the first element
    setRoi(gray.get(), 1, 1, 1, 100, 100);
    EXPECT_EQ(kuvMinMaxFP(gray.get(), &lo, &hi), 0);
    EXPECT_TRUE(lo == 0.0f && hi == 0.0f && !std::signbit(lo) && !std::signbit(hi));
    for (int x = 0; x < 40; ++x) put(gray.get(), x, 1, 0, kNaN);
    EXPECT_EQ(kuvMinMaxFP(gray.get(), &lo, &hi), 0);
    EXPECT_TRUE(std::isnan(lo) && std::isnan(hi));   // only NaNs
    setRoi(gray.get(), 0, 40, 0, 5, 5);   // empty: untouched
    lo = hi = 42;
    EXPECT_EQ(kuvMinMaxFP(gray.get(), &lo, &hi), 0);
    EXPECT_EQ(lo + hi, 84);
}

// ------------------------------------------------------------------ refusals

// Each row spoils a valid pair (one channel, 9 x 4, the function's depths) and
// also breaks later rules where it can, so that the order shows.
struct Refusal {
    const char* text;
    KuvStatus status;
    std::function<void(KuvImage*, KuvImage*)> spoil;
};
using Pair = std::function<KuvStatus(KuvImage*, KuvImage*)>;

void expectRefusals(const char* func, const char* file, uint32_t sd, uint32_t dd, KuvStatus ret, const Pair& op,
                    const std::vector<Refusal>& cases) {
    for (const Refusal& r : cases) {
        ImagePtr s = makeImage(sd, 1, 9, 4), d = makeImage(dd, 1, 9, 4);
        r.spoil(s.get(), d.get());
        const RefusalGuard guard(s.get(), d.get());
        ReportCapture capture;
        EXPECT_EQ(op(s.get(), d.get()), ret) << r.text;
        EXPECT_TRUE(oneReport(capture, r.status, func, r.text, file));
        EXPECT_TRUE(guard.intact());
    }
}

auto depths(uint32_t s, uint32_t d) { return [s, d](KuvImage* a, KuvImage* b) { a->depth = s, b->depth = d; }; }
void badAlign(KuvImage* a, KuvImage*) { a->align = 3; }
void none(KuvImage*, KuvImage*) {}

TEST(DepthRefusals, TextsInOrderAndTheStatusReturned) {
    expectRefusals("kuvConvert", "kuvcvrt", KUV_DEPTH_8U, KUV_DEPTH_16S, 0, [](KuvImage* a, KuvImage* b) { kuvConvert(a, b); return KuvStatus(0); }, {
        {"Incorrect Image", KUV_StsBadAlign, badAlign},
        {"Incorrect Image", KUV_StsBadAlign, [](KuvImage*, KuvImage* b) { b->align = 3; }},
        {"(srcImage->depth == 32)", -5, depths(32, 32)},
        {"(dstImage->depth == 32)", -5, depths(8, 32)},
        {"(srcImage->height != dstImage->height)", -5, [](KuvImage* a, KuvImage*) { a->height = 3, a->width = 2; }},
        {"(srcImage->width != dstImage->width)", -5, [](KuvImage* a, KuvImage*) { a->width = 8; }},
        {"(srcImage->roi == 0)", -5, [](KuvImage* a, KuvImage* b) { a->nChannels = 2, b->depth = 1; }},
        {"(srcImage->roi->coi == 0)", -5, [](KuvImage* a, KuvImage* b) { a->nChannels = 2, b->depth = 1, setRoi(a, 0, 0, 0, 1, 1); }},
        {"srcImage->nChannels != dstImage->nChannels", -5, [](KuvImage* a, KuvImage* b) { a->nChannels = 2, b->depth = 16; }},
        {"((srcImage->depth == 1) && (srcImage->depth != dstImage->depth))", -5, depths(1, 8)}});
    const std::vector<Refusal> tail = {
        {"((srcImage->dataOrder != dstImage->dataOrder)&& ((srcImage->nChannels != 1)&&(dstImage->nChannels != 1)))", -5,
         [](KuvImage* a, KuvImage* b) { a->nChannels = b->nChannels = 2, b->dataOrder = 1; }},
        {"(srcImage->origin != dstImage->origin)", -5, [](KuvImage* a, KuvImage*) { a->origin = 1; }}};
    std::vector<Refusal> scale = {
        {"Incorrect Image", KUV_StsBadAlign, badAlign}, {"(srcImage->depth == dstImage->depth)", -5, depths(16, 16)},
        {"(srcImage->depth == 1)", -5, depths(1, 8)}, {"(srcImage->depth == 32)", -5, depths(32, 8)},
        {"(dstImage->depth == 1)", -5, depths(8, 1)}, {"(dstImage->depth == 32)", -5, depths(8, 32)}};
    scale.insert(scale.end(), tail.begin(), tail.end());
    scale.push_back({"(srcChannels != dstChannels)", -5, [](KuvImage* a, KuvImage*) { a->nChannels = 2; }});
    expectRefusals("kuvScale", "kuvscale", KUV_DEPTH_8U, KUV_DEPTH_16U, -5, kuvScale, scale);
    std::vector<Refusal> fp = {
        {"Incorrect Image", KUV_StsBadAlign, badAlign},
        {"((srcImage->depth != 32)&& (dstImage->depth != 32))", -5, depths(8, 16)},
        {"((srcImage->depth == 32)&& (dstImage->depth == 32))", -5, depths(32, 32)},
        {"((srcImage->depth == 1)|| (dstImage->depth == 1))", -5, depths(32, 1)}};
    fp.insert(fp.end(), tail.begin(), tail.end());
    fp.push_back({"(buf[9] != buf[10])", -5, [](KuvImage*, KuvImage* b) { b->nChannels = 2; }});
    expectRefusals("kuvScaleFP", "Kuvsclfp", KUV_DEPTH_8U, KUV_DEPTH_32F, -5, scaleFP(0.0f, 1.0f), fp);
    for (float lo : {2.0f, 1.0f})
        expectRefusals("kuvScaleFP", "Kuvsclfp", KUV_DEPTH_8U, KUV_DEPTH_32F, -5, scaleFP(lo, 1.0f), {{"((maxVal - minVal) <= 0.0f)", -5, none}});
    float v = 0;
    expectRefusals("kuvMinMaxFP", "kuvmnmxf", KUV_DEPTH_32F, KUV_DEPTH_32F, -5, [&v](KuvImage* a, KuvImage* b) { return kuvMinMaxFP(a, b->depth == 8 ? nullptr : &v, &v); }, {
        {"Incorrect Image", KUV_StsBadAlign, badAlign},
        {"((min == ((void*)(0)))||(max == ((void*)(0))))", -5, depths(32, 8)},
        {"(srcImage->depth != 32)", -5, depths(16, 32)}});
}

TEST(DepthRefusals, BitonalTextsInOrderWithTheValueRanges) {
    const auto bitonal = [](int32_t zero, int32_t one) {
        return [zero, one](KuvImage* a, KuvImage* b) { kuvBitonalToGray(a, b, zero, one); return KuvStatus(0); };
    };
    expectRefusals("kuvBitonalToGray", "kuvbitnl", KUV_DEPTH_1U, KUV_DEPTH_8U, 0, bitonal(0, 1), {
        {"Incorrect Image", KUV_StsBadAlign, badAlign},
        {"(srcImage->height != dstImage->height)", -5, [](KuvImage* a, KuvImage*) { a->height = 2, a->width = 3; }},
        {"(srcImage->width != dstImage->width)", -5, [](KuvImage* a, KuvImage*) { a->width = 3; }},
        {"(srcImage->nChannels != 1)", -5, [](KuvImage* a, KuvImage*) { a->nChannels = 2, a->depth = 8; }},
        {"(srcImage->depth != 1)", -5, depths(8, 32)},
        {"(dstImage->depth == 32)", -5, depths(1, 32)},
        {"(dstImage->depth == 1)", -5, depths(1, 1)}});
    const struct { uint32_t d; const char* form; int32_t lo, hi; } ranges[] = {
        {KUV_DEPTH_8S, "(0x80000000| 8)", -128, 127}, {KUV_DEPTH_8U, "8", 0, 255},
        {KUV_DEPTH_16S, "(0x80000000|16)", -32768, 32767}, {KUV_DEPTH_16U, "16", 0, 65535}};
    for (const auto& r : ranges) {
        const int32_t probes[4][2] = {{r.hi + 1, r.lo - 1}, {r.lo - 1, r.hi + 1}, {r.hi, r.hi + 1}, {r.lo, r.lo - 1}};
        const char* what[4] = {"(ZeroScale > %d)", "(ZeroScale < %d)", "(OneScale > %d)", "(OneScale < %d)"};
        for (int k = 0; k < 4; ++k) {
            char test[64], text[128];
            std::snprintf(test, sizeof test, what[k], k % 2 ? r.lo : r.hi);
            std::snprintf(text, sizeof text, "((dstImage->depth == %s) && %s)", r.form, test);
            expectRefusals("kuvBitonalToGray", "kuvbitnl", KUV_DEPTH_1U, r.d, 0, bitonal(probes[k][0], probes[k][1]), {{text, -5, none}});
        }
    }
    ImagePtr s = makeMask(3, 1), d = makeImage(KUV_DEPTH_32S, 1, 3, 1);
    ReportCapture capture;
    kuvBitonalToGray(s.get(), d.get(), INT32_MIN, INT32_MAX);   // 32S: no limit
    EXPECT_EQ(capture.count(), 0u);
    EXPECT_EQ(get(d.get(), 2, 0, 0), INT32_MIN);
}

// ------------------------------------------------------------------ tiles

TEST(ConvertTiles, PiecesInsideBothTilesInTheOrderOfTheWalk) {
    ImagePtr src = makeImage(KUV_DEPTH_16U, 1, 16, 16), dst = makeImage(KUV_DEPTH_8S, 1, 16, 16);
    fillRandom(src.get(), 2);
    dst->origin = KUV_ORIGIN_BOTTOM_LEFT;
    Tiled s = tiled(src.get(), 8, 8), d = tiled(dst.get(), 16, 8);
    TileStore::clearCalls();
    kuvConvert(s.arg, d.arg);
    using C = TileStore::Call;
    const int S = s.store->id(), D = d.store->id(), R = KUV_TILE_READ, W = KUV_TILE_WRITE, X = KUV_TILE_RELEASE;
    const std::vector<C> want = {{D, {0, 1, W}}, {S, {0, 0, R}}, {S, {0, 0, X}}, {S, {1, 0, R}},
                                 {D, {0, 1, X}}, {D, {0, 0, W}}, {S, {1, 0, X}}, {S, {0, 1, R}},
                                 {S, {0, 1, X}}, {S, {1, 1, R}}, {D, {0, 0, X}}, {S, {1, 1, X}}};
    EXPECT_EQ(TileStore::calls(), want);
    for (int y = 0; y < 16; ++y) for (int x = 0; x < 16; ++x) ASSERT_EQ(get(d.pixels, x, 15 - y, 0), std::min(127.0, get(src.get(), x, y, 0)));
}

TEST(ScaleTiles, AFailedRequestReportsAndReleasesWhatIsHeld) {
    ImagePtr a = makeImage(KUV_DEPTH_16U, 1, 20, 20), b = makeImage(KUV_DEPTH_8U, 1, 20, 20);
    for (int k = 1; k <= 4; ++k) {
        for (int who = 0; who < 2; ++who) {
            Tiled s = tiled(a.get(), 8, 8), d = tiled(b.get(), 16, 8);
            TileStore& failing = who ? *d.store : *s.store;
            const char* text = who ? "(dstImage->tileInfo->tileData == NULL)" : "(srcImage->tileInfo->tileData == NULL)";
            for (int op = 0; op < 2; ++op) {
                failing.failRequest(k);
                ReportCapture capture;
                if (op == 0) EXPECT_EQ(kuvScale(s.arg, d.arg), KUV_StsOutOfMemory);
                else kuvConvert(s.arg, d.arg);
                EXPECT_TRUE(oneReport(capture, -5, op ? "kuvConvert" : "kuvScale", text, op ? "kuvcvrt" : "kuvscale"));
                EXPECT_EQ(s.store->held() + d.store->held(), 0);
                EXPECT_TRUE(s.store->faults().empty() && d.store->faults().empty());
            }
        }
    }
    // A negative status after a granted tile stops kuvScale too.
    Tiled s = tiled(a.get(), 8, 8);
    kuvSetErrStatus(-3);
    EXPECT_EQ(kuvScale(s.arg, b.get()), KUV_StsOutOfMemory);
    EXPECT_EQ(s.store->log().size(), 2u);
    kuvSetErrStatus(0);
}

TEST(MinMaxTiles, TilesInColumnOrderOneAtATime) {
    ImagePtr plain = makeImage(KUV_DEPTH_32F, 1, 20, 12);
    fillRandomRange(plain.get(), 4, -9, 9);
    setRoi(plain.get(), 0, 5, 3, 100, 100);
    Tiled t = tiled(plain.get(), 8, 8);
    float lo = 0, hi = 0, plo = 0, phi = 0;
    EXPECT_EQ(kuvMinMaxFP(t.arg, &lo, &hi) + kuvMinMaxFP(plain.get(), &plo, &phi), 0);
    EXPECT_TRUE(lo == plo && hi == phi);
    using R = TileStore::Request;
    const std::vector<R> want = {{0, 0, 1}, {0, 0, 4}, {1, 0, 1}, {1, 0, 4}, {2, 0, 1}, {2, 0, 4},
                                 {0, 1, 1}, {0, 1, 4}, {1, 1, 1}, {1, 1, 4}, {2, 1, 1}, {2, 1, 4}};
    EXPECT_EQ(t.store->log(), want);
    t.store->clearLog();
    t.store->failRequest(3);
    lo = hi = 42;
    ReportCapture capture;
    EXPECT_EQ(kuvMinMaxFP(t.arg, &lo, &hi), KUV_StsOutOfMemory);
    EXPECT_TRUE(oneReport(capture, -5, "kuvMinMaxFP", "(srcImage->tileInfo->tileData == NULL)", "kuvmnmxf"));
    EXPECT_EQ(lo + hi, 84);
    EXPECT_EQ(t.store->held(), 0);
}

}  // namespace
