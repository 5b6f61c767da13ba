/*
 * Built with -std=c99 -pedantic -Werror: kuv.h must be plain C99. The checks
 * pin the record layouts and constant values that a C application compiles
 * in, and a few calls prove the C linkage of the shared library.
 */
#include "kuv.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>

/* C99 has no static assertion: an array of size -1 stops the compiler. */
#define KUV_CHECK(name, cond) typedef char kuv_check_##name[(cond) ? 1 : -1]

#define PTR sizeof(void*)
#define ROUND_UP(n, a) (((n) + (a) - 1) / (a) * (a))

/* Records: 32-bit fields in the published order, pointers native. */
KUV_CHECK(roi_size, sizeof(KuvROI) == 20);
KUV_CHECK(roi_coi, offsetof(KuvROI, coi) == 0);
KUV_CHECK(roi_height, offsetof(KuvROI, height) == 16);

KUV_CHECK(tile_id, offsetof(KuvTileInfo, id) == PTR);
KUV_CHECK(tile_data, offsetof(KuvTileInfo, tileData) == ROUND_UP(PTR + 4, PTR));
KUV_CHECK(tile_size, sizeof(KuvTileInfo) == ROUND_UP(2 * PTR + 4, PTR) + 8);

KUV_CHECK(image_header_size, offsetof(KuvImage, headerSize) == 0);
KUV_CHECK(image_depth, offsetof(KuvImage, depth) == 16);
KUV_CHECK(image_color_model, offsetof(KuvImage, colorModel) == 20);
KUV_CHECK(image_channel_seq, offsetof(KuvImage, channelSeq) == 24);
KUV_CHECK(image_data_order, offsetof(KuvImage, dataOrder) == 28);
KUV_CHECK(image_height, offsetof(KuvImage, height) == 44);
KUV_CHECK(image_roi, offsetof(KuvImage, roi) == 48);
KUV_CHECK(image_border_const,
          offsetof(KuvImage, borderConst) == offsetof(KuvImage, borderMode) + 16);
KUV_CHECK(image_origin_last,
          offsetof(KuvImage, imageDataOrigin) + PTR == sizeof(KuvImage));
KUV_CHECK(image_size_32, PTR != 4 || sizeof(KuvImage) == 112);
KUV_CHECK(image_size_64, PTR != 8 || sizeof(KuvImage) == 144);

KUV_CHECK(status_width, sizeof(KuvStatus) == 4);

/* Constants that applications store in their own records and files. */
KUV_CHECK(depth_8s, KUV_DEPTH_8S == 0x80000008u);
KUV_CHECK(depth_16s, KUV_DEPTH_16S == 0x80000010u);
KUV_CHECK(depth_32s, KUV_DEPTH_32S == 0x80000020u);
KUV_CHECK(depth_32f, KUV_DEPTH_32F == 32u);
KUV_CHECK(image_all, KUV_IMAGE_ALL == 31);
KUV_CHECK(side_all, KUV_SIDE_ALL == 15);
KUV_CHECK(sts_mask_tiled, KUV_StsMaskTiled == -26);
KUV_CHECK(sts_bad_roi_size, KUV_StsBadROISize == -25);
KUV_CHECK(mode_silent, KUV_ErrorModeSilent == 2);
KUV_CHECK(smooth_edge, KUV_SMOOTH_EDGE == 16);

static int reports = 0;
static KuvStatus lastStatus = 0;
static char lastContext[128];

static KuvStatus countingReport(KuvStatus status, const char* funcName, const char* context,
                                const char* fileName, int32_t line)
{
    (void)funcName;
    (void)fileName;
    (void)line;
    ++reports;
    lastStatus = status;
    strncpy(lastContext, context ? context : "", sizeof lastContext - 1);
    return status;
}

static int failures = 0;

static void expect(int ok, const char* what)
{
    if (!ok) {
        fprintf(stderr, "c99_header: FAILED: %s\n", what);
        ++failures;
    }
}

int main(void)
{
    const KuvLibVersion* version = kuvGetLibVersion();
    KuvErrorCallBack previous;
    KuvImage* image;

    expect(version != NULL && version->major == 2 && version->minor == 1 && version->build == 58,
           "kuvGetLibVersion gives 2.1.58");
    expect(strcmp(kuvErrorStr(KUV_StsMaskTiled), "Mask image is taled") == 0,
           "kuvErrorStr(KUV_StsMaskTiled)");

    /* 3 channels, pixel order, 5 by 2, align 4: rows of 15 bytes padded to 16. */
    image = kuvCreateImageHeader(3, 0, KUV_DEPTH_8U, "RGB", "RGB", KUV_DATA_ORDER_PIXEL,
                                 KUV_ORIGIN_TOP_LEFT, 4, 5, 2, NULL, NULL, 0, NULL);
    expect(image != NULL, "kuvCreateImageHeader");
    if (image != NULL) {
        expect(image->widthStep == 16 && image->imageSize == 32, "pixel-order layout");
        expect(memcmp(image->colorModel, "RGB", 4) == 0, "colorModel copied");
        kuvDeallocate(image, KUV_IMAGE_ALL);
    }

    /* A handler written in C receives the report of a refused call. */
    kuvSetErrMode(KUV_ErrorModeParent);
    previous = kuvRedirectError(countingReport);
    kuvAllocateImage(NULL, 0, 0);
    expect(reports == 1 && lastStatus == KUV_StsBadArgument, "report through a C handler");
    expect(strcmp(lastContext, "( image == ((void *)0) )") == 0, "report context");
    expect(kuvGetErrStatus() == KUV_StsBadArgument, "status after the refusal");
    expect(kuvRedirectError(previous) == countingReport, "kuvRedirectError gives back ours");
    kuvSetErrStatus(KUV_StsNoError);

    if (failures == 0)
        printf("c99_header: kuv.h is C99; records and calls agree\n");
    return failures == 0 ? 0 : 1;
}
