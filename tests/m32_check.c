/*
 * Built with -m32 against the static library: on the 32-bit target the image
 * header is the published 112-byte record, and the library says so in
 * headerSize.
 */
#include "kuv.h"

#include <stddef.h>
#include <stdio.h>

int main(void)
{
    int failures = 0;
    KuvImage* image;

    if (sizeof(void*) != 4) {
        fprintf(stderr, "m32_check: not built for a 32-bit target\n");
        return 2;
    }
    if (sizeof(KuvImage) != 112) {
        fprintf(stderr, "m32_check: sizeof(KuvImage) is %u, not 112\n", (unsigned)sizeof(KuvImage));
        ++failures;
    }
    if (offsetof(KuvImage, imageDataOrigin) != 108 || offsetof(KuvImage, borderMode) != 76) {
        fprintf(stderr, "m32_check: KuvImage fields are not at their 32-bit offsets\n");
        ++failures;
    }
    if (sizeof(KuvROI) != 20 || sizeof(KuvTileInfo) != 20) {
        fprintf(stderr, "m32_check: KuvROI or KuvTileInfo is not 20 bytes\n");
        ++failures;
    }

    image = kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY", KUV_DATA_ORDER_PIXEL,
                                 KUV_ORIGIN_TOP_LEFT, 4, 16, 16, NULL, NULL, 0, NULL);
    if (image == NULL) {
        fprintf(stderr, "m32_check: kuvCreateImageHeader gave null\n");
        return 1;
    }
    if (image->headerSize != 112) {
        fprintf(stderr, "m32_check: headerSize is %d, not 112\n", (int)image->headerSize);
        ++failures;
    }
    kuvDeallocate(image, KUV_IMAGE_ALL);

    if (failures == 0)
        printf("m32_check: 32-bit KuvImage is 112 bytes, headerSize 112\n");
    return failures == 0 ? 0 : 1;
}
