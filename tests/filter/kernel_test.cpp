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

constexpr const char* kFile = "kuvcnv2d";

// The record holds anchors and coefficients reversed; read-back gives them
// as given, the Char form the low byte of each.
TEST(Kernel, StoresReversedAndReadsBackAsGiven) {
    ReportCapture capture;
    const int32_t given[6] = {1, -2, 300, 4, -129, 6};
    KuvConvKernel* k = kuvCreateConvKernel(3, 2, 2, 0, given, 37);
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(std::vector<int32_t>(k->values, k->values + 6),
              std::vector<int32_t>({6, -129, 4, 300, -2, 1}));
    int32_t c = 0, r = 0, ax = -1, ay = -1, sh = 0, out[6] = {}, *op = out;
    signed char bytes[6] = {}, *bp = bytes;
    EXPECT_EQ(std::vector<int32_t>({k->anchorX, k->anchorY}), std::vector<int32_t>({0, 1}));
    kuvGetConvKernel(k, &c, &r, &ax, &ay, &op, &sh);
    EXPECT_EQ(std::vector<int32_t>({c, r, ax, ay, sh}), std::vector<int32_t>({3, 2, 2, 0, 37}));
    EXPECT_EQ(std::vector<int32_t>(out, out + 6), std::vector<int32_t>(given, given + 6));
    kuvGetConvKernelChar(k, &c, &r, &ax, &ay, &bp, &sh);
    EXPECT_EQ(std::vector<int>(bytes, bytes + 6), std::vector<int>({1, -2, 44, 4, 127, 6}));
    kuvDeleteConvKernel(k);

    const signed char chars[4] = {-128, 127, 0, -1};
    KuvConvKernel* kc = kuvCreateConvKernelChar(1, 4, 0, 3, chars, -1);
    EXPECT_EQ(std::vector<int32_t>(kc->values, kc->values + 4),
              std::vector<int32_t>({-1, 0, 127, -128}));
    EXPECT_EQ(std::vector<int32_t>({kc->anchorY, kc->nShiftR}), std::vector<int32_t>({0, -1}));
    kuvDeleteConvKernel(kc);

    const float fv[2] = {0.5f, -1.25f};
    float fout[2] = {}, *fp = fout;
    KuvConvKernelFP* kf = kuvCreateConvKernelFP(2, 1, 1, 0, fv);
    EXPECT_EQ(std::vector<float>({float(kf->anchorX), kf->values[0]}),
              std::vector<float>({0, -1.25f}));
    kuvGetConvKernelFP(kf, &c, &r, &ax, &ay, &fp);
    EXPECT_EQ(std::vector<float>({fout[0], fout[1], float(ax)}),
              std::vector<float>({0.5f, -1.25f, 1}));
    kuvDeleteConvKernelFP(kf);
    EXPECT_EQ(capture.count(), 0u);
}

// The contexts reported by one call, and its function names.
template <class F>
std::vector<std::string> contextsOf(F call, std::vector<std::string>* funcs = nullptr) {
    ReportCapture c;
    call();
    std::vector<std::string> texts;
    for (const Report& r : c.reports()) {
        EXPECT_EQ(r.status, KUV_StsBadArgument);
        EXPECT_EQ(r.file, kFile);
        texts.push_back(r.context);
        if (funcs != nullptr) funcs->push_back(r.func);
    }
    return texts;
}
using Texts = std::vector<std::string>;

TEST(Kernel, CreationRefusesInOrder) {
    const int32_t v[4] = {1, 2, 3, 4};
    const char* anchors = "(anchorX<0 ||anchorY<0 ||nRows<=anchorY || nCols<=anchorX)";
    struct Row {
        const int32_t* values;
        int32_t cols, rows, ax, ay;
        const char* context;
    } rows[] = {
        {nullptr, 0, 0, -1, -1, "(values == 0)"},
        {v, 0, 2, -1, 0, "(nRows<=0 || nCols<=0)"},
        {v, 2, -1, 0, 0, "(nRows<=0 || nCols<=0)"},
        {v, 2, 2, -1, 0, anchors},
        {v, 2, 2, 0, -1, anchors},
        {v, 2, 2, 2, 0, anchors},
        {v, 2, 2, 0, 2, anchors},
    };
    for (const Row& r : rows) {
        Texts funcs;
        const auto* chars = reinterpret_cast<const signed char*>(r.values);
        const auto* floats = reinterpret_cast<const float*>(r.values);
        EXPECT_EQ(contextsOf(
                      [&] {
                          EXPECT_EQ(kuvCreateConvKernel(r.cols, r.rows, r.ax, r.ay, r.values, 0),
                                    nullptr);
                          EXPECT_EQ(kuvCreateConvKernelChar(r.cols, r.rows, r.ax, r.ay, chars, 0),
                                    nullptr);
                          EXPECT_EQ(kuvCreateConvKernelFP(r.cols, r.rows, r.ax, r.ay, floats),
                                    nullptr);
                      },
                      &funcs),
                  Texts(3, r.context));
        EXPECT_EQ(funcs, Texts({"kuvCreateConvKernel", "kuvCreateConvKernelChar",
                                "kuvCreateConvKernelFP"}));
    }
}

TEST(Kernel, ReadBackAndDeleteCheckInOrder) {
    const int32_t v[4] = {1, 2, 3, 4};
    KuvConvKernel* k = kuvCreateConvKernel(2, 2, 0, 0, v, 3);
    int32_t c = -7, r = -7, ax = -7, ay = -7, sh = -7, out[4] = {};
    int32_t* op = out;
    auto* cp = reinterpret_cast<signed char**>(&op);
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernel(nullptr, &c, &r, &ax, &ay, &op, &sh); }),
              Texts({"kernel==0"}));
    k->anchorY = 2;
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernel(k, &c, &r, &ax, &ay, &op, &sh); }),
              Texts({"ownBadKernel((OwnConvKernel*)kernel)"}));
    k->anchorY = 1;
    // Both sizes are reported before the status stops the call, then both anchors.
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernel(k, nullptr, nullptr, nullptr, &ay, &op, &sh); }),
              Texts({"nRows==0", "nCols==0"}));
    EXPECT_EQ(
        contextsOf([&] { kuvGetConvKernelChar(k, &c, &r, nullptr, nullptr, nullptr, nullptr); }),
        Texts({"anchorX==0", "anchorY==0"}));
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernel(k, &c, &r, &ax, &ay, nullptr, nullptr); }),
              Texts({"values==0"}));
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernelChar(k, &c, &r, &ax, &ay, cp, nullptr); }),
              Texts({"nShiftR==0"}));
    float* fp = nullptr;
    EXPECT_EQ(contextsOf([&] { kuvGetConvKernelFP(nullptr, &c, &r, &ax, &ay, &fp); }),
              Texts({"kernel==0"}));
    // A fault left by an earlier call ends the read-back at the sizes, silently.
    EXPECT_EQ(contextsOf([&] {
                  kuvSetErrStatus(KUV_StsBadArgument);
                  kuvGetConvKernel(k, &c, &r, &ax, &ay, &op, &sh);
              }),
              Texts());
    EXPECT_EQ(std::vector<int32_t>({c, r, ax, ay, sh, out[0]}),
              std::vector<int32_t>({-7, -7, -7, -7, -7, 0}));
    EXPECT_EQ(contextsOf([&] { kuvDeleteConvKernel(nullptr); }), Texts({"kernel==0"}));
    EXPECT_EQ(contextsOf([&] { kuvDeleteConvKernelFP(nullptr); }), Texts({"kernel==0"}));
    int32_t* values = k->values;
    k->values = nullptr;
    EXPECT_EQ(contextsOf([&] { kuvDeleteConvKernel(k); }), Texts({"kernel->values==0"}));
    k->values = values;
    kuvDeleteConvKernel(k);
}

// ------------------------------------------------------------------ rows

class VectorRows {   // runs a block with the vector rows on or off
public:
    explicit VectorRows(bool on) : saved_(ownFilterVectorRows()) { ownSetFilterVectorRows(on); }
    ~VectorRows() { ownSetFilterVectorRows(saved_); }

private:
    bool saved_;
};

// Each float and the pixel it must give, per depth; repeated to odd lengths
// so that vector blocks and scalar tails both see every value.
TEST(ConvRows, FloatToPixelAtTheLimits) {
    struct Case {
        uint32_t depth;
        std::vector<float> in;
        std::vector<double> want;
    } cases[] = {
        {KUV_DEPTH_8U,
         {-0.5f, -1e9f, 0.5f, 1.5f, 2.5f, 254.5f, 254.51f, 255.0f, 1e9f},
         {0, 0, 0, 2, 2, 254, 255, 255, 255}},
        {KUV_DEPTH_8S,
         {127.5f, 127.49f, 126.5f, -127.5f, -127.49f, -128.6f, -0.5f, 1e9f},
         {127, 127, 126, -128, -127, -128, 0, 127}},
        {KUV_DEPTH_16U, {65534.5f, 65535.0f, 70000.0f, -3.0f, 3.5f}, {65534, 65535, 65535, 0, 4}},
        {KUV_DEPTH_16S,
         {32767.5f, 32766.5f, -32767.5f, -32767.49f, -1e6f},
         {32767, 32766, -32768, -32767, -32768}},
        {KUV_DEPTH_32S,
         {2147483648.0f, 2147483520.0f, -2147483648.0f, -3e9f, 4194304.5f, 4194305.5f, -2.5f,
          8388609.0f, 1e20f},
         {INT_MAX, 2147483520.0, INT_MIN, INT_MIN, 4194304, 4194306, -2, 8388609, INT_MAX}},
    };
    for (bool vector : {false, true}) {
        VectorRows rows(vector);
        for (const Case& c : cases) {
            SCOPED_TRACE(depthName(c.depth) + (vector ? " vector" : " base"));
            const size_t bytes = size_t(depthBits(c.depth) / 8), m = c.in.size();
            for (int stride : {1, 3}) {   // 71 values: vector blocks and tails see each of them
                std::vector<float> in(71);
                for (size_t i = 0; i < in.size(); ++i) in[i] = c.in[i % m];
                std::vector<uint8_t> out(in.size() * size_t(stride) * bytes, 0xA5);
                ownFloatToRow(c.depth)(in.data(), out.data(), stride, int32_t(in.size()));
                for (size_t i = 0; i < in.size() * size_t(stride); ++i) {
                    int64_t got = 0;
                    std::memcpy(&got, &out[i * bytes], bytes);
                    const int drop = 64 - 8 * int(bytes);
                    if (c.depth & KUV_DEPTH_SIGN) got = (got << drop) >> drop;
                    if (i % size_t(stride) != 0)
                        EXPECT_EQ(out[i * bytes], 0xA5);   // between stays
                    else
                        EXPECT_EQ(double(got), c.want[(i / size_t(stride)) % m])
                            << in[i / size_t(stride)];
                }
            }
        }
    }
}

TEST(ConvRows, PixelsToFloatsAndBits) {
    for (bool vector : {false, true}) {
        VectorRows rows(vector);
        std::vector<int32_t> s32(37, 16777217);
        s32[5] = INT_MIN, s32[36] = -16777219;
        std::vector<float> f(37);
        ownRowToFloat(KUV_DEPTH_32S)(s32.data(), 1, f.data(), 37);
        EXPECT_EQ(f[0], 16777216.0f);
        EXPECT_EQ(f[5], -2147483648.0f);
        EXPECT_EQ(f[36], -16777220.0f);
        std::vector<int8_t> s8(3 * 37);
        for (size_t i = 0; i < s8.size(); ++i) s8[i] = int8_t(i * 37);
        ownRowToFloat(KUV_DEPTH_8S)(s8.data() + 1, 3, f.data(), 37);
        for (int i = 0; i < 37; ++i) EXPECT_EQ(f[size_t(i)], float(s8[size_t(3 * i + 1)]));
    }
    const uint8_t bits[3] = {0xB5, 0x0F, 0x80};   // 1011 0101 0000 1111 1...
    std::vector<float> f(11);
    ownBitsToFloat(bits, 5, f.data(), 11);
    EXPECT_EQ(f, std::vector<float>({1, 0, 1, 0, 0, 0, 0, 1, 1, 1, 1}));
    uint8_t row[2] = {0x00, 0xFF};
    const float vals[6] = {0.51f, 0.5f, 1.0f, 3.0f, 0.0f, 0.6f};
    const uint8_t mask[6] = {1, 1, 0, 1, 1, 1};
    ownFloatToBits(vals, row, 6, mask, 6);   // bits 6..11; bit 8 (masked off) keeps its 1
    EXPECT_EQ(row[0], 0x02);
    EXPECT_EQ(row[1], 0xDF);
}

}   // namespace
