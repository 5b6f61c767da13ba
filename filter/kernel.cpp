// Convolution kernel records: creation, read-back and deletion. A record
// keeps its anchor and coefficients reversed, so that the row loops of the
// convolution can correlate with it directly.
#include "filter/convolve.h"

#include <source_location>
#include <type_traits>

namespace kuv::conv {
namespace {

constexpr const char* kFile = "kuvcnv2d";

bool refuse(bool failed, KuvStatus status, const char* func, const char* text,
            std::source_location where = std::source_location::current()) {
    if (failed) kuvError(status, func, text, kFile, static_cast<int32_t>(where.line()));
    return failed;
}

// The record's own value of a given one (the Char form sign-extends).
template <class Record>
using Stored = std::remove_pointer_t<decltype(Record::values)>;

template <class Record, class Given>
Record* create(const char* func, int32_t nCols, int32_t nRows, int32_t anchorX, int32_t anchorY,
               const Given* values) {
    if (refuse(values == nullptr, KUV_StsBadArgument, func, "(values == 0)")) return nullptr;
    if (refuse(nRows <= 0 || nCols <= 0, KUV_StsBadArgument, func, "(nRows<=0 || nCols<=0)"))
        return nullptr;
    if (refuse(anchorX < 0 || anchorY < 0 || nRows <= anchorY || nCols <= anchorX,
               KUV_StsBadArgument, func,
               "(anchorX<0 ||anchorY<0 ||nRows<=anchorY || nCols<=anchorX)"))
        return nullptr;
    using V = Stored<Record>;
    const int64_t n = int64_t{nCols} * nRows;
    const int64_t bytes = n * int64_t{sizeof(V)};
    auto* record = static_cast<Record*>(kuvMalloc(sizeof(Record)));
    V* stored =
        bytes <= INT32_MAX ? static_cast<V*>(kuvMalloc(static_cast<int32_t>(bytes))) : nullptr;
    if (record == nullptr || stored == nullptr) {
        kuvFree(stored);
        kuvFree(record);
        refuse(true, KUV_StsOutOfMemory, func, "Allocation failure");
        return nullptr;
    }
    record->nCols = nCols;
    record->nRows = nRows;
    record->anchorX = nCols - 1 - anchorX;
    record->anchorY = nRows - 1 - anchorY;
    for (int64_t i = 0; i < n; ++i) stored[i] = static_cast<V>(values[n - 1 - i]);
    record->values = stored;
    return record;
}

// The read-back checks, in their order; true when the call may go on.
template <class Record>
bool mayRead(const char* func, const Record* kernel, const int32_t* nCols, const int32_t* nRows,
             const int32_t* anchorX, const int32_t* anchorY, const void* values) {
    if (refuse(kernel == nullptr, KUV_StsBadArgument, func, "kernel==0")) return false;
    const OwnConvKernel view{kernel->nCols, kernel->nRows, kernel->anchorX, kernel->anchorY,
                             kernel->values};
    if (refuse(ownBadKernel(&view), KUV_StsBadArgument, func,
               "ownBadKernel((OwnConvKernel*)kernel)"))
        return false;
    // Both sizes, then both anchors, are reported before the status stops
    // the call; a fault left from an earlier call stops it as well.
    refuse(nRows == nullptr, KUV_StsBadArgument, func, "nRows==0");
    refuse(nCols == nullptr, KUV_StsBadArgument, func, "nCols==0");
    if (kuvGetErrStatus() < 0) return false;
    refuse(anchorX == nullptr, KUV_StsBadArgument, func, "anchorX==0");
    refuse(anchorY == nullptr, KUV_StsBadArgument, func, "anchorY==0");
    if (kuvGetErrStatus() < 0) return false;
    return !refuse(values == nullptr, KUV_StsBadArgument, func, "values==0");
}

// The values as given at creation, into the caller's array.
template <class Record, class Out>
void readBack(const Record* kernel, int32_t* nCols, int32_t* nRows, int32_t* anchorX,
              int32_t* anchorY, Out* values) {
    const int64_t n = int64_t{kernel->nCols} * kernel->nRows;
    *nCols = kernel->nCols;
    *nRows = kernel->nRows;
    *anchorX = kernel->nCols - 1 - kernel->anchorX;
    *anchorY = kernel->nRows - 1 - kernel->anchorY;
    for (int64_t i = 0; i < n; ++i) values[i] = static_cast<Out>(kernel->values[n - 1 - i]);
}

template <class Record>
void destroy(const char* func, Record* kernel) {
    if (refuse(kernel == nullptr, KUV_StsBadArgument, func, "kernel==0")) return;
    if (refuse(kernel->values == nullptr, KUV_StsBadArgument, func, "kernel->values==0")) return;
    kuvFree(kernel->values);
    kuvFree(kernel);
}

}   // namespace
}   // namespace kuv::conv

using namespace kuv::conv;

bool ownBadKernel(const OwnConvKernel* kernel) {
    return kernel->nRows < 1 || kernel->nCols < 1 || kernel->anchorX < 0 || kernel->anchorY < 0 ||
           kernel->nRows <= kernel->anchorY || kernel->nCols <= kernel->anchorX;
}

KuvConvKernel* kuvCreateConvKernel(int32_t nCols, int32_t nRows, int32_t anchorX, int32_t anchorY,
                                   const int32_t* values, int32_t nShiftR) {
    KuvConvKernel* k =
        create<KuvConvKernel>("kuvCreateConvKernel", nCols, nRows, anchorX, anchorY, values);
    if (k != nullptr) k->nShiftR = nShiftR;
    return k;
}

KuvConvKernel* kuvCreateConvKernelChar(int32_t nCols, int32_t nRows, int32_t anchorX,
                                       int32_t anchorY, const signed char* values,
                                       int32_t nShiftR) {
    KuvConvKernel* k =
        create<KuvConvKernel>("kuvCreateConvKernelChar", nCols, nRows, anchorX, anchorY, values);
    if (k != nullptr) k->nShiftR = nShiftR;
    return k;
}

KuvConvKernelFP* kuvCreateConvKernelFP(int32_t nCols, int32_t nRows, int32_t anchorX,
                                       int32_t anchorY, const float* values) {
    return create<KuvConvKernelFP>("kuvCreateConvKernelFP", nCols, nRows, anchorX, anchorY, values);
}

void kuvGetConvKernel(const KuvConvKernel* kernel, int32_t* nCols, int32_t* nRows, int32_t* anchorX,
                      int32_t* anchorY, int32_t** values, int32_t* nShiftR) {
    const char* func = "kuvGetConvKernel";
    if (!mayRead(func, kernel, nCols, nRows, anchorX, anchorY, values)) return;
    if (refuse(nShiftR == nullptr, KUV_StsBadArgument, func, "nShiftR==0")) return;
    readBack(kernel, nCols, nRows, anchorX, anchorY, *values);
    *nShiftR = kernel->nShiftR;
}

void kuvGetConvKernelChar(const KuvConvKernel* kernel, int32_t* nCols, int32_t* nRows,
                          int32_t* anchorX, int32_t* anchorY, signed char** values,
                          int32_t* nShiftR) {
    const char* func = "kuvGetConvKernelChar";
    if (!mayRead(func, kernel, nCols, nRows, anchorX, anchorY, values)) return;
    if (refuse(nShiftR == nullptr, KUV_StsBadArgument, func, "nShiftR==0")) return;
    readBack(kernel, nCols, nRows, anchorX, anchorY, *values);
    *nShiftR = kernel->nShiftR;
}

void kuvGetConvKernelFP(const KuvConvKernelFP* kernel, int32_t* nCols, int32_t* nRows,
                        int32_t* anchorX, int32_t* anchorY, float** values) {
    if (!mayRead("kuvGetConvKernelFP", kernel, nCols, nRows, anchorX, anchorY, values)) return;
    readBack(kernel, nCols, nRows, anchorX, anchorY, *values);
}

void kuvDeleteConvKernel(KuvConvKernel* kernel) { destroy("kuvDeleteConvKernel", kernel); }

void kuvDeleteConvKernelFP(KuvConvKernelFP* kernel) { destroy("kuvDeleteConvKernelFP", kernel); }
