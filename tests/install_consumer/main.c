/* Uses an installed kuv: adds two small images and checks the saturated sum. */
#include <kuv.h>

#include <stdio.h>

int main(void)
{
    const KuvLibVersion* version = kuvGetLibVersion();
    KuvImage* a = kuvCreateImageHeader(1, 0, KUV_DEPTH_8U, "GRAY", "GRAY", KUV_DATA_ORDER_PIXEL,
                                       KUV_ORIGIN_TOP_LEFT, 4, 7, 3, NULL, NULL, 0, NULL);
    KuvImage* b;
    int ok;

    if (a == NULL)
        return 1;
    kuvAllocateImage(a, 1, 200);
    b = kuvCloneImage(a);
    if (a->imageData == NULL || b == NULL)
        return 1;
    kuvAdd(a, b, b);
    ok = kuvGetErrStatus() == KUV_StsNoError && (unsigned char)b->imageData[6] == 255;

    printf("kuv %s (%d.%d.%d): 200 + 200 = %u: %s\n", version->version, (int)version->major,
           (int)version->minor, (int)version->build, (unsigned char)b->imageData[6],
           ok ? "ok" : "WRONG");
    kuvDeallocate(a, KUV_IMAGE_ALL);
    kuvDeallocate(b, KUV_IMAGE_ALL);
    return ok ? 0 : 1;
}
