// The depth family: every 8- and 16-bit value at every vector level against the maps, float limits and ties,
// random layouts, regions and tiles, the refusal texts in order, the caller's rounding mode, the tile walks.
#include "tests/support/kuv_test.h"

#include "depth/depth.h"

#include <cfenv>
#include <cmath>
#include <cstring>

namespace {

using namespace kuvtest;

const std::vector<uint32_t> kInt = {KUV_DEPTH_8U, KUV_DEPTH_8S, KUV_DEPTH_16U, KUV_DEPTH_16S, KUV_DEPTH_32S};
const double kNaN = NAN, kInf = INFINITY;
// The processor's level, asked at run time: a constant made at load could be
// made before the library's own reading of the processor.
int top() { return kuv::depth::machineVectorLevel(); }

// Every value of an 8- or 16-bit depth; for 32S the ends of every depth, their neighbours and a seeded sample.
std::vector<double> valuesOf(uint32_t depth) {
    std::vector<double> v;
    for (double x = depthMin(depth); depth != KUV_DEPTH_32S && x <= depthMax(depth); ++x) v.push_back(x);
    if (depth != KUV_DEPTH_32S) return v;
    for (double e : {-2147483648.0, -65536.0, -32768.0, -256.0, -128.0, 0.0, 127.0, 255.0, 32767.0, 65535.0, 2147483647.0})
        for (double d : {-1.0, 0.0, 1.0}) v.push_back(saturateTo(depth, e + d));
    for (Rng rng(32); v.size() < 33 + 4000;) v.push_back(double(rng.uniform(INT32_MIN, INT32_MAX)));
    return v;
}

ImagePtr rowOf(uint32_t depth, const std::vector<double>& values) {
    ImagePtr image = makeImage(depth, 1, int(values.size()), 1);
    for (size_t i = 0; i < values.size(); ++i) put(image.get(), int(i), 0, 0, values[i]);
    return image;
}

void atEveryLevel(const std::function<void(int)>& body) {
    for (int level = top(); level >= 0; --level) kuv::depth::setVectorLevel(level), body(level);
    kuv::depth::setVectorLevel(top());
}

// Runs op from a row of values into a row of dstDepth at every level, each under a caller's rounding mode other
// than to nearest, which must stay; every element bit for bit as ref gives it (in the mode to nearest).
using Op = std::function<KuvStatus(const KuvImage*, KuvImage*)>;

void expectRow(uint32_t srcDepth, uint32_t dstDepth, std::vector<double> values, const Op& op, const std::function<double(double)>& ref) {
    ImagePtr src = rowOf(srcDepth, values);
    for (double& v : values) v = ref(v);
    ImagePtr want = rowOf(dstDepth, values);
    atEveryLevel([&](int level) {
        ImagePtr dst = makeLike(want.get());
        ReportCapture capture;
        const int mode = std::vector{FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}[size_t(level % 3)];
        ASSERT_EQ(std::fesetround(mode), 0);
        EXPECT_TRUE(op(src.get(), dst.get()) == 0 && capture.count() == 0);
        EXPECT_EQ(std::fegetround(), mode);
        std::fesetround(FE_TONEAREST);
        for (size_t i = 0, bad = 0; i < values.size() && bad < 5; ++i)
            if (getBits(dst.get(), int(i), 0, 0) != getBits(want.get(), int(i), 0, 0) && ++bad)
                ADD_FAILURE() << depthName(srcDepth) << " " << get(src.get(), int(i), 0, 0) << " -> " << depthName(dstDepth) << ": "
                              << get(dst.get(), int(i), 0, 0) << ", want " << values[i] << " at level " << level;
    });
}

// The integer maps in 64 bits, where they are exact: each row of the table is the signed map between the two
// widths, applied after an unsigned source is moved to signed, then the destination's offset added.
int64_t refScale(uint32_t s, uint32_t d, int64_t v) {
    const auto offset = [](uint32_t k) { return k & KUV_DEPTH_SIGN ? 0 : int64_t{1} << (depthBits(k) - 1); };
    const int64_t w = v - offset(s), a = depthBits(s), b = depthBits(d);
    return offset(d) + (a < b   ? (b == 16 ? 257 * w + 128 : a == 8 ? 0x01010101 * w + 0x808080 : 65537 * w + 32768)
                        : a > b ? (w - (w >> (b == 16 ? 16 : 8))) >> (a - b) : w);
}

// s and b of kuvScaleFP's table for the integer depth d and the range lo..hi.
std::pair<double, double> floatMap(uint32_t d, float lo, float hi, bool toFloat) {
    const double r = double(hi) - double(lo), span = depthMax(d) - depthMin(d);
    const double per = span == 255.0 ? 0.00392156862745098 : span == 65535.0 ? 1.5259021896696422e-05 : 2.3283064370807974e-10;
    if (toFloat) return {r * per, double(lo) - depthMin(d) * (r * per)};
    return {span / r, depthMin(d) - double(lo) * (span / r)};
}

double refToFloat(uint32_t d, float lo, float hi, double v) { return float(floatMap(d, lo, hi, true).first * v + floatMap(d, lo, hi, true).second); }

double refToInt(uint32_t d, float lo, float hi, double x) {
    if (std::isnan(x) || x < lo || x > hi) return x > hi ? depthMax(d) : depthMin(d);   // NaN: the lowest value (our choice)
    const auto [s, b] = floatMap(d, lo, hi, false);
    return saturateTo(d, std::nearbyint(s * x + b));
}

Op scaleFP(float lo, float hi) { return [lo, hi](const KuvImage* s, KuvImage* d) { return kuvScaleFP(s, d, lo, hi); }; }

// Pixel order into planes and back, 3 and 4 channels: rows long enough for the vector loops, a tail, padding.
TEST(DepthValues, EveryValueThroughConvertAndTheIntegerMapsAndPixelOrderToPlanesAndBack) {
    const Op convert = [](const KuvImage* s, KuvImage* d) { kuvConvert(s, d); return kuvGetErrStatus(); };
    for (uint32_t sd : kInt)
        for (uint32_t dd : kInt) {
            expectRow(sd, dd, valuesOf(sd), convert, [dd](double v) { return saturateTo(dd, v); });
            if (sd != dd) expectRow(sd, dd, valuesOf(sd), kuvScale, [sd, dd](double v) { return double(refScale(sd, dd, int64_t(v))); });
            for (int n = 3 * 2; n < 5 * 2; ++n)   // channels n / 2, source order n % 2
                atEveryLevel([&](int level) {
                    ImagePtr src = makeImage(sd, n / 2, 203, 3, n % 2), dst = makeImage(dd, n / 2, 203, 3, 1 - n % 2);
                    fillRandom(src.get(), sd * 7 + dd + uint64_t(n));
                    dst->origin = 1;   // turned over too
                    kuvConvert(src.get(), dst.get());
                    for (int k = 0, bad = 0, x, y, c; k < 203 * 3 * (n / 2) && bad < 3; ++k)
                        if (x = k / (n / 2) % 203, y = k / (n / 2) / 203, c = k % (n / 2),
                            get(dst.get(), x, 2 - y, c) != saturateTo(dd, get(src.get(), x, y, c)) && ++bad)
                            ADD_FAILURE() << depthName(sd) << " -> " << depthName(dd) << ", order " << n % 2 << ", level " << level << " at " << x << "," << y << "," << c;
                });
        }
}

const std::pair<float, float> kRanges[] = {{0.0f, 1.0f}, {-1.0f, 1.0f}, {0.0f, 255.0f}, {-3.5f, 1000.0f}, {1e-3f, 2e-3f}, {-1e30f, 1e30f}};

TEST(DepthValues, FloatScaleBothWaysWithLimitsTiesNaNAndInfinities) {
    Rng rng(7);
    for (uint32_t d : kInt) {
        std::vector<double> v = valuesOf(d);
        for (size_t i = 0; v.size() < 17 * 256 + 5; ++i) v.push_back(v[i * 7 % 256]);   // long enough for a table of bytes
        for (auto [lo, hi] : kRanges) {
            expectRow(d, KUV_DEPTH_32F, v, scaleFP(lo, hi), [d, lo = lo, hi = hi](double v) { return refToFloat(d, lo, hi, v); });
            std::vector<double> x = {kNaN, kInf, -kInf, -0.0, lo, hi, std::nextafter(lo, -kInf), std::nextafter(hi, kInf),
                                     std::nextafter(lo, kInf), std::nextafter(hi, -kInf), -3e38, 3e38};
            const auto [s, b] = floatMap(d, lo, hi, false);
            for (int i = 0; i < 3000; ++i)   // near ties
                x.push_back(float(i % 2 ? (double(rng.uniform(int64_t(depthMin(d)), int64_t(depthMax(d)))) + 0.5 - b) / s : rng.real(lo, hi)));
            expectRow(KUV_DEPTH_32F, d, x, scaleFP(lo, hi), [d, lo = lo, hi = hi](double v) { return refToInt(d, lo, hi, v); });
        }
    }
    // Rows without padding make one run of more than 32 MiB of floats.
    ImagePtr src = makeImage(KUV_DEPTH_8S, 3, 2064, 1402), want = makeImage(KUV_DEPTH_32F, 3, 2064, 1402);
    fillRandom(src.get(), 5);
    atEveryLevel([&](int level) {
        ImagePtr got = makeLike(want.get());
        EXPECT_EQ(kuvScaleFP(src.get(), level < top() ? got.get() : want.get(), -0.75f, 3.0f), 0);
        EXPECT_TRUE(level == top() || !std::memcmp(got->imageData, want->imageData, size_t(want->imageSize))) << "level " << level;
    });
    EXPECT_EQ(get(want.get(), 2063, 1401, 2), refToFloat(KUV_DEPTH_8S, -0.75f, 3.0f, get(src.get(), 2063, 1401, 2)));
}

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

// The region's start, and w and h narrowed to the region clipped to the image.
void clip(const KuvImage* im, int& x, int& y, int& w, int& h) {
    x = im->roi ? im->roi->xOffset : 0, y = im->roi ? im->roi->yOffset : 0;
    w = std::min(w, im->roi ? std::min(im->roi->width, im->width - x) : im->width);
    h = std::min(h, im->roi ? std::min(im->roi->height, im->height - y) : im->height);
}

// Random images for each operation at every level: depths, orders, origins, regions, channels of interest, alpha
// and tiles, against the element rules; for the min-max, extremes, NaNs and infinities spread over the source.
// What an operation may not write keeps the random canary, padding included.
TEST(DepthLayout, RandomPairsMatchTheElementRulesAndMinMaxEdges) {
    for (uint64_t seed = 1; seed <= 500; ++seed) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed);
        Rng rng(seed);
        kuv::depth::setVectorLevel(int(seed / 5 % uint64_t(top() + 1)));
        const int op = int(seed % 5);   // convert, scale, float scale, bitonal, min-max
        auto pick = [&] { return kInt[size_t(rng.uniform(0, 4))]; };
        uint32_t sd = op == 3 ? KUV_DEPTH_1U : op == 4 ? KUV_DEPTH_32F : pick(), dd = pick();
        while (op == 1 && dd == sd) dd = pick();
        if (op == 2 && rng.chance(0.5)) sd = KUV_DEPTH_32F; else if (op == 2) dd = KUV_DEPTH_32F;
        const bool toBits = op == 0 && rng.chance(0.2), sized = op == 0 || op == 3;
        int sn = op == 3 ? 1 : int(rng.uniform(1, 4)), sa = sn > 1 && op && rng.chance(0.3) ? sn : 0;
        const bool coi = sized ? toBits && sn > 1 : rng.chance(0.3);
        const int count = coi ? 1 : sn - (sa ? 1 : 0), da = !sized && rng.chance(0.3) ? count + 1 : op == 3 && rng.chance(0.5) ? 4 : 0;
        const int dn = toBits ? 1 : op == 0 ? sn : op == 3 ? (da ? 4 : int(rng.uniform(1, 3))) : count + (da ? 1 : 0);
        const int w = int(rng.uniform(1, 40)), h = int(rng.uniform(1, 20));
        ImagePtr src = makeImage(sd, sn, w, h, int(rng.uniform(0, 1)), sa);
        ImagePtr dst = makeImage(toBits ? KUV_DEPTH_1U : dd, dn, sized ? w : int(rng.uniform(1, 40)), sized ? h : int(rng.uniform(1, 20)),
                                 sized || sn == 1 || dn == 1 ? int(rng.uniform(0, 1)) : src->dataOrder, da);
        fillRandom(src.get(), rng.next());
        fillRandom(dst.get(), rng.next());
        for (double v : {-1e7, 1e7, kNaN, -kInf, kInf, kNaN})
            if (op == 4 && rng.chance(0.4)) put(src.get(), int(rng.uniform(0, w - 1)), int(rng.uniform(0, h - 1)), int(rng.uniform(0, sn - 1)), v);
        src->origin = int(rng.uniform(0, 1));
        dst->origin = sized ? int(rng.uniform(0, 1)) : src->origin;
        for (KuvImage* im : {src.get(), dst.get()})
            if ((coi && im == src.get()) || rng.chance(0.5))
                setRoi(im, coi && (im == src.get() || dn > 1) ? int(rng.uniform(1, im->nChannels)) : 0, int(rng.uniform(0, im->width - 1)),
                       int(rng.uniform(0, im->height - 1)), int(rng.uniform(1, im->width + 2)), int(rng.uniform(1, im->height + 2)));
        const float lo = float(rng.real(-5, 5)), hi = lo + float(rng.real(0.01, 300));
        const int32_t zero = int32_t(rng.chance(0.5) ? depthMin(dd) : depthMax(dd)), one = int32_t(depthMin(dd) + depthMax(dd) - zero);   // limits taken
        // The expected destination, or the extremes: NaNs take no part unless there is nothing else (our choice).
        ImagePtr want = copyImage(dst.get());
        double ext[2] = {kNaN, kNaN};
        const bool flip = sized && src->origin != dst->origin;
        std::vector<int> sc = channelsOf(src.get()), dc = channelsOf(dst.get());
        int x0 = 0, y0 = 0, u0 = 0, v0 = 0, rw = w, rh = h;
        if (sized) {   // whole images, every channel (bitonal: all but alpha)
            sc.assign(size_t(toBits ? 1 : dn - (op == 3 && da ? 1 : 0)), toBits && src->roi && src->roi->coi ? src->roi->coi - 1 : 0);
            dc.resize(sc.size());
            for (size_t k = 0; k < sc.size(); ++k) dc[k] = int(k), sc[k] += toBits || op == 3 ? 0 : int(k);
        } else {
            rw = rh = INT32_MAX;
            clip(src.get(), x0, y0, rw, rh);
            if (op != 4) clip(dst.get(), u0, v0, rw, rh);
        }
        for (int e = 0, n = int(sc.size()), i, j, k; e < rw * rh * n; ++e) {
            const double v = get(src.get(), x0 + (i = e / n % rw), y0 + (j = e / n / rw), sc[size_t(k = e % n)]);
            double r = op == 3 ? (v ? one : zero) : toBits ? (sd & KUV_DEPTH_SIGN ? v > 0 : v != 0) : saturateTo(dd, v);
            if (op == 1) r = double(refScale(sd, dd, int64_t(v)));
            if (op == 2) r = sd == KUV_DEPTH_32F ? refToInt(dd, lo, hi, v) : refToFloat(sd, lo, hi, v);
            if (op == 4) ext[0] = std::fmin(ext[0], v), ext[1] = std::fmax(ext[1], v);
            else put(want.get(), u0 + i, flip ? h - 1 - j : v0 + j, dc[size_t(k)], r);
        }
        Tiled s = tiled(src.get(), rng.chance(0.3) ? 8 * int(rng.uniform(1, 3)) : 0, 8), d = tiled(dst.get(), rng.chance(0.3) ? 8 : 0, 16);
        ReportCapture capture;
        float m[2] = {0, 0};
        EXPECT_EQ(op == 0 ? (kuvConvert(s.arg, d.arg), 0) : op == 1 ? kuvScale(s.arg, d.arg) : op == 2 ? kuvScaleFP(s.arg, d.arg, lo, hi)
                  : op == 3 ? (kuvBitonalToGray(s.arg, d.arg, zero, one), 0) : kuvMinMaxFP(s.arg, &m[0], &m[1]), 0);
        ASSERT_EQ(capture.count(), 0u) << capture.reports()[0];
        const auto same = [](double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); };
        EXPECT_TRUE(op != 4 || (same(m[0], ext[0]) && same(m[1], ext[1]))) << m[0] << " " << m[1] << ", want " << ext[0] << " " << ext[1];
        EXPECT_EQ(std::memcmp(d.pixels->imageData, want->imageData, size_t(want->imageSize)), 0) << "op " << op;
        for (Tiled* t : {&s, &d}) EXPECT_TRUE(!t->store || (t->store->held() == 0 && t->store->faults().empty()));
    }
    // Zeros whose first met is +0 among -0s, in a run that lanes share out, a NaN first; a NaN alone; an empty region.
    atEveryLevel([](int) {
        float m[6] = {1, 1, 1, 1, 42, 42};
        ImagePtr gray = makeImage(KUV_DEPTH_32F, 1, 40, 2, KUV_DATA_ORDER_PLANE);
        for (int x = 0; x < 40; ++x) put(gray.get(), x, 1, 0, x == 2 ? 0.0 : x == 1 ? kNaN : -0.0);
        setRoi(gray.get(), 1, 1, 1, 100, 100);
        EXPECT_EQ(kuvMinMaxFP(gray.get(), &m[0], &m[1]), 0);
        setRoi(gray.get(), 1, 1, 1, 1, 1);
        EXPECT_EQ(kuvMinMaxFP(gray.get(), &m[2], &m[3]), 0);
        setRoi(gray.get(), 0, 40, 0, 5, 5);   // leaves both alone
        EXPECT_EQ(kuvMinMaxFP(gray.get(), &m[4], &m[5]), 0);
        EXPECT_TRUE(m[0] == 0 && m[1] == 0 && !std::signbit(m[0]) && !std::signbit(m[1]) && std::isnan(m[2]) && std::isnan(m[3]));
        EXPECT_EQ(m[4] + m[5], 84) << m[0] << " " << m[1];
    });
}

using Spoil = std::function<void(KuvImage*, KuvImage*)>;
struct Func { const char *name, *file; uint32_t sd, dd; KuvStatus ret; Op call; };
struct Refusal { int func; const char* text; Spoil spoil; KuvStatus status = -5; };

// Spoils a valid pair (one channel, 9 x 4, the function's depths); a null text: a quiet return, the status kept.
void expectRefusal(const Func& f, const Refusal& r) {
    SCOPED_TRACE(::testing::Message() << f.name << ": " << (r.text ? r.text : "quiet"));
    ImagePtr s = makeImage(f.sd, 1, 9, 4), d = makeImage(f.dd, 1, 9, 4);
    r.spoil(s.get(), d.get());
    const RefusalGuard guard(s.get(), d.get());
    ReportCapture capture;
    kuvSetErrStatus(-33);
    ASSERT_EQ(std::fesetround(FE_DOWNWARD), 0);   // the caller's mode stays on a refusal too
    EXPECT_EQ(f.call(s.get(), d.get()), r.text ? f.ret : 0);
    EXPECT_EQ(std::fegetround(), FE_DOWNWARD);
    std::fesetround(FE_TONEAREST);
    EXPECT_TRUE(r.text ? oneReport(capture, r.status, f.name, r.text, f.file)
                       : ::testing::AssertionResult(capture.count() == 0 && kuvGetErrStatus() == -33));
    EXPECT_TRUE(guard.intact());
}

Spoil depths(uint32_t s, uint32_t d) { return [s, d](KuvImage* a, KuvImage* b) { a->depth = s, b->depth = d; }; }
Op bitonal(int32_t zero, int32_t one) { return [zero, one](const KuvImage* a, KuvImage* b) { kuvBitonalToGray(a, b, zero, one); return 0; }; }

// Each row also breaks later rules where it can, so that the order shows.
TEST(DepthRefusals, TextsInOrderAndTheStatusReturned) {
    const Func funcs[] = {
        {"kuvConvert", "kuvcvrt", KUV_DEPTH_8U, KUV_DEPTH_16S, 0, [](const KuvImage* a, KuvImage* b) { kuvConvert(a, b); return 0; }},
        {"kuvScale", "kuvscale", KUV_DEPTH_8U, KUV_DEPTH_16U, -5, kuvScale}, {"kuvScaleFP", "Kuvsclfp", KUV_DEPTH_8U, KUV_DEPTH_32F, -5, scaleFP(0.0f, 1.0f)},
        {"kuvScaleFP", "Kuvsclfp", KUV_DEPTH_8U, KUV_DEPTH_32F, -5, scaleFP(2.0f, 1.0f)}, {"kuvScaleFP", "Kuvsclfp", KUV_DEPTH_8U, KUV_DEPTH_32F, -5, scaleFP(1.0f, 1.0f)},
        {"kuvMinMaxFP", "kuvmnmxf", KUV_DEPTH_32F, KUV_DEPTH_32F, -5, [](const KuvImage* a, KuvImage* b) { static float v; return kuvMinMaxFP(a, b->depth == 8 ? nullptr : &v, &v); }},
        {"kuvBitonalToGray", "kuvbitnl", KUV_DEPTH_1U, KUV_DEPTH_8U, 0, bitonal(0, 1)}};
    const Spoil badAlign = [](KuvImage* a, KuvImage*) { a->align = 3; }, alphaSrc = [](KuvImage* a, KuvImage*) { a->alphaChannel = 1; },
                alphaDst = [](KuvImage*, KuvImage* b) { b->alphaChannel = 1; }, turned = [](KuvImage* a, KuvImage*) { a->origin = 1; },
                twoPlanes = [](KuvImage* a, KuvImage* b) { a->nChannels = b->nChannels = 2, b->dataOrder = 1; };
    const char *order = "((srcImage->dataOrder != dstImage->dataOrder)&& ((srcImage->nChannels != 1)&&(dstImage->nChannels != 1)))",
               *origin = "(srcImage->origin != dstImage->origin)";
    const Refusal rows[] = {
        {0, "Incorrect Image", badAlign, KUV_StsBadAlign}, {0, "Incorrect Image", [](KuvImage*, KuvImage* b) { b->align = 3; }, KUV_StsBadAlign},
        {0, "(srcImage->depth == 32)", depths(32, 32)}, {0, "(dstImage->depth == 32)", depths(8, 32)},
        {0, "(srcImage->height != dstImage->height)", [](KuvImage* a, KuvImage*) { a->height = 3, a->width = 2; }},
        {0, "(srcImage->width != dstImage->width)", [](KuvImage* a, KuvImage*) { a->width = 8; }},
        {0, "(srcImage->roi == 0)", [](KuvImage* a, KuvImage* b) { a->nChannels = 2, b->depth = 1; }},
        {0, "(srcImage->roi->coi == 0)", [](KuvImage* a, KuvImage* b) { a->nChannels = 2, b->depth = 1, setRoi(a, 0, 0, 0, 1, 1); }},
        {0, "srcImage->nChannels != dstImage->nChannels", [](KuvImage* a, KuvImage* b) { a->nChannels = 2, b->depth = 16; }},
        {0, "((srcImage->depth == 1) && (srcImage->depth != dstImage->depth))", depths(1, 8)},
        {1, "Incorrect Image", badAlign, KUV_StsBadAlign}, {1, "(srcImage->depth == dstImage->depth)", depths(32, 32)}, {1, "(srcImage->depth == 1)", depths(1, 32)},
        {1, "(srcImage->depth == 32)", depths(32, 1)}, {1, "(dstImage->depth == 1)", depths(8, 1)}, {1, "(dstImage->depth == 32)", depths(8, 32)},
        {1, order, twoPlanes}, {1, origin, turned}, {1, nullptr, alphaSrc}, {1, nullptr, alphaDst}, {1, "(srcChannels != dstChannels)", [](KuvImage* a, KuvImage*) { a->nChannels = 2; }},
        {2, "Incorrect Image", badAlign, KUV_StsBadAlign}, {2, "((srcImage->depth != 32)&& (dstImage->depth != 32))", depths(8, 16)},
        {2, "((srcImage->depth == 32)&& (dstImage->depth == 32))", depths(32, 32)},
        {2, "((srcImage->depth == 1)|| (dstImage->depth == 1))", depths(32, 1)},
        {2, order, twoPlanes}, {2, origin, turned}, {2, nullptr, alphaSrc}, {2, nullptr, alphaDst}, {2, "(buf[9] != buf[10])", [](KuvImage*, KuvImage* b) { b->nChannels = 2; }},
        {3, "((maxVal - minVal) <= 0.0f)", alphaSrc}, {4, "((maxVal - minVal) <= 0.0f)", alphaDst}, {5, "Incorrect Image", badAlign, KUV_StsBadAlign},
        {5, "((min == ((void*)(0)))||(max == ((void*)(0))))", depths(32, 8)}, {5, "(srcImage->depth != 32)", depths(16, 32)},
        {6, "Incorrect Image", badAlign, KUV_StsBadAlign}, {6, "(srcImage->height != dstImage->height)", [](KuvImage* a, KuvImage*) { a->height = 2, a->width = 3; }},
        {6, "(srcImage->width != dstImage->width)", [](KuvImage* a, KuvImage*) { a->width = 3; }},
        {6, "(srcImage->nChannels != 1)", [](KuvImage* a, KuvImage*) { a->nChannels = 2, a->depth = 8; }}, {6, "(srcImage->depth != 1)", depths(8, 32)},
        {6, "(dstImage->depth == 32)", depths(1, 32)}, {6, "(dstImage->depth == 1)", depths(1, 1)}};
    for (const Refusal& r : rows) expectRefusal(funcs[r.func], r);
    // The bitonal value ranges, refused one past each limit (the random pairs take the limits).
    const struct { uint32_t d; const char* form; int32_t lo, hi; } ranges[] = {
        {KUV_DEPTH_8S, "(0x80000000| 8)", -128, 127}, {KUV_DEPTH_8U, "8", 0, 255}, {KUV_DEPTH_16S, "(0x80000000|16)", -32768, 32767},
        {KUV_DEPTH_16U, "16", 0, 65535}, {KUV_DEPTH_32S, nullptr, INT32_MIN, INT32_MAX}};   // 32S: no limit
    for (const auto& r : ranges) {
        const int64_t lo = r.lo, hi = r.hi, probes[4][2] = {{hi + 1, lo - 1}, {lo - 1, hi + 1}, {hi, hi + 1}, {lo, lo - 1}};
        for (int k = 0; r.form && k < 4; ++k) {
            const std::string text = std::string("((dstImage->depth == ") + r.form + ") && (" + (k < 2 ? "Zero" : "One") + "Scale " +
                                     (k % 2 ? "< " : "> ") + std::to_string(k % 2 ? r.lo : r.hi) + "))";
            expectRefusal({"kuvBitonalToGray", "kuvbitnl", KUV_DEPTH_1U, r.d, 0, bitonal(int32_t(probes[k][0]), int32_t(probes[k][1]))},
                          {6, text.c_str(), [](KuvImage*, KuvImage*) {}});
        }
    }
}

// Convert: pieces inside both tiles in the order of the walk; the min-max: tiles in column order, one at a time.
TEST(DepthTiles, WalkOrdersAndFailedRequests) {
    ImagePtr src = makeImage(KUV_DEPTH_16U, 1, 16, 16), dst = makeImage(KUV_DEPTH_8S, 1, 16, 16), plain = makeImage(KUV_DEPTH_32F, 1, 20, 12);
    dst->origin = KUV_ORIGIN_BOTTOM_LEFT;
    Tiled s = tiled(src.get(), 8, 8), d = tiled(dst.get(), 16, 8);
    TileStore::clearCalls();
    kuvConvert(s.arg, d.arg);
    const int S = s.store->id(), D = d.store->id(), R = KUV_TILE_READ, W = KUV_TILE_WRITE, X = KUV_TILE_RELEASE;
    const std::vector<TileStore::Call> want = {{D, {0, 1, W}}, {S, {0, 0, R}}, {S, {0, 0, X}}, {S, {1, 0, R}}, {D, {0, 1, X}}, {D, {0, 0, W}},
                                               {S, {1, 0, X}}, {S, {0, 1, R}}, {S, {0, 1, X}}, {S, {1, 1, R}}, {D, {0, 0, X}}, {S, {1, 1, X}}};
    EXPECT_EQ(TileStore::calls(), want);
    setRoi(plain.get(), 0, 5, 3, 100, 100);
    Tiled t = tiled(plain.get(), 8, 8);
    float lo = 42, hi = 42;
    EXPECT_EQ(kuvMinMaxFP(t.arg, &lo, &hi), 0);
    const std::vector<TileStore::Request> walk = {{0, 0, R}, {0, 0, X}, {1, 0, R}, {1, 0, X}, {2, 0, R}, {2, 0, X},
                                                  {0, 1, R}, {0, 1, X}, {1, 1, R}, {1, 1, X}, {2, 1, R}, {2, 1, X}};
    EXPECT_EQ(t.store->log(), walk);
    t.store->failRequest(3);   // the third tile: what was found so far is not stored
    lo = hi = 42;
    ReportCapture report;
    EXPECT_EQ(kuvMinMaxFP(t.arg, &lo, &hi), KUV_StsOutOfMemory);
    EXPECT_TRUE(oneReport(report, -5, "kuvMinMaxFP", "(srcImage->tileInfo->tileData == NULL)", "kuvmnmxf"));
    EXPECT_TRUE(lo + hi == 84 && t.store->held() == 0);
    // Convert and scale: a failed request reports and releases what is held.
    ImagePtr a = makeImage(KUV_DEPTH_16U, 1, 20, 20), b = makeImage(KUV_DEPTH_8U, 1, 20, 20);
    for (int k = 4, who, op; k < 20; ++k) {   // the k / 4-th request fails
        SCOPED_TRACE(::testing::Message() << "case " << k);
        Tiled p = tiled(a.get(), 8, 8), q = tiled(b.get(), 16, 8);
        ((who = k / 2 % 2) ? *q.store : *p.store).failRequest(k / 4);
        ReportCapture capture;
        EXPECT_EQ((op = k % 2) ? (kuvConvert(p.arg, q.arg), KUV_StsOutOfMemory) : kuvScale(p.arg, q.arg), KUV_StsOutOfMemory);
        EXPECT_TRUE(oneReport(capture, -5, op ? "kuvConvert" : "kuvScale", who ? "(dstImage->tileInfo->tileData == NULL)" : "(srcImage->tileInfo->tileData == NULL)",
                              op ? "kuvcvrt" : "kuvscale"));
        EXPECT_TRUE(p.store->held() + q.store->held() == 0 && p.store->faults().empty() && q.store->faults().empty());
    }
    // A negative status after a granted tile stops kuvScale too.
    Tiled g = tiled(a.get(), 8, 8);
    kuvSetErrStatus(-3);
    EXPECT_EQ(kuvScale(g.arg, b.get()), KUV_StsOutOfMemory);
    EXPECT_EQ(g.store->log().size(), 2u);
    kuvSetErrStatus(0);
}

}  // namespace
