// Convolution kernel records: reversed storage, read-back, the checks of
// every form in their order; and the row conversions between pixels and
// floats at their rounding and saturation limits.
#include "tests/support/kuv_test.h"

#include "filter/convolve.h"
#include "filter/rowconv.h"

#include <climits>
#include <cstring>
#include <vector>

using namespace kuvtest;

namespace {

using Texts = std::vector<std::string>;
using Ints = std::vector<int32_t>;

// The contexts reported by one call (all bad arguments from "kuvcnv2d"), and its function names.
template <class F>
Texts contextsOf(F call, Texts* funcs = nullptr) {
    ReportCapture c;
    call();
    Texts texts;
    for (const Report& r : c.reports()) {
        EXPECT_TRUE(r.status == KUV_StsBadArgument && r.file == "kuvcnv2d") << r;
        texts.push_back(r.context);
        if (funcs != nullptr) funcs->push_back(r.func);
    }
    return texts;
}

// The record holds anchors and coefficients reversed; read-back gives them
// as given, the Char form the low byte of each.
TEST(Kernel, StoresReversedAndReadsBackAsGiven) {
    ReportCapture capture;
    const int32_t given[6] = {1, -2, 300, 4, -129, 6};
    KuvConvKernel* k = kuvCreateConvKernel(3, 2, 2, 0, given, 37);
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(Ints(k->values, k->values + 6), Ints({6, -129, 4, 300, -2, 1}));
    EXPECT_EQ(Ints({k->anchorX, k->anchorY}), Ints({0, 1}));
    int32_t c = 0, r = 0, ax = -1, ay = -1, sh = 0, out[6] = {}, *op = out;
    signed char bytes[6] = {}, *bp = bytes;
    kuvGetConvKernel(k, &c, &r, &ax, &ay, &op, &sh);
    EXPECT_EQ(Ints({c, r, ax, ay, sh}), Ints({3, 2, 2, 0, 37}));
    EXPECT_EQ(Ints(out, out + 6), Ints(given, given + 6));
    kuvGetConvKernelChar(k, &c, &r, &ax, &ay, &bp, &sh);
    EXPECT_EQ(std::vector<int>(bytes, bytes + 6), std::vector<int>({1, -2, 44, 4, 127, 6}));
    kuvDeleteConvKernel(k);
    const signed char chars[4] = {-128, 127, 0, -1};
    KuvConvKernel* kc = kuvCreateConvKernelChar(1, 4, 0, 3, chars, -1);
    EXPECT_EQ(Ints(kc->values, kc->values + 4), Ints({-1, 0, 127, -128}));
    EXPECT_EQ(Ints({kc->anchorY, kc->nShiftR}), Ints({0, -1}));
    kuvDeleteConvKernel(kc);
    const float fv[2] = {0.5f, -1.25f};
    float fout[2] = {}, *fp = fout;
    KuvConvKernelFP* kf = kuvCreateConvKernelFP(2, 1, 1, 0, fv);
    EXPECT_TRUE(kf->anchorX == 0 && kf->values[0] == -1.25f);
    kuvGetConvKernelFP(kf, &c, &r, &ax, &ay, &fp);
    EXPECT_TRUE(fout[0] == 0.5f && fout[1] == -1.25f && ax == 1);
    kuvDeleteConvKernelFP(kf);
    EXPECT_EQ(capture.count(), 0u);
}

TEST(Kernel, CreationRefusesInOrder) {
    const int32_t v[4] = {1, 2, 3, 4};
    const char* anchors = "(anchorX<0 ||anchorY<0 ||nRows<=anchorY || nCols<=anchorX)";
    const struct { const int32_t* values; int32_t cols, rows, ax, ay; const char* context; } rows[] = {
        {nullptr, 0, 0, -1, -1, "(values == 0)"}, {v, 0, 2, -1, 0, "(nRows<=0 || nCols<=0)"},
        {v, 2, -1, 0, 0, "(nRows<=0 || nCols<=0)"}, {v, 2, 2, -1, 0, anchors}, {v, 2, 2, 0, -1, anchors},
        {v, 2, 2, 2, 0, anchors}, {v, 2, 2, 0, 2, anchors}};
    for (const auto& r : rows) {
        Texts funcs;
        EXPECT_EQ(contextsOf([&] {
                      EXPECT_EQ(kuvCreateConvKernel(r.cols, r.rows, r.ax, r.ay, r.values, 0), nullptr);
                      EXPECT_EQ(kuvCreateConvKernelChar(r.cols, r.rows, r.ax, r.ay, reinterpret_cast<const signed char*>(r.values), 0), nullptr);
                      EXPECT_EQ(kuvCreateConvKernelFP(r.cols, r.rows, r.ax, r.ay, reinterpret_cast<const float*>(r.values)), nullptr);
                  }, &funcs), Texts(3, r.context));
        EXPECT_EQ(funcs, Texts({"kuvCreateConvKernel", "kuvCreateConvKernelChar", "kuvCreateConvKernelFP"}));
    }
}

TEST(Kernel, ReadBackAndDeleteCheckInOrder) {
    const int32_t v[4] = {1, 2, 3, 4};
    KuvConvKernel* k = kuvCreateConvKernel(2, 2, 0, 0, v, 3);
    int32_t c = -7, r = -7, ax = -7, ay = -7, sh = -7, out[4] = {}, *op = out;
    auto* cp = reinterpret_cast<signed char**>(&op);
    float* fp = nullptr;
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernel(nullptr, &c, &r, &ax, &ay, &op, &sh); }), Texts({"kernel==0"}));
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernelFP(nullptr, &c, &r, &ax, &ay, &fp); }), Texts({"kernel==0"}));
    k->anchorY = 2;
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernel(k, &c, &r, &ax, &ay, &op, &sh); }), Texts({"ownBadKernel((OwnConvKernel*)kernel)"}));
    k->anchorY = 1;
    // Both sizes are reported before the status stops the call, then both anchors.
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernel(k, nullptr, nullptr, nullptr, &ay, &op, &sh); }), Texts({"nRows==0", "nCols==0"}));
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernelChar(k, &c, &r, nullptr, nullptr, nullptr, nullptr); }), Texts({"anchorX==0", "anchorY==0"}));
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernel(k, &c, &r, &ax, &ay, nullptr, nullptr); }), Texts({"values==0"}));
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernelChar(k, &c, &r, &ax, &ay, cp, nullptr); }), Texts({"nShiftR==0"}));
    // A fault left by an earlier call ends the read-back at the sizes, silently.
    EXPECT_EQ(contextsOf([&] { kuvSetErrStatus(KUV_StsBadArgument), kuvGetConvKernel(k, &c, &r, &ax, &ay, &op, &sh); }), Texts());
    EXPECT_EQ(Ints({c, r, ax, ay, sh, out[0]}), Ints({-7, -7, -7, -7, -7, 0}));
    EXPECT_EQ(contextsOf([&] { kuvDeleteConvKernel(nullptr), kuvDeleteConvKernelFP(nullptr); }), Texts(2, "kernel==0"));
    int32_t* values = k->values;
    k->values = nullptr;
    EXPECT_EQ(contextsOf([&] { kuvDeleteConvKernel(k); }), Texts({"kernel->values==0"}));
    k->values = values;
    kuvDeleteConvKernel(k);
}

struct VectorRows : FeatureLimit {   // runs a block with the vector rows on or off
    explicit VectorRows(bool on) : FeatureLimit(on ? ~0u : 0u) {}
};

// Each float and the pixel it must give, per depth; repeated to an odd length,
// also at a stride, so that vector blocks and scalar tails both see every value.
TEST(ConvRows, FloatToPixelAtTheLimits) {
    const struct { uint32_t depth; std::vector<float> in; std::vector<double> want; } cases[] = {
        {KUV_DEPTH_8U, {-0.5f, -1e9f, 0.5f, 1.5f, 2.5f, 254.5f, 254.51f, 255.0f, 1e9f}, {0, 0, 0, 2, 2, 254, 255, 255, 255}},
        {KUV_DEPTH_8S, {127.5f, 127.49f, 126.5f, -127.5f, -127.49f, -128.6f, -0.5f, 1e9f}, {127, 127, 126, -128, -127, -128, 0, 127}},
        {KUV_DEPTH_16U, {65534.5f, 65535.0f, 70000.0f, -3.0f, 3.5f}, {65534, 65535, 65535, 0, 4}},
        {KUV_DEPTH_16S, {32767.5f, 32766.5f, -32767.5f, -32767.49f, -1e6f}, {32767, 32766, -32768, -32767, -32768}},
        {KUV_DEPTH_32S, {2147483648.0f, 2147483520.0f, -2147483648.0f, -3e9f, 4194304.5f, 4194305.5f, -2.5f, 8388609.0f, 1e20f},
         {INT_MAX, 2147483520.0, INT_MIN, INT_MIN, 4194304, 4194306, -2, 8388609, INT_MAX}}};
    for (bool vector : {false, true}) {
        VectorRows rows(vector);
        for (const auto& c : cases)
            for (int stride : {1, 3}) {
                const size_t bytes = size_t(depthBits(c.depth) / 8), m = c.in.size(), n = 71;
                std::vector<float> in(n);
                for (size_t i = 0; i < n; ++i) in[i] = c.in[i % m];
                std::vector<uint8_t> out(n * size_t(stride) * bytes, 0xA5);
                ownFloatToRow(c.depth)(in.data(), out.data(), stride, int32_t(n));
                for (size_t i = 0; i < n * size_t(stride); ++i) {
                    int64_t got = 0;
                    std::memcpy(&got, &out[i * bytes], bytes);
                    const int drop = 64 - 8 * int(bytes);
                    if (c.depth & KUV_DEPTH_SIGN) got = (got << drop) >> drop;
                    if (i % size_t(stride) != 0) EXPECT_EQ(out[i * bytes], 0xA5);   // between stays
                    else EXPECT_EQ(double(got), c.want[(i / size_t(stride)) % m]) << depthName(c.depth) << " " << in[i / size_t(stride)] << " vector " << vector;
                }
            }
    }
}

}   // namespace
