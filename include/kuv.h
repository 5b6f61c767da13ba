/*
 * kuv: image processing over plain image headers.
 *
 * The one public header of the library. It compiles as C99 and as C++.
 * Every record below is shared with the application field by field, so the
 * order and the widths of the fields are part of the interface: integer
 * fields are 32 bits wide, pointers are native.
 */
#ifndef KUV_H
#define KUV_H

#include <stdint.h>

#if defined(_WIN32)
#  define KUV_API __declspec(dllexport)
#elif defined(__GNUC__)
#  define KUV_API __attribute__((visibility("default")))
#else
#  define KUV_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- status */

typedef int32_t KuvStatus;

#define KUV_StsNoError           0
#define KUV_StsBacktrace        -1
#define KUV_StsFailure          -2
#define KUV_StsBadState         -3
#define KUV_StsOutOfMemory      -4
#define KUV_StsBadArgument      -5
#define KUV_StsUnsupported      -6
#define KUV_StsNoConvergence    -7
#define KUV_StsAutotrace        -8
#define KUV_StsNullHeader       -9
#define KUV_StsBadImageSize    -10
#define KUV_StsBadROIOffset    -11
#define KUV_StsBadDataPointers -12
#define KUV_StsBadWidthStep    -13
#define KUV_StsBadColorModel   -14
#define KUV_StsBadChannels     -15
#define KUV_StsBadChannels1U   -16
#define KUV_StsBadDepth        -17
#define KUV_StsBadAlphaChannel -18
#define KUV_StsBadDataOrder    -19
#define KUV_StsBadOrigin       -20
#define KUV_StsBadAlign        -21
#define KUV_StsNullCallback    -22
#define KUV_StsBadTileSize     -23
#define KUV_StsBadCOI          -24
#define KUV_StsBadROISize      -25
#define KUV_StsMaskTiled       -26

/* A fault in an image's mask is reported as the plain code minus this. */
#define KUV_StsMaskOffset      100

#define KUV_ErrorModeLeaf    0
#define KUV_ErrorModeParent  1
#define KUV_ErrorModeSilent  2

/* ---------------------------------------------------------------- depths */

#define KUV_DEPTH_SIGN 0x80000000u
#define KUV_DEPTH_1U   1u
#define KUV_DEPTH_8U   8u
#define KUV_DEPTH_8S   (KUV_DEPTH_SIGN | 8u)
#define KUV_DEPTH_16U  16u
#define KUV_DEPTH_16S  (KUV_DEPTH_SIGN | 16u)
#define KUV_DEPTH_32S  (KUV_DEPTH_SIGN | 32u)
#define KUV_DEPTH_32F  32u

#define KUV_DATA_ORDER_PIXEL 0
#define KUV_DATA_ORDER_PLANE 1

#define KUV_ORIGIN_TOP_LEFT    0
#define KUV_ORIGIN_BOTTOM_LEFT 1

/* Flags of kuvDeallocate, combined by OR. */
#define KUV_IMAGE_HEADER 1
#define KUV_IMAGE_DATA   2
#define KUV_IMAGE_ROI    4
#define KUV_IMAGE_TILE   8
#define KUV_IMAGE_MASK  16
#define KUV_IMAGE_ALL   (KUV_IMAGE_HEADER | KUV_IMAGE_DATA | KUV_IMAGE_ROI | \
                         KUV_IMAGE_TILE | KUV_IMAGE_MASK)

/* Border modes, and the side bits of kuvSetBorderMode. */
#define KUV_BORDER_CONSTANT  0
#define KUV_BORDER_REPLICATE 1
#define KUV_BORDER_REFLECT   2
#define KUV_BORDER_WRAP      3

#define KUV_SIDE_TOP_INDEX    0
#define KUV_SIDE_BOTTOM_INDEX 1
#define KUV_SIDE_LEFT_INDEX   2
#define KUV_SIDE_RIGHT_INDEX  3

#define KUV_SIDE_TOP    1
#define KUV_SIDE_BOTTOM 2
#define KUV_SIDE_LEFT   4
#define KUV_SIDE_RIGHT  8
#define KUV_SIDE_ALL    (KUV_SIDE_TOP | KUV_SIDE_BOTTOM | KUV_SIDE_LEFT | KUV_SIDE_RIGHT)

/* Tile modes passed to an application's tile procedure. */
#define KUV_TILE_READ    1
#define KUV_TILE_WRITE   2
#define KUV_TILE_RELEASE 4

/* Interpolation modes. */
#define KUV_INTER_NN     0
#define KUV_INTER_LINEAR 1
#define KUV_INTER_CUBIC  2
#define KUV_INTER_SUPER  3
#define KUV_SMOOTH_EDGE 16

/* --------------------------------------------------------------- records */

struct KuvImage;

/* The application's tile procedure: it stores the tile's address (or null)
   in image->tileInfo->tileData for a read or write, and null on release. */
typedef void (*KuvTileCallBack)(const struct KuvImage* image, int32_t xIndex,
                                int32_t yIndex, int32_t mode);

typedef struct KuvROI {
    int32_t coi;
    int32_t xOffset;
    int32_t yOffset;
    int32_t width;
    int32_t height;
} KuvROI;

typedef struct KuvTileInfo {
    KuvTileCallBack callBack;
    int32_t id;
    char* tileData;
    int32_t width;
    int32_t height;
} KuvTileInfo;

typedef struct KuvImage {
    int32_t headerSize;
    int32_t headerId;
    int32_t nChannels;
    int32_t alphaChannel;
    uint32_t depth;
    char colorModel[4];
    char channelSeq[4];
    int32_t dataOrder;
    int32_t origin;
    int32_t align;
    int32_t width;
    int32_t height;
    struct KuvROI* roi;
    struct KuvImage* maskROI;
    int32_t imageId;
    struct KuvTileInfo* tileInfo;
    int32_t imageSize;
    char* imageData;
    int32_t widthStep;
    int32_t borderMode[4];
    int32_t borderConst[4];
    char* imageDataOrigin;
} KuvImage;

typedef struct KuvLibVersion {
    int32_t major;
    int32_t minor;
    int32_t build;
    const char* name;
    const char* version;
    const char* internalVersion;
    const char* buildDate;
    const char* callConv;
} KuvLibVersion;

/* A report handler: the shape of kuvStdErrReport and its siblings. */
typedef KuvStatus (*KuvErrorCallBack)(KuvStatus status, const char* funcName,
                                      const char* context, const char* fileName,
                                      int32_t line);

/* ------------------------------------------------- status, modes, reports */

KUV_API KuvStatus kuvGetErrStatus(void);
KUV_API void kuvSetErrStatus(KuvStatus status);
KUV_API int32_t kuvGetErrMode(void);
KUV_API void kuvSetErrMode(int32_t mode);
KUV_API KuvErrorCallBack kuvRedirectError(KuvErrorCallBack handler);
KUV_API KuvStatus kuvError(KuvStatus status, const char* funcName, const char* context,
                           const char* fileName, int32_t line);
KUV_API const char* kuvErrorStr(KuvStatus status);
KUV_API KuvStatus kuvNulDevReport(KuvStatus status, const char* funcName,
                                  const char* context, const char* fileName, int32_t line);
KUV_API KuvStatus kuvStdErrReport(KuvStatus status, const char* funcName,
                                  const char* context, const char* fileName, int32_t line);
KUV_API KuvStatus kuvGuiBoxReport(KuvStatus status, const char* funcName,
                                  const char* context, const char* fileName, int32_t line);
KUV_API const KuvLibVersion* kuvGetLibVersion(void);
KUV_API uint64_t kuvGetCycleCounter(void);

/* ------------------------------------------------------ records, memory */

KUV_API void* kuvMalloc(int32_t length);
KUV_API void* kuvwMalloc(int32_t length);
KUV_API void* kuviMalloc(int32_t length);
KUV_API void* kuvsMalloc(int32_t length);
KUV_API void* kuvdMalloc(int32_t length);
KUV_API void kuvFree(void* block);

KUV_API KuvImage* kuvCreateImageHeader(int32_t nChannels, int32_t alphaChannel, uint32_t depth,
                                       const char* colorModel, const char* channelSeq,
                                       int32_t dataOrder, int32_t origin, int32_t align,
                                       int32_t width, int32_t height, KuvROI* roi,
                                       KuvImage* maskROI, int32_t imageId,
                                       KuvTileInfo* tileInfo);
KUV_API void kuvAllocateImage(KuvImage* image, int32_t doFill, int32_t fillValue);
KUV_API void kuvAllocateImageFP(KuvImage* image, int32_t doFill, float fillValue);
KUV_API void kuvDeallocate(KuvImage* image, int32_t flags);
KUV_API void kuvDeallocateHeader(KuvImage* image);
KUV_API void kuvDeallocateImage(KuvImage* image);
KUV_API KuvImage* kuvCloneImage(const KuvImage* image);
KUV_API KuvStatus kuvCheckImageHeader(const KuvImage* image);

KUV_API KuvROI* kuvCreateROI(int32_t coi, int32_t xOffset, int32_t yOffset,
                             int32_t width, int32_t height);
KUV_API void kuvSetROI(KuvROI* roi, int32_t coi, int32_t xOffset, int32_t yOffset,
                       int32_t width, int32_t height);
KUV_API void kuvDeleteROI(KuvROI* roi);
KUV_API KuvTileInfo* kuvCreateTileInfo(KuvTileCallBack callBack, int32_t id,
                                       int32_t width, int32_t height);
KUV_API void kuvSetTileInfo(KuvTileInfo* tileInfo, KuvTileCallBack callBack, int32_t id,
                            int32_t width, int32_t height);
KUV_API void kuvDeleteTileInfo(KuvTileInfo* tileInfo);

KUV_API void kuvSetBorderMode(KuvImage* image, int32_t mode, int32_t sides, int32_t constVal);

/* ------------------------------------------------------------ arithmetic */

KUV_API void kuvAdd(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage);
KUV_API void kuvSubtract(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage);
KUV_API void kuvMultiply(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage);
KUV_API void kuvSquare(const KuvImage* srcImage, KuvImage* dstImage);
KUV_API void kuvAbs(const KuvImage* srcImage, KuvImage* dstImage);
KUV_API void kuvAddS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value);
KUV_API void kuvSubtractS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value,
                          int32_t flip);
KUV_API void kuvMultiplyS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value);
KUV_API void kuvAddSFP(const KuvImage* srcImage, KuvImage* dstImage, float value);
KUV_API void kuvSubtractSFP(const KuvImage* srcImage, KuvImage* dstImage, float value,
                            int32_t flip);
KUV_API void kuvMultiplySFP(const KuvImage* srcImage, KuvImage* dstImage, float value);

/* ------------------------------------------------------------ logic, shifts */

KUV_API void kuvAnd(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage);
KUV_API void kuvOr(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage);
KUV_API void kuvXor(const KuvImage* srcImageA, const KuvImage* srcImageB, KuvImage* dstImage);
KUV_API void kuvAndS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value);
KUV_API void kuvOrS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value);
KUV_API void kuvXorS(const KuvImage* srcImage, KuvImage* dstImage, int32_t value);
KUV_API void kuvNot(const KuvImage* srcImage, KuvImage* dstImage);
KUV_API void kuvLShiftS(const KuvImage* srcImage, KuvImage* dstImage, int32_t nShift);
KUV_API void kuvRShiftS(const KuvImage* srcImage, KuvImage* dstImage, int32_t nShift);

/* ------------------------------------------------------- copy, set, pixels */

KUV_API void kuvCopy(const KuvImage* srcImage, KuvImage* dstImage);
KUV_API void kuvExchange(KuvImage* srcImage, KuvImage* dstImage);
KUV_API void kuvSet(KuvImage* dstImage, int32_t fillValue);
KUV_API void kuvSetFP(KuvImage* dstImage, float fillValue);
KUV_API void kuvGetPixel(const KuvImage* image, int32_t x, int32_t y, void* pixel);
KUV_API void kuvPutPixel(KuvImage* image, int32_t x, int32_t y, const void* pixel);

/* ------------------------------------------------------------ comparison */

KUV_API KuvStatus kuvLess(const KuvImage* img1, const KuvImage* img2, KuvImage* res);
KUV_API KuvStatus kuvGreater(const KuvImage* img1, const KuvImage* img2, KuvImage* res);
KUV_API KuvStatus kuvEqual(const KuvImage* img1, const KuvImage* img2, KuvImage* res);
KUV_API KuvStatus kuvEqualFPEps(const KuvImage* img1, const KuvImage* img2, KuvImage* res,
                                float eps);
KUV_API KuvStatus kuvLessS(const KuvImage* img, int32_t s, KuvImage* res);
KUV_API KuvStatus kuvGreaterS(const KuvImage* img, int32_t s, KuvImage* res);
KUV_API KuvStatus kuvEqualS(const KuvImage* img, int32_t s, KuvImage* res);
KUV_API KuvStatus kuvLessSFP(const KuvImage* img, float s, KuvImage* res);
KUV_API KuvStatus kuvGreaterSFP(const KuvImage* img, float s, KuvImage* res);
KUV_API KuvStatus kuvEqualSFP(const KuvImage* img, float s, KuvImage* res);
KUV_API KuvStatus kuvEqualSFPEps(const KuvImage* img, float s, KuvImage* res, float eps);

/* ------------------------------------------------------------ depths */

KUV_API void kuvConvert(const KuvImage* srcImage, KuvImage* dstImage);
KUV_API KuvStatus kuvScale(const KuvImage* srcImage, KuvImage* dstImage);
KUV_API KuvStatus kuvScaleFP(const KuvImage* srcImage, KuvImage* dstImage, float minVal,
                             float maxVal);
KUV_API void kuvBitonalToGray(const KuvImage* srcImage, KuvImage* dstImage, int32_t ZeroScale,
                              int32_t OneScale);
KUV_API KuvStatus kuvMinMaxFP(const KuvImage* srcImage, float* min, float* max);

/* ------------------------------------------------------------ convolution */

#define KUV_COMBINE_SUM       0
#define KUV_COMBINE_SUMSQ     1
#define KUV_COMBINE_SUMSQROOT 2
#define KUV_COMBINE_MAX       3
#define KUV_COMBINE_MIN       4

/* Coefficients and anchor are stored reversed; read them back through
   kuvGetConvKernel. */
typedef struct KuvConvKernel {
    int32_t nCols;
    int32_t nRows;
    int32_t anchorX;
    int32_t anchorY;
    int32_t* values;
    int32_t nShiftR;
} KuvConvKernel;

typedef struct KuvConvKernelFP {
    int32_t nCols;
    int32_t nRows;
    int32_t anchorX;
    int32_t anchorY;
    float* values;
} KuvConvKernelFP;

KUV_API KuvConvKernel* kuvCreateConvKernel(int32_t nCols, int32_t nRows, int32_t anchorX,
                                           int32_t anchorY, const int32_t* values,
                                           int32_t nShiftR);
KUV_API KuvConvKernel* kuvCreateConvKernelChar(int32_t nCols, int32_t nRows, int32_t anchorX,
                                               int32_t anchorY, const signed char* values,
                                               int32_t nShiftR);
KUV_API KuvConvKernelFP* kuvCreateConvKernelFP(int32_t nCols, int32_t nRows, int32_t anchorX,
                                               int32_t anchorY, const float* values);
KUV_API void kuvGetConvKernel(const KuvConvKernel* kernel, int32_t* nCols, int32_t* nRows,
                              int32_t* anchorX, int32_t* anchorY, int32_t** values,
                              int32_t* nShiftR);
KUV_API void kuvGetConvKernelChar(const KuvConvKernel* kernel, int32_t* nCols, int32_t* nRows,
                                  int32_t* anchorX, int32_t* anchorY, signed char** values,
                                  int32_t* nShiftR);
KUV_API void kuvGetConvKernelFP(const KuvConvKernelFP* kernel, int32_t* nCols, int32_t* nRows,
                                int32_t* anchorX, int32_t* anchorY, float** values);
KUV_API void kuvDeleteConvKernel(KuvConvKernel* kernel);
KUV_API void kuvDeleteConvKernelFP(KuvConvKernelFP* kernel);
KUV_API void kuvConvolve2D(const KuvImage* srcImage, KuvImage* dstImage, KuvConvKernel** kernel,
                           int32_t nKernels, int32_t combineMethod);
KUV_API void kuvConvolve2DFP(const KuvImage* srcImage, KuvImage* dstImage,
                             KuvConvKernelFP** kernel, int32_t nKernels, int32_t combineMethod);

KUV_API void kuvConvolveSep2D(const KuvImage* srcImage, KuvImage* dstImage,
                              const KuvConvKernel* xKernel, const KuvConvKernel* yKernel);
KUV_API void kuvConvolveSep2DFP(const KuvImage* srcImage, KuvImage* dstImage,
                                const KuvConvKernelFP* xKernel, const KuvConvKernelFP* yKernel);
KUV_API void kuvBlur(const KuvImage* srcImage, KuvImage* dstImage, int32_t nCols, int32_t nRows,
                     int32_t anchorX, int32_t anchorY);

/* ------------------------------------------------ rank filters, morphology */

/* Ids of kuvFixedFilter. */
#define KUV_FILTER_PREWITT_X  0
#define KUV_FILTER_PREWITT_Y  1
#define KUV_FILTER_SOBEL_X    2
#define KUV_FILTER_SOBEL_Y    3
#define KUV_FILTER_LAPLACE_3  4
#define KUV_FILTER_LAPLACE_5  5
#define KUV_FILTER_GAUSS_3    6
#define KUV_FILTER_GAUSS_5    7
#define KUV_FILTER_HIPASS_3   8
#define KUV_FILTER_HIPASS_5   9
#define KUV_FILTER_SHARPEN_3 10

KUV_API void kuvMedianFilter(const KuvImage* srcImage, KuvImage* dstImage, int32_t nCols,
                             int32_t nRows, int32_t anchorX, int32_t anchorY);
KUV_API void kuvMaxFilter(const KuvImage* srcImage, KuvImage* dstImage, int32_t nCols,
                          int32_t nRows, int32_t anchorX, int32_t anchorY);
KUV_API void kuvMinFilter(const KuvImage* srcImage, KuvImage* dstImage, int32_t nCols,
                          int32_t nRows, int32_t anchorX, int32_t anchorY);
KUV_API KuvStatus kuvFixedFilter(const KuvImage* srcImage, KuvImage* dstImage, int32_t filter);
KUV_API void kuvErode(const KuvImage* srcImage, KuvImage* dstImage, int32_t nIterations);
KUV_API void kuvDilate(const KuvImage* srcImage, KuvImage* dstImage, int32_t nIterations);
KUV_API void kuvOpen(const KuvImage* srcImage, KuvImage* dstImage, int32_t nIterations);
KUV_API void kuvClose(const KuvImage* srcImage, KuvImage* dstImage, int32_t nIterations);

/* ------------------------------------------------------------ test images */

KUV_API KuvImage* kuvCreateImageJaehne(uint32_t depth, int32_t width, int32_t height);

#ifdef __cplusplus
}
#endif

#endif /* KUV_H */
